#include "record/do_record.h"

#include "io/failure.h"
#include "record/record_findings.h"

#include "support/layout/record_layout.h"

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

// Removes the references of a valid DO record from its bytes. Returns: the record, in host order.
Record WithoutReferences(Record record) {
    ConvertRecord(record, Order::Host);
    record.order = Order::Host;
    auto* const header = reinterpret_cast<DORecordHeader*>(record.bytes);
    RecordLayout const layout = LayoutOf(header);
    std::copy(record.bytes + layout.tail, record.bytes + layout.total, record.bytes + layout.taskids);
    record.size = layout.total - (layout.tail - layout.taskids);
    header->recsize = static_cast<std::uint32_t>(record.size);
    header->ntaskid = header->nds = header->trefssize = 0;
    return record;
}

std::unique_ptr<DORecord> Open(Record const& record) {
    if (record.kind == Kind::Form) {
        auto made = std::make_unique<DORecord>(record.form.dotype, record.form.fptype, nullptr, 0, record.bytes,
                                               record.size, false);
        // In the form, the list of a bloom record is in network order.
        if (IsBloom(record.form.dotype)) {
            cr_status_t const status = made->AppendBloomAndUniqueDCIDList();
            if (status != CR_STATUS_OK) {
                throw Cr_ErrnoException(status);
            }
        }
        return made;
    }
    auto const* const header = reinterpret_cast<DORecordHeader const*>(record.bytes);
    if (header->ntaskid == 0 && header->nds == 0) {
        return DORecord::Wrap(record.bytes, record.size, record.size, true);
    }
    // FromBuffer converts legacy references and sets the modification time. The time of the record is restored.
    auto opened = DORecord::FromBuffer(record.bytes, record.size);
    opened->GetHeader()->mtime = DORecordView(record.bytes, record.size).GetMTime();
    return opened;
}

} // namespace

std::unique_ptr<DORecord> OpenDORecord(std::string_view file, Record const& record) {
    try {
        return Open(record);
    } catch (Cr_ErrnoException const& error) {
        throw InputFailure(PlaceOf(file, record) + ": " + TextOf(error));
    }
}

std::unique_ptr<DORecord> OpenWithoutReferences(std::string_view file, Record const& record) {
    return OpenDORecord(file, record.kind == Kind::DataObject ? WithoutReferences(record) : record);
}

std::optional<OnlyRecord> OnlyDORecord(RecordStream& stream) {
    std::optional<OnlyRecord> only;
    bool hasDamage = false;
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        if (!CheckRecord(stream.Name(), *record, findings)) {
            hasDamage = true;
            if (!stream.Scans()) {
                break;
            }
            continue;
        }
        if (record->kind == Kind::Segment) {
            throw Failure(stream.Name() + ": is a segment record, expected a DO record");
        }
        if (only || (!stream.Scans() && !stream.EndsHere())) {
            throw Failure(stream.Name() + ": has more than one record, expected one");
        }
        only.emplace(OnlyRecord{*record, {}, false});
        if (!stream.Scans()) {
            return only;
        }
        only->bytes.assign(record->bytes, record->bytes + record->size);
        only->record.bytes = only->bytes.data();
    }
    if (only) {
        only->hasDamage = hasDamage;
    } else {
        stream.ThrowIfChanged();
    }
    return only;
}

std::string TextOf(crfp_digest_t const& fingerprint, unsigned int fptype) {
    std::string text(CRFPTextSize(fptype), '\0');
    CRFPDigestToString_r(&fingerprint, fptype, text.data(), text.size());
    text.pop_back();
    return text;
}

} // namespace crrecord::tool
