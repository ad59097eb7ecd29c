// Values of DO records as Python objects, for View and DORecord.

#include "do_fields.h"

#include "buffer.h"
#include "enums.h"
#include "errors.h"

#include <crrecord/fingerprint.h>

#include <optional>
#include <vector>

namespace crrecord::python {

namespace {

// Calls compute(record), which must not call Python, without the GIL if the record is large. For a shared record it
// works on a copy then.
template <class Compute>
auto WithoutGil(DORecord const& record, bool isShared, Compute compute) {
    constexpr unsigned int kWorthwhile = 64 * 1024;
    unsigned int const size = record.GetHeaderSize();
    if (size < kWorthwhile || record.IsInNetworkOrder()) {
        return compute(record);
    }
    if (!isShared) {
        return ReleasingGil([&] { return compute(record); });
    }
    auto const* const bytes = reinterpret_cast<unsigned char const*>(record.GetHeader());
    std::vector<unsigned char> copy(bytes, bytes + size);
    unsigned int const options = record.IsSubDO() ? CR_DO_SUB_DO : 0;
    std::unique_ptr<DORecord> wrapped;
    try {
        wrapped = DORecord::Wrap(copy.data(), size, size, true, options);
    } catch (Cr_ErrnoException const&) { // a bloom record whose list is not converted yet
    }
    return wrapped ? ReleasingGil([&] { return compute(*wrapped); }) : compute(record);
}

struct DeleteDigest {
    void operator()(crt_digest_t* digest) const noexcept { CRTDigestDelete(&digest); }
};

struct DeleteForm {
    void operator()(void* form) const noexcept { DORecord::SerializedDORecordFree(&form); }
};

} // namespace

py::object DigestOf(DORecord const& record, bool isShared) {
    std::unique_ptr<crt_digest_t, DeleteDigest> const digest(
        WithoutGil(record, isShared, [](DORecord const& computed) { return computed.GetDigest(); }));
    if (!digest) {
        return py::none();
    }
    return MakeTuple(PythonType("Digest"), BytesOf(digest->digest.bytes, CRFPDigestSize(record.GetFPType())),
                     digest->kind == 0 ? py::object(py::none()) : FPTypeMember(digest->kind - 1), digest->dcid);
}

py::bytes SerializedForm(DORecord const& record, bool checksum) {
    if (record.IsInNetworkOrder()) {
        Raise(CR_STATUS_INVALID, "serialize needs a record in host order");
    }
    void* made = nullptr;
    unsigned long size = 0;
    cr_status_t const status =
        WithoutGil(record, true, [&](DORecord const& computed) { return computed.Serialize(&made, &size, checksum); });
    std::unique_ptr<void, DeleteForm> const form(made);
    Require(status);
    return BytesOf(form.get(), size);
}

py::dict ContainerSizesOf(DORecord const& record) {
    cr_dcid_size_map_t sizes;
    Require(record.GetUDCIDSizeList(sizes));
    py::dict dict;
    for (auto const& [dcid, bytes] : sizes) {
        dict[py::int_(dcid)] = bytes;
        CheckSignals(static_cast<py::ssize_t>(dict.size()));
    }
    return dict;
}

} // namespace crrecord::python
