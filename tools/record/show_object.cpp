#include "record/show_object.h"

#include "io/failure.h"
#include "io/record_names.h"
#include "record/references.h"

#include <crrecord/do_types.h>

#include <charconv>
#include <ctime>

#include <CLI/Error.hpp>

namespace crrecord::tool {

namespace {

constexpr char const* kDotypeNames[] = {"fingerprints of segments of one size (original)",
                                        "fingerprints of segments of one size",
                                        "fingerprints, sizes",
                                        "fingerprints, sizes, 64-bit offsets",
                                        "bloom filter",
                                        "fingerprints, sizes, 32-bit offsets"};
static_assert(std::size(kDotypeNames) == CR_DO_TYPE_LAST + 1);

void PrintHeading(Output& out, std::string_view text) {
    out.PaintLine(text, Colour::Heading);
}

void PrintHeader(Output& out, Record const& record, DORecordView const& view) {
    auto const row = [&out](std::string_view name, std::string const& value) {
        out.Print("  {:<14}{}\n", name, value);
    };
    if (record.kind == Kind::Form) {
        PrintHeading(out, fmt::format("Exchange form of {}, and the DO record of {} that it makes",
                                      Counted(record.size, "byte"), Counted(view.GetHeaderSize(), "byte")));
    } else {
        PrintHeading(out, fmt::format("{} at byte {}: DO record in {} order, {}",
                                      LabelOf(record.number, record.offset, "Record"), record.offset,
                                      NameOf(record.order), Counted(record.size, "byte")));
    }
    row("DO type", fmt::format("{}: {}", view.GetDOType(), NameOfDOType(view.GetDOType())));
    row("fingerprints", fmt::format("{}: {}", view.GetFPType(), NameOfFingerprint(view.GetFPType())));
    row("object", fmt::format("{} in {}", Counted(view.GetSize(), "byte"), Counted(view.Segments().size(), "segment")));
    row("segment size", Counted(view.GetSsize(), "byte"));
    row("CRC", CrcText(view.GetCrc()));
    row("own container", std::to_string(view.GetDCID()));
    row("flags", FlagsText(view.GetFlags()));
    row("created", TimeText(view.GetCTime()));
    row("changed", TimeText(view.GetMTime()));
    row("checked", TimeText(view.GetCheckTime()));
    if (IsBloom(view.GetDOType())) {
        row("bitmap", Counted(view.GetBSize(), "byte"));
    }
}

void PrintContainers(Output& out, DOUniqueDCIDRange const& containers) {
    if (containers.empty()) {
        out.Write("\nNo list of containers\n");
        return;
    }
    out.Write("\n");
    PrintHeading(out, fmt::format("{:>20}  {:>20}", "container", "bytes"));
    for (DOUniqueDCID const container : containers) {
        out.Print("{:>20}  {:>20}\n", container.dcid, container.bytes);
    }
}

void PrintReferences(Output& out, DORecordView const& view) {
    bool const none = view.References().empty() && view.GetLegacyTaskIDs() == 0 && view.GetLegacyDSIDs() == 0;
    if (none) {
        out.Write("\nNo references\n");
        return;
    }
    out.Write("\n");
    PrintHeading(out, "references");
    ForEachLegacyReference(view, [&](char const* text) { out.Print("  {} (legacy)\n", text); });
    ForEachReference(view, [&](char const* text) { out.Print("  {}\n", text); });
}

void PrintSegments(Output& out, DORecordView const& view, Range range) {
    DOSegmentRange const segments = view.Segments();
    std::uint64_t const end = range.EndOf(segments.size());
    if (range.first >= end) {
        if (!segments.empty() && range != kNoSegments) {
            out.Print("\nNo segments in this range: the last one is {}, counted from 0\n", segments.size() - 1);
        }
        return;
    }
    out.Write("\n");
    PrintHeading(
        out, fmt::format("{:>10}  {:>16}  {:>10}  {:>20}  fingerprint", "segment", "at byte", "bytes", "container"));
    ForEachSegment(segments, view.GetDOType(), end, [&](auto index, auto position, DOSegment const& segment) {
        if (index >= range.first) {
            fmt::memory_buffer& row = out.Buffer();
            for (auto const& [number, width] : {std::pair<std::uint64_t, std::size_t>{index, 10},
                                                {position, 16},
                                                {segment.size, 10},
                                                {segment.dcid, 20}}) {
                AppendPadded(row, number, width);
                row.append(std::string_view("  "));
            }
            AppendHex(row, {segment.fingerprint.data, segment.fingerprint.size});
            out.Write("\n");
        }
    });
    if (range.first != 0 || end != segments.size()) {
        out.Print("Segments {} to {}, counted from 0, of {}; --segments FROM:TO shows others\n", range.first, end - 1,
                  segments.size());
    }
}

} // namespace

std::string TimeText(unsigned int seconds) {
    if (seconds == 0) {
        return "never";
    }
    std::time_t const time{seconds};
    std::tm date{};
    ::gmtime_r(&time, &date);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} UTC", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday,
                       date.tm_hour, date.tm_min, date.tm_sec);
}

std::string CrcText(unsigned int crc) {
    return fmt::format("{:08x}", crc);
}

std::string FlagsText(unsigned int flags) {
    return fmt::format("{:#06x}", flags);
}

char const* NameOfDOType(unsigned int dotype) noexcept {
    return kDotypeNames[dotype];
}

Range ParseRange(std::string const& option, std::string const& text, std::uint64_t least) {
    Range range{least};
    char const* const end = text.data() + text.size();
    char const* const colon = std::find(text.data(), end, ':');
    auto const read = [](char const* from, char const* to, std::uint64_t& number) {
        auto const [stop, error] = std::from_chars(from, to, number);
        return from == to || (error == std::errc() && stop == to);
    };
    bool const isRange = colon != end && read(text.data(), colon, range.first) && read(colon + 1, end, range.last);
    bool const isNumber = colon == end && !text.empty() && read(text.data(), end, range.first);
    range.last = isNumber ? range.first : range.last;
    if ((!isRange && !isNumber) || range.first < least || range.last < range.first) {
        throw CLI::ValidationError(
            option, fmt::format("\"{}\" is not N or FROM:TO, counted from {}, such as {}, {}:{}, {}: or :{}", text,
                                least, least + 2, least, least + 19, least + 20, least + 19));
    }
    return range;
}

void PrintObject(Output& out, Record const& record, DORecordView const& view, Range segments) {
    PrintHeader(out, record, view);
    PrintContainers(out, view.UniqueDCIDs());
    PrintReferences(out, view);
    PrintSegments(out, view, segments);
}

} // namespace crrecord::tool
