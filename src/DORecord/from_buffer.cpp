// Records from stored bytes: a copy of them, or the bytes themselves.

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
        record->allocate(size, false);
    } catch (...) {
        RequireValid(buffer, size, options); // the record's own errors come first
        throw;
    }
    RequireValid(buffer, size, options, BytesOf(record->header));
    record->adopt(Order::Host, options);
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
    record->adopt(order, options);
    return record;
}

// Brings a validated buffer to host order with its references loaded. Of a buffer without legacy arrays nothing changes
// before everything that can fail is done.
void DORecord::adopt(Order order, unsigned int options) {
    networkOrder = order == Order::Network;
    subDO = (options & CR_DO_SUB_DO) != 0;
    RecordLayout const layout = LayoutOf(header);
    if (layout.taskIds != layout.trefs) {
        if (!ownsBuffer) {
            RefuseLegacyArrays();
        }
        if (networkOrder) {
            NetworkToHost(0);
        }
        convertToTRefs();
        return;
    }
    std::uint64_t const stored = layout.tail - layout.trefs;
    std::uint64_t loaded = 0;
    loadReferences(reinterpret_cast<char const*>(BytesOf(header) + layout.trefs), stored, loaded);
    if (networkOrder) {
        NetworkToHost(0);
    }
    // Repeated references were dropped.
    setTRefsSize(static_cast<unsigned int>(loaded));
    setRecSize(static_cast<unsigned int>(layout.total - (stored - loaded)));
    clear(LayoutOf(header).tail, layout.total);
}
