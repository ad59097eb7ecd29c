#include "record/segment_record.h"

#include "SOmarshall/layout.h"

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

// The table's columns but for the last, the fingerprint, which is the widest.
constexpr char kRow[] = "{:>8}  {:>12}  {:<7}  {:<20}  {:>10}  {:<8}  {:<11}  ";
constexpr char kKeyColumn[] = "{:<66}  ";

std::string StorageOf(_SegmentDBRecord const& stored) {
    std::uint64_t const path = stored.pathid;
    std::uint64_t const file = stored.fileid;
    return RecordInContainer(file) ? fmt::format("container {}", path) : fmt::format("path {}, file {}", path, file);
}

} // namespace

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept {
    return *reinterpret_cast<_SegmentDBRecord*>(record.bytes);
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
    AppendFormatted(to, kRow, record.number, record.offset, NameOf(record.order), StorageOf(stored), size,
                    fmt::format("{:08x}", crc), NameOfFingerprint(stored.fptype));
    if (showKey) {
        AppendHex(to, stored.key);
        to.append(std::string_view("  "));
    }
    std::uint32_t const count = stored.nfp;
    if (count == 0) {
        to.push_back('-');
    } else {
        AppendHex(to, {segment::BytesOf(&stored) + segment::FingerprintOffset(stored.ntaskids),
                       CRFPDigestSize(stored.fptype)});
    }
    if (count > 1) {
        AppendFormatted(to, " and {} more", count - 1);
    }
    to.push_back('\n');
}

} // namespace crrecord::tool
