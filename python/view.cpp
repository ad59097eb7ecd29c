// View: a validated DO record, read in place.

#include "view.h"

#include "diagnosis.h"
#include "references.h"

#include <memory>

namespace crrecord::python {

namespace {

// Calls read() without the GIL if it may. Adds the findings to an error of the library.
template <class Read>
auto Validating(Slice const& bytes, bool subDO, Read read) {
    try {
        return WithoutGil(bytes, read);
    } catch (Cr_ErrnoException const& error) {
        Raise(error.GetStatus(), error.what(),
              Diagnose(bytes, {.expected = Expected::DataObject, .subDO = subDO}).findings);
    }
}

DORecordView Validated(Slice const& bytes, bool subDO) {
    return Validating(bytes, subDO, [&] { return DORecordView(bytes.Data(), bytes.size, subDO ? CR_DO_SUB_DO : 0); });
}

} // namespace

std::unique_ptr<DORecord> RecordFrom(Slice const& bytes, bool subDO) {
    return Validating(bytes, subDO,
                      [&] { return DORecord::FromBuffer(bytes.Data(), bytes.size, subDO ? CR_DO_SUB_DO : 0); });
}

py::bytes Converted(Slice const& record, bool subDO, std::string const& order) {
    bool const toNetwork = IsNetworkOrder(order);
    py::bytes const copy = BytesOf(record.Data(), record.size);
    Slice const bytes = PinWhole(copy);
    // The record may have changed since it was validated, but its copy does not change.
    if (Validated(bytes, subDO).IsInNetworkOrder() != toNetwork) {
        WithoutGil(bytes, [&] {
            auto* const header = reinterpret_cast<DORecordHeader*>(const_cast<unsigned char*>(bytes.Data()));
            (toNetwork ? DORecordHeaderHton : DORecordHeaderNtoh)(header);
        });
    }
    return copy;
}

RecordLayout LayoutOf(DORecordView const& record) noexcept {
    return RecordLayout({.ntaskid = record.GetLegacyTaskIDs(),
                         .nfp = record.GetNfp(),
                         .nudcid = record.GetNudcid(),
                         .nds = record.GetLegacyDSIDs(),
                         .trefssize = record.GetTRefsSize(),
                         .bsize = record.GetBSize(),
                         .fptype = record.GetFPType(),
                         .dotype = record.GetDOType()});
}

// Everything comes from the validated header that the view keeps: the bytes may change while Python uses them.
View::View(Slice bytes, bool subDO)
    : bytes_(std::move(bytes)), subDO_(subDO), fields_(Validated(bytes_, subDO)),
      segments_(fields_.Segments().GetSource()), unique_(fields_.UniqueDCIDs().GetSource()),
      bloom_(fields_.GetBloom()) {
    RecordLayout const layout = LayoutOf(fields_);
    unsigned char const* const record = crrecord::BytesOf(fields_.GetHeader());
    taskIds_ = record + layout.taskids;
    dsids_ = record + layout.dsids;
    references_ = record + layout.trefs;
}

std::unique_ptr<DORecord> View::Copy() const {
    return RecordFrom(bytes_, subDO_);
}

Array View::entriesOf(Field const& field) const {
    return Array(bytes_.owner, segments_.entries, segments_.count, segments_.stride, field);
}

Field View::fingerprint() const {
    return {"fingerprint", 0, segments_.fingerprint, Content::Bytes};
}

Array View::Entries() const {
    Content const number = NumberIn(segments_.order == Order::Network);
    std::vector<Field> fields{fingerprint()};
    if (segments_.sizeWidth != 0) {
        fields.push_back({"size", segments_.fingerprint, segments_.sizeWidth, number});
    }
    if (segments_.offsetWidth != 0) {
        fields.push_back({"offset", segments_.offset, segments_.offsetWidth, number});
    }
    return Array(bytes_.owner, segments_.entries, segments_.count, segments_.stride,
                 std::make_shared<Element const>(std::move(fields), true));
}

Array View::Fingerprints() const {
    return entriesOf(fingerprint());
}

// The stored sizes, or those that follow from the validated header.
Array View::Sizes() const {
    if (segments_.sizeWidth != 0) {
        return entriesOf(
            {"size", segments_.fingerprint, segments_.sizeWidth, NumberIn(segments_.order == Order::Network)});
    }
    if (!computedSizes_) {
        auto const sizes = std::make_shared<Sizes32>(segments_.count);
        for (unsigned int i = 0; i < segments_.count; ++i) {
            (*sizes)[i] = segments_.Size(i);
        }
        computedSizes_ = sizes;
    }
    return Array(computedSizes_, reinterpret_cast<unsigned char const*>(computedSizes_->data()), segments_.count,
                 sizeof(std::uint32_t), Field{"size", 0, sizeof(std::uint32_t), Content::HostNumber});
}

// The stored offsets, or `count` times the value for none.
Array View::Offsets() const {
    if (segments_.offsetWidth != 0) {
        return entriesOf(
            {"offset", segments_.offset, segments_.offsetWidth, NumberIn(segments_.order == Order::Network)});
    }
    static std::uint64_t const none = kNoOffset;
    return Array(nullptr, reinterpret_cast<unsigned char const*>(&none), segments_.count, 0,
                 Field{"offset", 0, sizeof none, Content::HostNumber, true});
}

Array View::Dcids() const {
    return Array(bytes_.owner, segments_.dcids, segments_.count, kDcidSize,
                 Field{"dcid", 0, kDcidSize, Content::HostNumber});
}

Array View::UniqueList() const {
    return Array(
        bytes_.owner, unique_.entries, unique_.count, kUniqueEntrySize,
        std::make_shared<Element const>(
            std::vector<Field>{{"dcid", 0, 8, Content::HostNumber}, {"bytes", 8, 8, Content::HostNumber}}, true));
}

Array View::Bloom() const {
    return Array(bytes_.owner, bloom_ ? bloom_ : bytes_.Data(), bloom_ ? fields_.GetBSize() : 0, 1,
                 Field{"bits", 0, 1, Content::HostNumber});
}

Array View::LegacyTaskIds() const {
    return Array(bytes_.owner, taskIds_, fields_.GetLegacyTaskIDs(), kLegacyTaskIdSize,
                 Field{"task", 0, kLegacyTaskIdSize, Content::HostNumber});
}

Array View::LegacyDsids() const {
    return Array(bytes_.owner, dsids_, fields_.GetLegacyDSIDs(), kLegacyDsidSize,
                 Field{"dsid", 0, kLegacyDsidSize, Content::HostNumber});
}

py::list View::References() const {
    return DecodeReferences(references_, fields_.GetTRefsSize());
}

} // namespace crrecord::python
