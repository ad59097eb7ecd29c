// Any bytes as a reference, in both forms, and as a reference section. The decoder accepts only what the encoder
// writes. A record has the references that were loaded.

#include "target.h"

#include <crrecord/DORecord.h>

#include <set>

namespace {

using fuzz::Must;
using References = std::set<std::pair<int, unsigned long>>;

// Decodes the reference at the start of the bytes and encodes it again. Returns: the number of bytes decoded.
unsigned long UseOne(fuzz::Bytes bytes, int form, References* seen) {
    unsigned long taken = ~0ul;
    _cr_tref_t* reference = CRTRefNewDeserialize(bytes.data(), bytes.size(), form, &taken);
    if (!reference) {
        Must(taken == 0, "a decoder that fails consumes nothing");
        return 0;
    }
    char text[CR_TREF_TEXT_SIZE] = {};
    unsigned long const written = CRTRefSerialize(text, sizeof text, reference, form);
    unsigned long const nul = form == CR_TREF_TEXT ? 1 : 0;
    Must(taken <= bytes.size() && taken <= written + nul && taken >= written, "number of bytes decoded");
    Must(std::equal(text, text + written, bytes.begin(),
                    [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; }),
         "encoding reproduces the decoded bytes");
    Must(CRTRefSerialize(text, written - 1, reference, form) == 0, "a buffer that is too small");
    if (seen) {
        seen->emplace(CRTRefGetType(reference), CRTRefGetID(reference));
    }
    CRTRefDelete(&reference);
    return taken;
}

} // namespace

FUZZ_TARGET(references, bytes) {
    fuzz::Block given(bytes.begin(), bytes.end());
    given.shrink_to_fit();
    UseOne(given, CR_TREF_TEXT, nullptr);
    References expected;
    unsigned long at = 0;
    while (unsigned long const taken = UseOne(fuzz::Bytes(given).subspan(at), CR_TREF_SERIALIZED, &expected)) {
        at += taken;
    }
    unsigned char const bitmap = 0;
    DORecord record(64, 0, 0, 0, 1, 1, 1, &bitmap, nullptr, 3, CR_DO_TYPE_BLOOM_FILTER);
    bool loaded = true;
    try {
        record.AddSerializedTRefs(reinterpret_cast<char const*>(given.data()), static_cast<unsigned int>(given.size()));
    } catch (Cr_ErrnoException const&) {
        loaded = false;
    }
    Must(loaded == (at == given.size()), "a section is loaded completely or rejected");
    References held;
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        auto const end = record.GetTRefTypeEnd(static_cast<cr_reftype_t>(kind));
        for (auto i = record.GetTRefTypeBegin(static_cast<cr_reftype_t>(kind)); i != end; ++i) {
            held.emplace(CRTRefGetType((*i)->Get()), CRTRefGetID((*i)->Get()));
        }
    }
    Must(held == expected, "the references that a record holds");
    auto const size = record.GetHeaderSize();
    Must(DORecordHeaderValidate(record.GetHeader(), size, 0) == CR_STATUS_OK, "validity with the references");
}
