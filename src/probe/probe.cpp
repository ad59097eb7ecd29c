#include <crrecord/probe.h>

#include "SOmarshall/layout.h"
#include "support/layout/record_layout.h"

namespace crrecord {

namespace {

static_assert(CR_RECORD_SEGMENT == CR_SO_RECORD_TYPE && CR_RECORD_DO == CR_DO_RECORD_TYPE);
static_assert(offsetof(DORecordHeader, type) == 0 && segment::FieldOf("type").offset == 0);

struct Start {
    cr_record_kind_t kind;
    Order order;
};

// No record type is the same in both orders.
Start StartOf(std::uint16_t type) noexcept {
    for (cr_record_kind_t const kind : {CR_RECORD_SEGMENT, CR_RECORD_DO}) {
        if (ByteSwapped(type) == kind) {
            return {kind, Order::Network};
        }
        if (type == kind) {
            return {kind, Order::Host};
        }
    }
    return {CR_RECORD_UNKNOWN, Order::Host};
}

void SetSizes(cr_record_probe_t& probe, _SegmentDBRecord const* record, Order order) noexcept {
    probe.recorded_size = InOrder(record->recsize, order);
    probe.counted_size =
        segment::RecordSize(InOrder(record->ntaskids, order), InOrder(record->nfp, order), record->fptype);
}

void SetSizes(cr_record_probe_t& probe, DORecordHeader const* record, Order order) noexcept {
    probe.recorded_size = InOrder(record->recsize, order);
    probe.counted_size = RecordLayout(CountsOf(record, order)).total;
}

} // namespace

} // namespace crrecord

using namespace crrecord;

cr_record_probe_t CRRecordProbe(void const* bytes, unsigned long available) noexcept {
    cr_record_probe_t probe{sizeof probe, CR_RECORD_UNKNOWN, 0, 0, 0, 0};
    if (available < sizeof(std::uint16_t)) {
        return probe;
    }
    auto const [kind, order] = StartOf(Load<std::uint16_t>(bytes));
    probe.kind = kind;
    probe.network_order = order == Order::Network ? 1 : 0;
    probe.head_size = kind == CR_RECORD_SEGMENT ? CR_SO_FIXED_SIZE : kind == CR_RECORD_DO ? CR_DO_HEADER_SIZE : 0;
    if (kind == CR_RECORD_UNKNOWN || available < probe.head_size) {
        return probe;
    }
    if (kind == CR_RECORD_SEGMENT) {
        SetSizes(probe, static_cast<_SegmentDBRecord const*>(bytes), order);
    } else {
        SetSizes(probe, static_cast<DORecordHeader const*>(bytes), order);
    }
    return probe;
}
