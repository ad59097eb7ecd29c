#include "record/segment_record.h"

#include "SOmarshall/layout.h"

#include <array>

namespace crrecord::tool {

namespace {

// The widths of the table's columns but for the last, the fingerprint, which is the widest.
constexpr std::size_t kNumberWidth = 8;
constexpr std::size_t kOffsetColumn = 12;
constexpr std::size_t kOrderWidth = 7;
constexpr std::size_t kStorageWidth = 20;
constexpr std::size_t kSizeWidth = 10;
constexpr std::size_t kCrcWidth = 8;
constexpr std::size_t kTypeWidth = 11;
constexpr std::size_t kKeyWidth = 66;
constexpr std::string_view kGap = "  ";

void AppendNumber(fmt::memory_buffer& to, std::uint64_t number) {
    AppendPadded(to, number, 0);
}

void AppendStorage(fmt::memory_buffer& to, std::uint64_t path, std::uint64_t file) {
    std::size_t const start = to.size();
    bool const isContained = RecordInContainer(file);
    to.append(std::string_view(isContained ? "container " : "path "));
    AppendNumber(to, path);
    if (!isContained) {
        to.append(std::string_view(", file "));
        AppendNumber(to, file);
    }
    AppendPadded(to, "", kStorageWidth - std::min(kStorageWidth, to.size() - start));
}

void AppendCrc(fmt::memory_buffer& to, std::uint32_t crc) {
    std::array<unsigned char, sizeof crc> bytes;
    Store(bytes.data(), crc, Order::Network);
    AppendHex(to, bytes);
}

} // namespace

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept {
    return *reinterpret_cast<_SegmentDBRecord*>(record.bytes);
}

void PrintSegmentHeading(Output& out, bool showKey) {
    std::string heading = fmt::format("{:>{}}  {:>{}}  {:<{}}  {:<{}}  {:>{}}  {:<{}}  {:<{}}  ", "record",
                                      kNumberWidth, "at byte", kOffsetColumn, "order", kOrderWidth, "stored in",
                                      kStorageWidth, "bytes", kSizeWidth, "CRC", kCrcWidth, "type", kTypeWidth);
    if (showKey) {
        heading += fmt::format("{:<{}}  ", "key", kKeyWidth);
    }
    out.PaintLine(heading + "fingerprint", Colour::Heading);
}

void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey) {
    _SegmentDBRecord const& stored = AsSegmentRecord(record);
    AppendPadded(to, record.number, kNumberWidth);
    to.append(kGap);
    AppendPadded(to, record.offset, kOffsetColumn);
    to.append(kGap);
    AppendPadded(to, NameOf(record.order), kOrderWidth);
    to.append(kGap);
    AppendStorage(to, stored.pathid, stored.fileid);
    to.append(kGap);
    AppendPadded(to, stored.size, kSizeWidth);
    to.append(kGap);
    AppendCrc(to, stored.CRC);
    to.append(kGap);
    AppendPadded(to, NameOfFingerprint(stored.fptype), kTypeWidth);
    to.append(kGap);
    if (showKey) {
        AppendHex(to, stored.key);
        to.append(kGap);
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
