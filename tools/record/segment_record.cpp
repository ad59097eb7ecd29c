#include "record/segment_record.h"

#include "SOmarshall/layout.h"
#include "base/hex.h"

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

using segment::FieldOf;

// The table's columns up to the fingerprint, which comes last since it is the widest.
constexpr char kRow[] = "{:>8}  {:>12}  {:<7}  {:<20}  {:>10}  {:<8}  {:<11}  ";
constexpr char kKeyColumn[] = "{:<66}  ";

std::span<unsigned char const> Fingerprints(_SegmentDBRecord const& stored) noexcept {
    return {segment::BytesOf(&stored) + segment::FingerprintOffset(stored.ntaskids),
            std::size_t{CRFPDigestSize(stored.fptype)} * stored.nfp};
}

void AppendHex(fmt::memory_buffer& to, unsigned char const* bytes, unsigned int count) {
    to.resize(to.size() + std::size_t{2} * count);
    HexEncode(bytes, count, to.data() + to.size() - std::size_t{2} * count);
}

void AppendKey(fmt::memory_buffer& to, _SegmentDBRecord const& stored) {
    constexpr unsigned int kBlock = 32;
    static_assert(CR_SO_KEY_SIZE == kBlock + 1);
    AppendHex(to, stored.key, kBlock);
    fmt::format_to(std::back_inserter(to), FMT_COMPILE("{:02x}"), stored.key[kBlock]);
}

std::string PlaceOf(_SegmentDBRecord const& stored) {
    std::uint64_t const path = stored.pathid;
    std::uint64_t const file = stored.fileid;
    return RecordInContainer(file) ? fmt::format("container {}", path) : fmt::format("path {}, file {}", path, file);
}

} // namespace

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept {
    return *reinterpret_cast<_SegmentDBRecord*>(record.bytes);
}

void ConvertSegmentRecord(Record const& record, Order order) noexcept {
    _SegmentDBRecord* const stored = &AsSegmentRecord(record);
    if (record.order != order) {
        (order == Order::Network ? SegmentRecordHton : SegmentRecordNtoh)(stored, stored, 0);
    }
}

void PrintSegmentHeading(Output& out, bool showKey) {
    std::string heading = fmt::format(kRow, "record", "at byte", "order", "stored in", "bytes", "CRC", "type");
    if (showKey) {
        heading += fmt::format(kKeyColumn, "key");
    }
    out.PaintLine(heading + "fingerprint", Colour::Heading);
}

void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey) {
    _SegmentDBRecord const& stored = AsSegmentRecord(record);
    std::uint64_t const size = stored.size;
    std::uint32_t const crc = stored.CRC;
    AppendFormatted(to, kRow, record.number, record.offset, NameOf(record.order), PlaceOf(stored), size,
                    fmt::format("{:08x}", crc), NameOfFingerprint(stored.fptype));
    if (showKey) {
        AppendKey(to, stored);
        to.append(std::string_view("  "));
    }
    std::uint32_t const count = stored.nfp;
    if (count == 0) {
        to.push_back('-');
    } else {
        AppendHex(to, Fingerprints(stored).data(), CRFPDigestSize(stored.fptype));
    }
    if (count > 1) {
        AppendFormatted(to, " and {} more", count - 1);
    }
    to.push_back('\n');
}

} // namespace crrecord::tool
