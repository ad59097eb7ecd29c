#include "record/segment_record.h"

#include "SOmarshall/layout.h"
#include "support/hex.h"

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

using segment::FieldOf;

// The table's columns up to the fingerprint, which comes last since it is the widest.
constexpr char kRow[] = "{:>8}  {:>12}  {:<7}  {:<20}  {:>10}  {:<8}  {:<11}  ";
constexpr char kKeyColumn[] = "{:<66}  ";

std::span<unsigned char const> TaskIds(_SegmentDBRecord const& stored) noexcept {
    return {segment::BytesOf(&stored) + CR_SO_FIXED_SIZE, std::size_t{segment::kTaskIdSize} * stored.ntaskids};
}

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

// 64-bit values as decimal strings, since many readers of JSON lose bits beyond 2^53.
template <std::size_t I>
void AppendJsonField(fmt::memory_buffer& to, unsigned char const* bytes) {
    constexpr segment::Field kField = segment::kFields[I];
    auto out = std::back_inserter(to);
    unsigned char const* const at = bytes + kField.offset;
    if constexpr (kField.width == 1) {
        fmt::format_to(out, FMT_COMPILE(",\"{}\":{}"), kField.name, *at);
    } else if constexpr (kField.width == 2) {
        fmt::format_to(out, FMT_COMPILE(",\"{}\":{}"), kField.name, Load<std::uint16_t>(at));
    } else if constexpr (kField.width == 4) {
        fmt::format_to(out, FMT_COMPILE(",\"{}\":{}"), kField.name, Load<std::uint32_t>(at));
    } else if constexpr (kField.width == 8) {
        fmt::format_to(out, FMT_COMPILE(",\"{}\":\"{}\""), kField.name, Load<std::uint64_t>(at));
    } else {
        static_assert(kField.offset == FieldOf("key").offset, "a field that has no JSON form yet");
    }
}

void AppendTaskIds(fmt::memory_buffer& to, _SegmentDBRecord const& stored) {
    char const* separator = "";
    for (auto ids = TaskIds(stored); !ids.empty(); ids = ids.subspan(segment::kTaskIdSize)) {
        fmt::format_to(std::back_inserter(to), FMT_COMPILE("{}\"{}\""), separator, Load<std::uint64_t>(ids.data()));
        separator = ",";
    }
}

void AppendFingerprints(fmt::memory_buffer& to, _SegmentDBRecord const& stored) {
    unsigned int const width = CRFPDigestSize(stored.fptype);
    std::string_view quote = "\"";
    for (auto left = Fingerprints(stored); !left.empty(); left = left.subspan(width)) {
        to.append(quote);
        AppendHex(to, left.data(), width);
        to.push_back('"');
        quote = ",\"";
    }
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

void TurnSegmentRecord(Record const& record, Order order) noexcept {
    _SegmentDBRecord* const stored = &AsSegmentRecord(record);
    if (record.order != order) {
        (order == Order::Network ? SegmentRecordHton : SegmentRecordNtoh)(stored, stored, 0);
    }
}

void AppendSegmentJson(fmt::memory_buffer& to, Record const& record, bool showKey) {
    _SegmentDBRecord const& stored = AsSegmentRecord(record);
    ForEachIndex<segment::kFields>([&]<std::size_t I>() { AppendJsonField<I>(to, record.bytes); });
    to.append(std::string_view(",\"key\":\""));
    if (showKey) {
        AppendKey(to, stored);
    } else {
        to.append(std::string_view("masked"));
    }
    to.append(std::string_view("\",\"taskids\":["));
    AppendTaskIds(to, stored);
    to.append(std::string_view("],\"fingerprints\":["));
    AppendFingerprints(to, stored);
    // No conversion touches the spare slot: it stands in the order in which the record was found.
    fmt::format_to(std::back_inserter(to), FMT_COMPILE("],\"spare\":\"{}\""),
                   Load<std::uint64_t>(record.bytes + record.size - segment::kSpareSize, record.order));
}

void AppendSegmentHeading(fmt::memory_buffer& to, bool showKey) {
    fmt::format_to(std::back_inserter(to), kRow, "record", "at byte", "order", "stored in", "bytes", "CRC", "type");
    if (showKey) {
        fmt::format_to(std::back_inserter(to), kKeyColumn, "key");
    }
    to.append(std::string_view("fingerprint\n"));
}

void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey) {
    _SegmentDBRecord const& stored = AsSegmentRecord(record);
    std::uint64_t const size = stored.size;
    std::uint32_t const crc = stored.CRC;
    fmt::format_to(std::back_inserter(to), kRow, record.number, record.offset, NameOf(record.order), PlaceOf(stored),
                   size, fmt::format("{:08x}", crc), NameOfFingerprint(stored.fptype));
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
        fmt::format_to(std::back_inserter(to), " and {} more", count - 1);
    }
    to.push_back('\n');
}

} // namespace crrecord::tool
