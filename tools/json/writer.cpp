#include "json/writer.h"

#include "record/references.h"
#include "record/segment_record.h"
#include "support/layout/unique_list.h"
#include "json/members.h"
#include "json/text.h"

#include <algorithm>

namespace crrecord::tool::json {

namespace {

// Characters reserved for the longest number and its name.
constexpr std::size_t kNumberSize = 48;
// Characters reserved for an element of a list: at most a fingerprint of 64 digits, four numbers and their names.
constexpr std::size_t kElementSize = 256;
// Bytes written as hexadecimal digits before the output is flushed if it is full.
constexpr std::size_t kHexBlock = 64UL * 1024;

template <auto const& Members>
void PutNumbers(Text& text, unsigned char const* bytes) {
    ForEachIndex<Members>([&]<std::size_t I>() {
        constexpr NumberMember kMember = Members[I];
        std::uint64_t const value = LoadNumber(bytes + kMember.offset, kMember.width);
        text.Put(",\"").Put(kMember.name).Put("\":");
        kMember.width == 8 ? text.Decimal(value) : text.Number(value);
    });
}

// The header's numbers in host order.
DORecordHeader HostHeader(DORecordView const& view) {
    DORecordHeader header = *view.GetHeader();
    if (view.IsInNetworkOrder()) {
        // The header alone is converted: the sections that also have a byte order are declared empty.
        header.nudcid = 0;
        header.dotype = CR_DO_TYPE_ORIGINAL;
        DORecordHeaderNtoh(&header);
        header.nudcid = view.GetNudcid();
        header.dotype = view.GetDOType();
    }
    return header;
}

// Writes a member of hexadecimal digits, of any length.
void WriteHex(Output& out, std::string_view name, std::span<unsigned char const> bytes) {
    Text(out.Buffer(), kNumberSize).Put(",\"").Put(name).Put("\":\"");
    while (!bytes.empty()) {
        auto const block = bytes.first(std::min(bytes.size(), kHexBlock));
        Text(out.Buffer(), 2 * block.size() + kNumberSize).Hex(block.data(), block.size());
        out.FlushWhenFull();
        bytes = bytes.subspan(block.size());
    }
    out.Write("\"");
}

// Writes a list. put(text, i) writes an element.
template <class Put>
void WriteList(Output& out, std::string_view start, std::uint64_t from, std::uint64_t end, Put put) {
    out.Write(start);
    for (std::uint64_t i = from; i < end; ++i) {
        {
            Text text(out.Buffer(), kElementSize);
            if (i != from) {
                text.Put(",");
            }
            put(text, i);
        }
        out.FlushWhenFull();
    }
    out.Write("]");
}

template <class ForEach>
void WriteReferences(Output& out, std::string_view start, DORecordView const& view, ForEach forEach) {
    out.Write(start);
    std::string_view separator = "\"";
    forEach(view, [&](char const* reference) {
        Text(out.Buffer(), kElementSize).Put(separator).Put(reference).Put("\"");
        separator = ",\"";
        out.FlushWhenFull();
    });
    out.Write("]");
}

void WriteSegments(Output& out, DORecordView const& view, Range range) {
    DOSegmentRange const segments = view.Segments();
    unsigned int const width = CRFPDigestSize(view.GetFPType());
    bool const hasOffset = DOTypeOf(view.GetDOType()).offsetWidth != 0;
    WriteList(out, R"(,"segments":[)", range.first, range.EndOf(segments.size()), [&](Text& text, std::uint64_t i) {
        auto const index = static_cast<unsigned int>(i);
        DOSegment const segment = segments[index];
        text.Put(R"({"index":)").Number(index);
        text.Put(R"(,"fingerprint":")").Hex(segment.fingerprint.data, width);
        text.Put(R"(","size":)").Number(segment.size);
        if (hasOffset) {
            text.Put(R"(,"offset":)").Decimal(segment.offset);
        }
        text.Put(R"(,"dcid":)").Decimal(segment.dcid).Put("}");
    });
}

bool AreZero(std::span<unsigned char const> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
}

// Writes what differs from a record that the library writes.
void WriteOddities(Output& out, DORecordView const& view) {
    RecordLayout const layout = LayoutOf(view.GetHeader());
    unsigned char const* const bytes = crrecord::BytesOf(view.GetHeader());
    auto const number = [&](std::string_view name, std::uint32_t value) {
        Text(out.Buffer(), kNumberSize).Put(",\"").Put(name).Put("\":").Number(value);
    };
    if (std::uint32_t const count = view.GetNudcid(); count != 0) {
        auto const stored = Load<std::uint32_t>(bytes + layout.udcids);
        // The checksum covers the count in host order, in records of either order.
        std::uint32_t const ofCount = Adler32(&count, sizeof count);
        if (stored != Adler32More(ofCount, bytes + layout.UniqueEntry(0), std::uint64_t{kUniqueEntrySize} * count)) {
            number("list_checksum", stored);
        }
    }
    if (IsBloom(view.GetDOType())) {
        Order const order = view.IsInNetworkOrder() ? Order::Network : Order::Host;
        auto const length = Load<std::uint32_t>(bytes + layout.entries, order);
        if (length != view.GetBSize()) {
            number("bloom_length", length);
        }
        std::span const zeros(bytes + layout.udcids - kBloomEndSize, kBloomEndSize);
        if (!AreZero(zeros)) {
            WriteHex(out, "bloom_zeros", zeros);
        }
    }
    std::span const tail(bytes + layout.tail, layout.total - layout.tail);
    if (!AreZero(tail)) {
        WriteHex(out, "tail", tail);
    }
}

} // namespace

void WriteSegmentRecord(Output& out, Record const& record, bool showKey) {
    _SegmentDBRecord const& stored = AsSegmentRecord(record);
    {
        Text text(out.Buffer(), kSegmentMembers.size() * kNumberSize + kElementSize);
        PutNumbers<kSegmentMembers>(text, record.bytes);
        text.Put(",\"key\":\"");
        if (showKey) {
            text.Hex(stored.key, CR_SO_KEY_SIZE);
        } else {
            text.Put("masked");
        }
        text.Put("\"");
    }
    unsigned char const* const taskIds = record.bytes + CR_SO_FIXED_SIZE;
    WriteList(out, R"(,"taskids":[)", 0, stored.ntaskids, [&](Text& text, std::uint64_t i) {
        text.Decimal(Load<std::uint64_t>(taskIds + i * segment::kTaskIdSize));
    });
    unsigned char const* const fingerprints = record.bytes + segment::FingerprintOffset(stored.ntaskids);
    unsigned int const width = CRFPDigestSize(stored.fptype);
    WriteList(out, R"(,"fingerprints":[)", 0, stored.nfp,
              [&](Text& text, std::uint64_t i) { text.Put("\"").Hex(fingerprints + i * width, width).Put("\""); });
    // Conversion leaves the spare slot as it is, in the order of the original record.
    auto const spare = Load<std::uint64_t>(record.bytes + record.size - segment::kSpareSize, record.order);
    Text(out.Buffer(), kNumberSize).Put(R"(,"spare":)").Decimal(spare).Put("}\n");
    out.FlushWhenFull();
}

void WriteObject(Output& out, DORecordView const& view, Range segments) {
    DORecordHeader const header = HostHeader(view);
    {
        Text text(out.Buffer(), (kObjectMembers.size() + 1) * kNumberSize);
        PutNumbers<kObjectMembers>(text, crrecord::BytesOf(&header));
        text.Put(R"(,"reserved2":[)").Number(header.reserved2[0]).Put(",").Number(header.reserved2[1]).Put("]");
    }
    if (IsBloom(view.GetDOType())) {
        WriteHex(out, "bitmap", {view.GetBloom(), view.GetBSize()});
    }
    DOUniqueDCIDRange const containers = view.UniqueDCIDs();
    WriteList(out, R"(,"containers":[)", 0, containers.size(), [&](Text& text, std::uint64_t i) {
        DOUniqueDCID const container = containers[static_cast<unsigned int>(i)];
        text.Put(R"({"dcid":)").Decimal(container.dcid);
        text.Put(R"(,"bytes":)").Decimal(container.bytes).Put("}");
    });
    WriteReferences(out, R"(,"references":[)", view, [](auto const& of, auto use) { ForEachReference(of, use); });
    WriteReferences(out, R"(,"legacy_references":[)", view,
                    [](auto const& of, auto use) { ForEachLegacyReference(of, use); });
    WriteSegments(out, view, segments);
    WriteOddities(out, view);
    out.Write("}\n");
}

} // namespace crrecord::tool::json
