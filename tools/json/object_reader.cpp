// DO records from JSON.

#include "record/references.h"
#include "support/layout/record_layout.h"
#include "support/layout/unique_list.h"
#include "json/record_reader.h"

#include <crrecord/segments.h>

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

// Appends the value's bytes in host order.
template <class T>
void Append(std::vector<unsigned char>& to, T value) {
    to.resize(to.size() + sizeof value);
    Store(to.data() + to.size() - sizeof value, value);
}

struct ObjectReader : RecordReader {
    explicit ObjectReader(Parser& from) : RecordReader(from, crrecord::BytesOf(&header)) {}

    // The first pass: what determines the record's layout.
    void ReadReserved2(Value value, MemberFacts const& member) {
        std::string const expected = fmt::format("expected {} elements", sizeof header.reserved2);
        std::uint64_t count = 0;
        parser.ForEachElement(value, member.name, [&](Value& number, std::uint64_t i) {
            if (i >= sizeof header.reserved2) {
                parser.Fail(number, expected);
            }
            header.reserved2[i] = static_cast<unsigned char>(parser.Number(number, 0, LargestOf(1)));
            count = i + 1;
        });
        if (count != sizeof header.reserved2) {
            Parser::FailMember(parser.PositionOf(value), member.name, expected);
        }
    }
    void CountBitmap(Value value, MemberFacts const&) {
        char const* const expected = "a string with an even number of hexadecimal digits";
        bitmapDigits = parser.String(value, expected).size();
        if (bitmapDigits % 2 != 0) {
            parser.FailExpecting(value, expected);
        }
    }
    void CountContainers(Value value, MemberFacts const&) { containers = parser.CountElements(value); }
    void CountSegments(Value value, MemberFacts const&) { segments = parser.CountElements(value); }

    Reference ReadReference(Value& value) {
        Reference reference = ParseReference(parser.String(value, kReferenceForm));
        if (!reference) {
            parser.FailExpecting(value, kReferenceForm);
        }
        return reference;
    }
    void ReadReferences(Value value, MemberFacts const& member) {
        parser.ForEachElement(value, member.name, [this](Value& text, std::uint64_t) {
            unsigned char stored[CR_TREF_TEXT_SIZE];
            std::size_t const size =
                CRTRefSerialize(stored, sizeof stored, ReadReference(text).get(), CR_TREF_SERIALIZED);
            references.insert(references.end(), stored, stored + size);
        });
    }
    void ReadLegacyReferences(Value value, MemberFacts const& member) {
        parser.ForEachElement(value, member.name, [this](Value& text, std::uint64_t) {
            Reference const reference = ReadReference(text);
            cr_reftype_t const kind = CRTRefGetType(reference.get());
            std::uint64_t const id = CRTRefGetID(reference.get());
            if (kind == CR_REFTYPE_TASKID && dsids.empty()) {
                Append(taskIds, id);
            } else if (kind == CR_REFTYPE_DSID) {
                Append(dsids, static_cast<std::uint32_t>(id));
            } else {
                parser.FailExpecting(text, "tasks such as \"task:17\", then data selections such as \"dsid:5\"");
            }
        });
    }

    // The second pass: what is written to an offset of the layout.
    void RequireBloom(Value& value) {
        if (!IsBloom(header.dotype)) {
            parser.Fail(value, fmt::format("a record of DO type {} does not have it", header.dotype));
        }
    }
    std::uint32_t Number32(Value& value) { return static_cast<std::uint32_t>(parser.Number(value, 0, LargestOf(4))); }
    void PlaceBitmap(Value value, MemberFacts const&) {
        RequireBloom(value);
        parser.Hex(value, header.bsize, bytes + layout.entries + kBloomLengthSize);
    }
    void PlaceBloomLength(Value value, MemberFacts const&) {
        RequireBloom(value);
        Store(bytes + layout.entries, Number32(value));
    }
    void PlaceBloomZeros(Value value, MemberFacts const&) {
        RequireBloom(value);
        parser.Hex(value, kBloomEndSize, bytes + layout.udcids - kBloomEndSize);
    }
    void PlaceListChecksum(Value value, MemberFacts const&) {
        if (header.nudcid == 0) {
            parser.Fail(value, "a record without containers does not have it");
        }
        Store(bytes + layout.udcids, Number32(value));
    }
    void PlaceTail(Value value, MemberFacts const&) {
        parser.Hex(value, layout.total - layout.tail, bytes + layout.tail);
    }
    void PlaceContainers(Value value, MemberFacts const& member);
    void PlaceSegments(Value value, MemberFacts const& member);

    // Members of a container.
    void ReadContainer(Value value, MemberFacts const&) { Store(element, parser.Decimal(value)); }
    void ReadContainerBytes(Value value, MemberFacts const&) { Store(element + kDcidSize, parser.Decimal(value)); }
    // Members of a segment.
    void ReadIndex(Value value, MemberFacts const&) { parser.Number(value, index, index); }
    void ReadFingerprint(Value value, MemberFacts const&) { parser.Hex(value, layout.fingerprint, element); }
    void CheckSegmentSize(Value value, MemberFacts const&) {
        std::uint32_t const size = source.Read(index).size;
        parser.Number(value, size, size);
    }
    void ReadSegmentSize(Value value, MemberFacts const&) { Store(element + layout.fingerprint, Number32(value)); }
    void ReadSegmentOffset(Value value, MemberFacts const&) {
        unsigned char* const to = element + layout.offset;
        if (DOTypeOf(header.dotype).offsetWidth == 8) {
            Store(to, parser.Decimal(value));
        } else {
            Store(to, static_cast<std::uint32_t>(parser.Decimal(value, LargestOf(4))));
        }
    }
    void ReadSegmentDcid(Value value, MemberFacts const&) { Store(bytes + layout.Dcid(index), parser.Decimal(value)); }

    void Allocate(std::vector<unsigned char>& record);

    DORecordHeader header{};
    RecordLayout layout{RecordCounts{}};
    std::uint64_t containers = 0;
    std::uint64_t segments = 0;
    std::vector<unsigned char> taskIds, dsids, references; // as they are stored in the record
    std::uint64_t bitmapDigits = 0;

    unsigned char* bytes = nullptr; // of the record
    DOSegmentSource source{};
    unsigned char* element = nullptr; // the container or segment that is read
    std::uint32_t index = 0;          // of that segment
};

using Row = Member<ObjectReader>;
constexpr auto kMembers = [] {
    auto members = MemberTable<ObjectReader>(
        kObjectMembers, {{{"reserved2"}, &ObjectReader::ReadReserved2},
                         {{"bitmap", Need::Optional}, &ObjectReader::CountBitmap, &ObjectReader::PlaceBitmap},
                         {{"containers"}, &ObjectReader::CountContainers, &ObjectReader::PlaceContainers},
                         {{"references"}, &ObjectReader::ReadReferences},
                         {{"legacy_references"}, &ObjectReader::ReadLegacyReferences},
                         {{"segments"}, &ObjectReader::CountSegments, &ObjectReader::PlaceSegments},
                         {{"list_checksum", Need::Optional}, nullptr, &ObjectReader::PlaceListChecksum},
                         {{"bloom_length", Need::Optional}, nullptr, &ObjectReader::PlaceBloomLength},
                         {{"bloom_zeros", Need::Optional}, nullptr, &ObjectReader::PlaceBloomZeros},
                         {{"tail", Need::Optional}, nullptr, &ObjectReader::PlaceTail}});
    Row& type = members[RowOf(members, "type")];
    type.least = type.most = CR_DO_RECORD_TYPE;
    members[RowOf(members, "fptype")].most = CR_FP_TYPE_LAST;
    members[RowOf(members, "dotype")].most = CR_DO_TYPE_LAST;
    return members;
}();

constexpr std::array<Row, 2> kContainerMembers{
    {{{"dcid"}, &ObjectReader::ReadContainer}, {{"bytes"}, &ObjectReader::ReadContainerBytes}}};

constexpr Row kIndex{{"index", Need::Optional}, &ObjectReader::ReadIndex};
constexpr Row kFingerprint{{"fingerprint"}, &ObjectReader::ReadFingerprint};
constexpr Row kDerivedSize{{"size", Need::Optional}, &ObjectReader::CheckSegmentSize};
constexpr Row kSize{{"size"}, &ObjectReader::ReadSegmentSize};
constexpr Row kOffset{{"offset"}, &ObjectReader::ReadSegmentOffset};
constexpr Row kDcid{{"dcid"}, &ObjectReader::ReadSegmentDcid};

// Members of segments without size and offset, with a size only, and with both.
constexpr std::array<Row, 4> kBareMembers{kIndex, kFingerprint, kDerivedSize, kDcid};
constexpr std::array<Row, 4> kSizeMembers{kIndex, kFingerprint, kSize, kDcid};
constexpr std::array<Row, 5> kOffsetMembers{kIndex, kFingerprint, kSize, kOffset, kDcid};

void ObjectReader::PlaceContainers(Value value, MemberFacts const& member) {
    parser.ForEachCounted(value, member.name, containers, [this](Value& container, std::uint64_t i) {
        element = bytes + layout.UniqueEntry(i);
        parser.ReadMembers(parser.Object(container), kContainerMembers, *this, &container);
    });
}

void ObjectReader::PlaceSegments(Value value, MemberFacts const& member) {
    unsigned int const dotype = header.dotype;
    parser.ForEachCounted(value, member.name, segments, [&](Value& segment, std::uint64_t i) {
        if (IsBloom(dotype)) {
            parser.Fail(segment, "a record of DO type 4 has no segments");
        }
        index = static_cast<std::uint32_t>(i);
        element = bytes + layout.Entry(i);
        auto const read = [&](auto const& members) {
            parser.ReadMembers(parser.Object(segment), members, *this, &segment);
        };
        if (DOTypeOf(dotype).sizeWidth == 0) {
            read(kBareMembers);
        } else if (DOTypeOf(dotype).offsetWidth == 0) {
            read(kSizeMembers);
        } else {
            read(kOffsetMembers);
        }
    });
}

// Computes the layout, allocates the record, and writes the header and the sections that are known.
void ObjectReader::Allocate(std::vector<unsigned char>& record) {
    // The longest line has fewer elements than 2^32; only references may take more bytes than their text.
    bool const fits = references.size() <= kLargestRecord;
    header.ntaskid = static_cast<std::uint32_t>(taskIds.size() / kLegacyTaskIdSize);
    header.nds = static_cast<std::uint32_t>(dsids.size() / kLegacyDsidSize);
    header.nfp = static_cast<std::uint32_t>(segments);
    header.nudcid = static_cast<std::uint32_t>(containers);
    header.trefssize = static_cast<std::uint32_t>(references.size());
    if (IsBloom(header.dotype)) {
        header.bsize = static_cast<std::uint32_t>(bitmapDigits / 2);
    }
    layout = RecordLayout(CountsOf(&header, Order::Host));
    if (!fits || layout.total > kLargestRecord) {
        Parser::FailMember(0, "", fmt::format("a record beyond {} bytes", kLargestRecord));
    }
    header.recsize = static_cast<std::uint32_t>(layout.total);
    CheckDerived();

    record.assign(layout.total, 0);
    bytes = record.data();
    std::memcpy(bytes, &header, sizeof header);
    if (IsBloom(header.dotype)) {
        Store(bytes + layout.entries, std::uint32_t{header.bsize});
    }
    if (header.nudcid != 0) {
        Store(bytes + layout.udcids + kUniqueCountOffset, std::uint32_t{header.nudcid});
    }
    std::copy(taskIds.begin(), taskIds.end(), bytes + layout.taskids);
    std::copy(dsids.begin(), dsids.end(), bytes + layout.dsids);
    std::copy(references.begin(), references.end(), bytes + layout.trefs);
    source = DOSegmentSource::Of(reinterpret_cast<DORecordHeader const*>(bytes));
}

} // namespace

Order ReadObject(Parser& parser, std::vector<unsigned char>& record) {
    ObjectReader reader(parser);
    auto const seen = parser.ReadMembers(parser.Root(), kMembers, reader);
    parser.End();
    if (IsBloom(reader.header.dotype) && !seen[RowOf(kMembers, "bitmap")]) {
        Parser::FailMember(0, "bitmap", "is missing");
    }
    reader.Allocate(record);
    parser.PlaceMembers(parser.Root(), kMembers, reader);
    if (reader.header.nudcid != 0 && !seen[RowOf(kMembers, "list_checksum")]) {
        unsigned char* const list = reader.bytes + reader.layout.udcids;
        Store(list, UniqueListChecksum(list, reader.header.nudcid));
    }
    return reader.order;
}

} // namespace crrecord::tool::json
