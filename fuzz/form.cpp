// Any bytes as an exchange form of a DO record, whose types are in the first byte. The validator, the diagnosing
// function, the parser and the constructor agree. A record built from a form is safe in every operation.

#include "target.h"
#include "use_everything.h"

namespace {

using fuzz::Must;

struct Types {
    unsigned int dotype;
    unsigned char fptype;
    unsigned int subDO;
};

// For a form that validates.
void UseRecord(Types types, fuzz::Bytes form, DORecord& record) {
    void* written = nullptr;
    unsigned long size = 0;
    bool const summed = DORecordSerializedValidate(form.data(), form.size(), types.dotype, types.fptype,
                                                   types.subDO | CR_DO_FORM_CHECKSUM) == CR_STATUS_OK;
    if (types.dotype != CR_DO_TYPE_BLOOM_FILTER) {
        Must(record.Serialize(&written, &size, summed) == CR_STATUS_OK, "a record from a form can be serialized");
        Must(std::equal(form.begin(), form.end(), static_cast<unsigned char*>(written),
                        static_cast<unsigned char*>(written) + size),
             "serializing reproduces the form");
    }
    DORecord::SerializedDORecordFree(&written);
    bool const appended = record.AppendBloomAndUniqueDCIDList() == CR_STATUS_OK;
    auto const* const bytes = reinterpret_cast<unsigned char const*>(record.GetHeader());
    fuzz::Block const stored(bytes, bytes + record.GetHeaderSize());
    bool const valid = DORecordHeaderValidate(bytes, record.GetHeaderSize(), types.subDO) == CR_STATUS_OK;
    // AppendBloomAndUniqueDCIDList must first convert the list of a received bloom record.
    Must(valid || (types.dotype == CR_DO_TYPE_BLOOM_FILTER && !appended), "a record from a form is valid");
    if (char const* const broken = valid ? UseEverything(stored.data(), stored.size(), types.subDO) : nullptr) {
        fuzz::Fail(broken);
    }
}

// Parses into memory of exactly the needed size, and into too little memory.
void ParseInto(Types types, fuzz::Bytes form, fuzz::Bytes expected) {
    for (std::size_t const capacity : {expected.size(), expected.size() - 1}) {
        fuzz::Block memory(capacity);
        auto* const given = reinterpret_cast<DORecordHeader*>(memory.data());
        DORecordHeader* header = given;
        unsigned long size = capacity;
        Must(DORecordHeaderDeserialize(&header, &size, form.data(), form.size(), types.dotype, types.fptype) == 0 &&
                 (header == given) == (capacity == expected.size()),
             "a form is parsed into memory of any size");
        auto const* const bytes = reinterpret_cast<unsigned char const*>(header);
        constexpr std::size_t kTimes = offsetof(DORecordHeader, ctime), kAfterTimes = offsetof(DORecordHeader, ntaskid);
        Must(std::equal(bytes, bytes + kTimes, expected.begin()) &&
                 std::equal(bytes + kAfterTimes, bytes + expected.size(), expected.begin() + kAfterTimes),
             "a form makes one record");
        std::free(header == given ? nullptr : header);
    }
}

void Try(Types types, fuzz::Bytes form) {
    auto const [dotype, fptype, subDO] = types;
    bool const good = DORecordSerializedValidate(form.data(), form.size(), dotype, fptype, subDO) == CR_STATUS_OK;
    unsigned long errors = 0;
    auto const count = [](cr_finding_t const* finding, void* to) {
        *static_cast<unsigned long*>(to) += finding->severity == CR_FINDING_ERROR;
        return true;
    };
    cr_status_t const said =
        DORecordSerializedDiagnose(form.data(), form.size(), dotype, fptype, subDO, count, &errors);
    Must((said == CR_STATUS_OK) == good && (errors == 0 || !good), "the validator and the diagnosing function agree");
    DORecordHeader* header = nullptr;
    unsigned long size = 0;
    cr_status_t const parsed = DORecordHeaderDeserialize(&header, &size, form.data(), form.size(), dotype, fptype);
    Must(parsed == CR_STATUS_OK || (header == nullptr && size == 0),
         "a parser that fails does not change its arguments");
    Must(parsed == CR_STATUS_OK || !good, "a form that validates is parsed");
    Must(parsed != CR_STATUS_OK || size <= 4 * form.size() + 4096, "memory in proportion to the form");
    if (parsed == CR_STATUS_OK) {
        ParseInto(types, form, {reinterpret_cast<unsigned char*>(header), header->recsize});
    }
    fuzz::StopEverywhere(
        [&, dotype = dotype, fptype = fptype, subDO = subDO](cr_finding_callback_t listen, void* context) {
            DORecordSerializedDiagnose(form.data(), form.size(), dotype, fptype, subDO, listen, context);
        });
    std::free(header);
    try {
        DORecord record(dotype, fptype, nullptr, 0, form.data(), form.size(), subDO != 0);
        Must(good, "the constructor rejects a form that does not validate");
        UseRecord(types, form, record);
    } catch (Cr_ErrnoException const&) {
        Must(!good, "the constructor accepts a form that validates");
    }
}

} // namespace

FUZZ_TARGET(form, bytes) {
    fuzz::Block whole(bytes.begin(), bytes.end());
    whole.shrink_to_fit();
    for (Types types{}; types.dotype < 6; ++types.dotype) {
        for (types.fptype = 0; types.fptype < 4; ++types.fptype) {
            if (DORecordSerializedValidate(whole.data(), whole.size(), types.dotype, types.fptype, 0) == CR_STATUS_OK) {
                Try(types, whole);
            }
        }
    }
    unsigned char const types = fuzz::TakeByte(bytes);
    fuzz::Block form(bytes.begin(), bytes.end());
    form.shrink_to_fit();
    Try({types & 7u, static_cast<unsigned char>(types >> 3 & 7), types >> 6 & 1 ? CR_DO_SUB_DO : 0}, form);
}
