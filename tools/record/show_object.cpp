#include "record/show_object.h"

#include "io/failure.h"
#include "record/do_record.h"

#include <charconv>
#include <ctime>

#include <CLI/CLI.hpp>
#include <fmt/chrono.h>

namespace crrecord::tool {

namespace {

constexpr char const* kDotypeNames[] = {"fingerprints of segments of one size (original)",
                                        "fingerprints of segments of one size",
                                        "fingerprints, sizes",
                                        "fingerprints, sizes, 64-bit offsets",
                                        "bloom filter",
                                        "fingerprints, sizes, 32-bit offsets"};
static_assert(std::size(kDotypeNames) == CR_DO_TYPE_4_BYTE_OFFSET + 1);

std::string ReferenceText(cr_reftype_t kind, unsigned long id) {
    _cr_tref_t* reference = CRTRefNew(kind, id);
    char text[CR_TREF_TEXT_SIZE];
    CRTRefToString(text, sizeof text, reference);
    CRTRefDelete(&reference);
    return text;
}

// Those of the legacy arrays.
template <class Use>
void ForEachLegacyReference(DORecordView const& view, Use use) {
    for (unsigned int i = 0; i < view.GetLegacyTaskIDs(); ++i) {
        auto const id = Load<std::uint64_t>(DORecordHeaderIndexOfTaskId(view.GetHeader(), i));
        use(ReferenceText(CR_REFTYPE_TASKID, id));
    }
    for (unsigned int i = 0; i < view.GetLegacyDSIDs(); ++i) {
        auto const id = Load<std::uint32_t>(DORecordHeaderIndexOfDataSelection(view.GetHeader(), i));
        use(ReferenceText(CR_REFTYPE_DSID, id));
    }
}

template <class Use>
void ForEachReference(DORecordView const& view, Use use) {
    for (DOReference const reference : view.References()) {
        use(ReferenceText(reference.kind, reference.id));
    }
}

void PrintHeader(Output& out, Record const& record, DORecordView const& view) {
    auto const row = [&out](std::string_view name, std::string const& value) {
        out.Print("  {:<14}{}\n", name, value);
    };
    if (record.kind == Kind::Form) {
        out.Print("Exchange form of {}, and the DO record of {} that it makes\n", Counted(record.size, "byte"),
                  Counted(view.GetHeaderSize(), "byte"));
    } else {
        out.Print("Record {} at byte {}: DO record in {} order, {}\n", record.number, record.offset,
                  NameOf(record.order), Counted(record.size, "byte"));
    }
    row("DO type", fmt::format("{}: {}", view.GetDOType(), NameOfDOType(view.GetDOType())));
    row("fingerprints", fmt::format("{}: {}", view.GetFPType(), NameOfFingerprint(view.GetFPType())));
    row("object", fmt::format("{} in {}", Counted(view.GetSize(), "byte"), Counted(view.Segments().size(), "segment")));
    row("segment size", Counted(view.GetSsize(), "byte"));
    row("CRC", fmt::format("{:08x}", view.GetCrc()));
    row("own container", std::to_string(view.GetDCID()));
    row("flags", fmt::format("{:#06x}", view.GetFlags()));
    row("created", TimeText(view.GetCTime()));
    row("changed", TimeText(view.GetMTime()));
    row("checked", TimeText(view.GetCheckTime()));
    if (view.GetDOType() == CR_DO_TYPE_BLOOM_FILTER) {
        row("bitmap", Counted(view.GetBSize(), "byte"));
    }
}

void PrintContainers(Output& out, DOUniqueDCIDRange const& containers) {
    if (containers.empty()) {
        out.Write("\nNo list of containers\n");
        return;
    }
    out.Print("\n{:>20}  {:>20}\n", "container", "bytes");
    for (DOUniqueDCID const container : containers) {
        out.Print("{:>20}  {:>20}\n", container.dcid, container.bytes);
    }
}

void PrintReferences(Output& out, DORecordView const& view) {
    bool const none = view.References().empty() && view.GetLegacyTaskIDs() == 0 && view.GetLegacyDSIDs() == 0;
    out.Write(none ? "\nNo references\n" : "\nreferences\n");
    ForEachLegacyReference(view, [&](std::string const& text) { out.Print("  {} (legacy)\n", text); });
    ForEachReference(view, [&](std::string const& text) { out.Print("  {}\n", text); });
}

// One past the last segment of the range that the record has.
std::uint64_t EndOf(Range range, DOSegmentRange const& segments) {
    return range.last < segments.size() ? range.last + 1 : segments.size();
}

void PrintSegments(Output& out, DORecordView const& view, Range range) {
    DOSegmentRange const segments = view.Segments();
    std::uint64_t const end = EndOf(range, segments);
    if (range.first >= end) {
        return;
    }
    out.Print("\n{:>10}  {:>16}  {:>10}  {:>20}  fingerprint\n", "segment", "at byte", "bytes", "container");
    ForEachSegment(segments, view.GetDOType(), end, [&](auto index, auto position, DOSegment const& segment) {
        if (index >= range.first) {
            out.Print("{:>10}  {:>16}  {:>10}  {:>20}  {}\n", index, position, segment.size, segment.dcid,
                      TextOf(segment.fingerprint, view.GetFPType()));
        }
    });
    if (range.first != 0 || end != segments.size()) {
        out.Print("Segments {} to {} of {}; --segments FROM:TO shows others\n", range.first, end - 1, segments.size());
    }
}

void PrintJsonHeader(Output& out, DORecordView const& view) {
    DORecordHeader const* const header = view.GetHeader();
    unsigned int const reserved = header->reserved;
    out.Print(R"(,"type":{},"flags":{},"recsize":{},"reserved":{},"checktime":{},"CID":"{}","size":"{}",)"
              R"("ssize":"{}","CRC":{},"ctime":{},"mtime":{},"ntaskid":{},"nfp":{},"nudcid":{},"nds":{},)"
              R"("trefssize":{},"bsize":{},"fptype":{},"dotype":{},"reserved2":[{},{}])",
              CR_DO_RECORD_TYPE, view.GetFlags(), view.GetHeaderSize(), reserved, view.GetCheckTime(), view.GetDCID(),
              view.GetSize(), view.GetSsize(), view.GetCrc(), view.GetCTime(), view.GetMTime(), view.GetLegacyTaskIDs(),
              view.GetNfp(), view.GetNudcid(), view.GetLegacyDSIDs(), view.GetTRefsSize(), view.GetBSize(),
              view.GetFPType(), view.GetDOType(), header->reserved2[0], header->reserved2[1]);
}

void PrintJsonSegments(Output& out, DORecordView const& view, Range range) {
    bool const hasOffset = view.GetDOType() >= CR_DO_TYPE_8_BYTE_OFFSET; // a bloom record has no segments
    char const* separator = "";
    DOSegmentRange const segments = view.Segments();
    out.Write(R"(,"segments":[)");
    ForEachSegment(segments, view.GetDOType(), EndOf(range, segments), [&](auto index, auto, DOSegment const& segment) {
        if (index < range.first) {
            return;
        }
        out.Print(R"({}{{"index":{},"fingerprint":"{}","size":{},)", separator, index,
                  TextOf(segment.fingerprint, view.GetFPType()), segment.size);
        if (hasOffset) {
            out.Print(R"("offset":"{}",)", segment.offset);
        }
        out.Print(R"("dcid":"{}"}})", segment.dcid);
        separator = ",";
    });
    out.Write("]");
}

} // namespace

std::string TimeText(unsigned int seconds) {
    return seconds == 0 ? "never" : fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(std::time_t{seconds}));
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
    if (colon == end || !read(text.data(), colon, range.first) || !read(colon + 1, end, range.last) ||
        range.first < least || range.last < range.first) {
        throw CLI::ValidationError(option, "\"" + text + "\" is not FROM:TO, such as 1:20, 21: or :20");
    }
    return range;
}

void PrintObject(Output& out, Record const& record, DORecordView const& view, Range segments) {
    PrintHeader(out, record, view);
    PrintContainers(out, view.UniqueDCIDs());
    PrintReferences(out, view);
    PrintSegments(out, view, segments);
}

void PrintObjectJson(Output& out, DORecordView const& view, Range segments) {
    PrintJsonHeader(out, view);
    if (view.GetDOType() == CR_DO_TYPE_BLOOM_FILTER) {
        unsigned char const* const bitmap = view.GetBloom();
        out.Print(R"(,"bitmap":"{:02x}")", fmt::join(bitmap, bitmap + view.GetBSize(), ""));
    }
    out.Write(R"(,"containers":[)");
    char const* separator = "";
    for (DOUniqueDCID const container : view.UniqueDCIDs()) {
        out.Print(R"({}{{"dcid":"{}","bytes":"{}"}})", separator, container.dcid, container.bytes);
        separator = ",";
    }
    out.Write(R"(],"references":[)");
    separator = "";
    auto const print = [&](std::string const& text) {
        out.Print(R"({}"{}")", separator, text);
        separator = ",";
    };
    ForEachReference(view, print);
    out.Write(R"(],"legacy_references":[)");
    separator = "";
    ForEachLegacyReference(view, print);
    out.Write("]");
    PrintJsonSegments(out, view, segments);
}

} // namespace crrecord::tool
