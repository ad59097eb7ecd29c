#include "record/record_builder.h"

#include "SOmarshall/layout.h"
#include "io/failure.h"
#include "support/layout/record_layout.h"

#include <crrecord/SORecord.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <limits>

namespace crrecord::tool {

void RecordBuilder::Add(CutSegment const& segment) {
    CheckOffset(segment.offset);
    Append(segment.fingerprint.bytes, CRFPDigestSize(fptype_));
    auto const size = static_cast<std::uint32_t>(segment.size);
    Append(&size, DOTypeOf(facts_.dotype).sizeWidth);
    AppendOffset(segment.offset);
    dcids_.push_back(segment.container);
    CheckCount(dcids_.size());
}

void RecordBuilder::Reserve(std::uint64_t segments) {
    RecordLayout const layout(
        {.nfp = static_cast<std::uint32_t>(std::min(segments, kLargestRecord)), .fptype = fptype_, .dotype = Type()});
    if (layout.total <= kLargestRecord) {
        entries_.reserve(layout.dcids - layout.entries);
        dcids_.reserve(layout.segments);
    }
}

void RecordBuilder::CheckOffset(std::uint64_t offset) const {
    if (facts_.dotype == CR_DO_TYPE_4_BYTE_OFFSET && offset > std::numeric_limits<std::uint32_t>::max()) {
        throw InputFailure("a segment starts beyond 4 GiB, which DO type 5 cannot store: choose DO type 3");
    }
}

void RecordBuilder::CheckCount(std::uint64_t segments) const {
    RecordCounts const counts{.nfp = static_cast<std::uint32_t>(segments), .fptype = fptype_, .dotype = Type()};
    if (segments > kLargestRecord || RecordLayout(counts).total > kLargestRecord) {
        throw InputFailure("the record would be larger than 4 GiB - 1: choose larger segments");
    }
}

namespace {

constexpr unsigned short kBuiltFlags = 0x0002; // as the constructors set them

// The constructors of DORecord refuse a list without segments, but such a record is valid.
std::unique_ptr<DORecord> WithoutSegments(CutTotals const& totals, unsigned int ownContainer, std::uint64_t segmentSize,
                                          unsigned char fptype, unsigned char dotype) {
    RecordLayout const layout({.fptype = fptype, .dotype = dotype});
    std::vector<unsigned char> bytes(layout.total);
    auto* const header = reinterpret_cast<DORecordHeader*>(bytes.data());
    header->type = CR_DO_RECORD_TYPE;
    header->flags = kBuiltFlags;
    header->recsize = static_cast<std::uint32_t>(layout.total);
    header->CID = ownContainer;
    header->size = totals.bytes;
    header->ssize = segmentSize;
    header->CRC = totals.crc;
    header->ctime = static_cast<std::uint32_t>(std::time(nullptr));
    header->fptype = fptype;
    header->dotype = dotype;
    return DORecord::FromBuffer(bytes.data(), bytes.size());
}

} // namespace

// Frees the entries before it adds the list of containers, which copies the record to a larger block.
std::unique_ptr<DORecord> RecordBuilder::Build(CutTotals const& totals, unsigned int ownContainer) && {
    std::uint64_t const segmentSize = cut_.content ? 0 : cut_.segmentSize;
    auto record = dcids_.empty() ? WithoutSegments(totals, ownContainer, segmentSize, fptype_, Type())
                                 : std::make_unique<DORecord>(ownContainer, totals.bytes, segmentSize, totals.crc, 0, 0,
                                                              entries_.data(), static_cast<unsigned int>(dcids_.size()),
                                                              dcids_.data(), nullptr, fptype_, Type());
    entries_ = std::vector<unsigned char>();
    dcids_ = std::vector<unsigned long>();
    cr_status_t const status = record->AppendBloomAndUniqueDCIDList();
    if (status != CR_STATUS_OK) {
        throw Failure(std::string("the list of containers: ") + CRStatusToStringA(status));
    }
    for (unsigned long const task : facts_.tasks) {
        record->AddTaskID(task);
    }
    for (unsigned int const dsid : facts_.dsids) {
        record->AddDSID(dsid);
    }
    record->HostToNetwork(0);
    return record;
}

void RecordBuilder::Append(void const* bytes, std::size_t size) {
    auto const* const from = static_cast<unsigned char const*>(bytes);
    entries_.insert(entries_.end(), from, from + size);
}

void RecordBuilder::AppendOffset(std::uint64_t offset) {
    auto const offset32 = static_cast<std::uint32_t>(offset);
    switch (DOTypeOf(facts_.dotype).offsetWidth) {
    case sizeof offset: Append(&offset, sizeof offset); break;
    case sizeof offset32: Append(&offset32, sizeof offset32); break;
    default: break;
    }
}

// The fixed part comes from SORecord; the fingerprint follows it, and the spare slot stays zero.
void WriteSegmentRecord(OutputFile& out, CutSegment const& cut, unsigned int fptype) {
    static constexpr char kNoKey[CR_SO_KEY_SIZE] = {};
    auto const type = static_cast<unsigned char>(fptype);
    SORecord const fixed(0, static_cast<unsigned int>(cut.container), static_cast<unsigned int>(cut.size), cut.crc,
                         kNoKey, 0, type);
    std::array<unsigned char, segment::RecordSize(0, 1, CR_FP_TYPE_SHA256)> bytes{};
    std::memcpy(bytes.data(), fixed.GetHeader(), CR_SO_FIXED_SIZE);
    std::memcpy(bytes.data() + segment::FingerprintOffset(0), cut.fingerprint.bytes, CRFPDigestSize(type));
    auto* const record = reinterpret_cast<_SegmentDBRecord*>(bytes.data());
    std::uint64_t const size = segment::RecordSize(0, 1, type);
    record->nfp = 1;
    record->recsize = static_cast<unsigned int>(size);
    SegmentRecordHton(record, record, 0);
    out.Write(bytes.data(), size);
}

} // namespace crrecord::tool
