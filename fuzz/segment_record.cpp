// Any bytes as a segment record, in both orders. If validation passes, conversion, both forms, text and class are safe
// and agree.

#include "target.h"

#include <crrecord/SORecord.h>
#include <crrecord/fingerprint.h>

#include <sstream>

namespace {

using fuzz::Must;

_SegmentDBRecord* RecordOf(fuzz::Block& block) {
    return reinterpret_cast<_SegmentDBRecord*>(block.data());
}

bool Validates(fuzz::Block& block, unsigned int options) {
    return SegmentRecordValidate(RecordOf(block), static_cast<unsigned int>(block.size()), options) == CR_STATUS_OK;
}

// Compares the serialized form of a record in host order with the fields of the record.
void UseForm(fuzz::Block host) {
    _SegmentDBRecord const fields = *RecordOf(host);
    void* form = nullptr;
    unsigned long size = 0;
    Must(SegmentRecordSerialize(RecordOf(host), &form, &size) == CR_STATUS_OK, "a valid record can be serialized");
    Must(size == 33 + std::uint64_t{CRFPTextSize(fields.fptype)} * fields.nfp, "size of the form");
    auto const* text = static_cast<char const*>(form) + 32;
    for (unsigned int i = 0; i < fields.nfp; ++i, text += CRFPTextSize(fields.fptype)) {
        crfp_digest_t digest{};
        Must(CRFPStringToDigest_r(text, fields.fptype, &digest) != nullptr, "the text of a fingerprint is valid");
        unsigned int const width = CRFPDigestSize(fields.fptype);
        unsigned char const* const stored = host.data() + 96 + 8ul * fields.ntaskids + std::size_t{width} * i;
        Must(std::equal(stored, stored + width, digest.bytes), "the text is that of the fingerprint");
    }
    std::free(form);
}

void UseClass(fuzz::Block const& given, bool network) {
    try {
        auto const record = SORecord::FromBuffer(given.data(), given.size());
        Must(given.size() == CR_SO_RECORD_SIZE && !record->IsInNetworkOrder(),
             "SORecord accepts its size only, and converts it to host order");
        network ? record->HostToNetwork(0) : record->NetworkToHost(0);
        Must(std::equal(given.begin(), given.end(), reinterpret_cast<unsigned char*>(record->GetHeader())),
             "SORecord keeps the bytes");
    } catch (Cr_ErrnoException const&) {
        Must(given.size() != CR_SO_RECORD_SIZE, "SORecord accepts a record without task ids and fingerprints");
    }
}

void UseRecord(fuzz::Block const& given, bool network) {
    fuzz::Block converted = given, text = given, stripped = given;
    (network ? SegmentRecordNtoh : SegmentRecordHton)(RecordOf(converted), RecordOf(converted), 0);
    Must(Validates(converted, network ? 0 : CR_SO_NETWORK_ORDER), "validity of the converted record");
    fuzz::Block const& inNetwork = network ? given : converted;
    UseForm(network ? converted : given);
    UseClass(given, network);

    std::ostringstream bytes, line;
    SegmentRecordToStream(bytes, *RecordOf(text), true);
    Must(bytes.str() == std::string(inNetwork.begin(), inNetwork.end()), "binary form");
    SegmentRecordToStream(line, *RecordOf(text), false);
    Must(text == given && !line.str().empty(), "writing does not change the record");

    (network ? SegmentRecordNtoh : SegmentRecordHton)(RecordOf(stripped), RecordOf(stripped), CR_SO_STRIP_TASKIDS);
    stripped.resize(network ? RecordOf(stripped)->recsize : __builtin_bswap32(RecordOf(stripped)->recsize));
    Must(Validates(stripped, (network ? 0 : CR_SO_NETWORK_ORDER) | CR_SO_NO_TASKIDS), "validity without task ids");

    (network ? SegmentRecordHton : SegmentRecordNtoh)(RecordOf(converted), RecordOf(converted), 0);
    Must(converted == given, "conversion forth and back");
}

} // namespace

FUZZ_TARGET(segment_record, bytes) {
    fuzz::Block given(bytes.begin(), bytes.end());
    given.shrink_to_fit();
    for (unsigned int options = 0; options < 4; ++options) {
        fuzz::StopEverywhere([&](cr_finding_callback_t listen, void* context) {
            SegmentRecordDiagnose(given.data(), given.size(), options, listen, context);
        });
        if (!given.empty() && Validates(given, options)) {
            UseRecord(given, (options & CR_SO_NETWORK_ORDER) != 0);
        }
    }
}
