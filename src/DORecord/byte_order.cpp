// Conversion of a record between host and network order.

#include "DORecord/record.h"

using namespace crrecord;

namespace {

// Returns: the end offset of the last bytes that a conversion byte-swaps.
std::uint64_t SwappedEnd(DORecordHeader const* header, RecordLayout const& layout) noexcept {
    if (header->nudcid != 0) {
        return layout.udcids + kUniqueHeadSize;
    }
    return IsBloom(header->dotype) ? layout.entries + kBloomLengthSize : layout.dcids;
}

} // namespace

void RecordInternals::Convert(DORecord& record, Order order, unsigned int options) {
    RecordLayout const layout = CheckedLayout(record, &RecordLayout::entries);
    if (SwappedEnd(record.header, layout) > record.bufferSize) {
        Refuse(kInvalidRecordSize);
    }
    record.networkOrder = order == Order::Network;
    if (order == Order::Network) {
        DORecordHeaderHton(record.header);
    } else {
        DORecordHeaderNtoh(record.header);
    }
    if ((options & 1) != 0) {
        record.RemoveAllTRefs();
    }
}

void DORecord::HostToNetwork(unsigned int options) {
    RecordInternals::Convert(*this, Order::Network, options);
}

void DORecord::NetworkToHost(unsigned int options) {
    RecordInternals::Convert(*this, Order::Host, options);
}
