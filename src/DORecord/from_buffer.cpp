// Construction from stored bytes: FromBuffer copies them, Wrap uses them in place.

#include "DORecord/record.h"
#include "support/validate/record_diagnosis.h"

using namespace crrecord;

cr_status_t DORecord::ValidateHeader(void const* buffer, unsigned int size, unsigned int options) {
    return DORecordHeaderValidate(buffer, size, options);
}

std::unique_ptr<DORecord> DORecord::FromBuffer(void const* buffer, unsigned long size, unsigned int options) {
    std::unique_ptr<DORecord> record;
    try {
        record.reset(new DORecord());
        RecordInternals::AllocateBuffer(*record, size, false);
    } catch (...) {
        RequireValid(buffer, size, options); // an invalid record is reported first
        throw;
    }
    RequireValid(buffer, size, options, BytesOf(record->header));
    RecordInternals::Adopt(*record, Order::Host, options);
    return record;
}

std::unique_ptr<DORecord> DORecord::Wrap(void* buffer, unsigned long size, unsigned long capacity, bool fixed,
                                         unsigned int options) {
    Order const order = RequireValid(buffer, size, options).order;
    if (capacity < size) {
        Refuse(kInvalidRecordSize);
    }
    std::unique_ptr<DORecord> record(new DORecord());
    record->header = static_cast<DORecordHeader*>(buffer);
    record->bufferSize = capacity;
    record->ownsBuffer = false;
    record->copyMode = fixed ? CopyMode::Fixed : CopyMode::Borrowed;
    RecordInternals::Adopt(*record, order, options);
    return record;
}

// Converts a validated buffer to host order and loads its references.
// On failure: a buffer without legacy arrays is unchanged.
void RecordInternals::Adopt(DORecord& record, Order order, unsigned int options) {
    record.networkOrder = order == Order::Network;
    record.subDO = (options & CR_DO_SUB_DO) != 0;
    RecordLayout const layout = LayoutOf(record.header);
    if (layout.taskids != layout.trefs) {
        if (!record.ownsBuffer) {
            RefuseLegacyArrays();
        }
        record.convertToTRefs(); // in host order: only FromBuffer adopts a buffer that the record owns
        return;
    }
    std::uint64_t const stored = layout.tail - layout.trefs;
    std::uint64_t loaded = 0;
    LoadReferences(record, reinterpret_cast<char const*>(BytesOf(record.header) + layout.trefs), stored, loaded);
    if (record.networkOrder) {
        record.NetworkToHost(0);
    }
    // Repeated references are stored once, so the sizes may be smaller.
    record.setTRefsSize(static_cast<unsigned int>(loaded));
    record.setRecSize(static_cast<unsigned int>(layout.total - (stored - loaded)));
    Clear(record, LayoutOf(record.header).tail, layout.total);
}
