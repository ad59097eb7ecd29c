#include "json/object_reader.h"

#include "support/layout/unique_list.h"

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

using Row = Member<ObjectReader>;

constexpr auto kMembers = [] {
    auto members = Joined(
        CommonMembers<ObjectReader>(), NumberMembers<ObjectReader>(kObjectMembers),
        std::array<Row, 10>{{{{"reserved2"}, &ObjectReader::ReadReserved2},
                             {{"bitmap", Need::Optional}, &ObjectReader::MeasureBitmap, &ObjectReader::PlaceBitmap},
                             {{"containers"}, &ObjectReader::CountContainers, &ObjectReader::PlaceContainers},
                             {{"references"}, &ObjectReader::ReadReferences},
                             {{"legacy_references"}, &ObjectReader::ReadLegacyReferences},
                             {{"segments"}, &ObjectReader::CountSegments, &ObjectReader::PlaceSegments},
                             {{"list_checksum", Need::Optional}, nullptr, &ObjectReader::PlaceListChecksum},
                             {{"bloom_length", Need::Optional}, nullptr, &ObjectReader::PlaceBloomLength},
                             {{"bloom_zeros", Need::Optional}, nullptr, &ObjectReader::PlaceBloomZeros},
                             {{"tail", Need::Optional}, nullptr, &ObjectReader::PlaceTail}}});
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

// Of segments that have neither size nor offset, a size only, and both.
constexpr std::array<Row, 4> kBareMembers{kIndex, kFingerprint, kDerivedSize, kDcid};
constexpr std::array<Row, 4> kSizeMembers{kIndex, kFingerprint, kSize, kDcid};
constexpr std::array<Row, 5> kOffsetMembers{kIndex, kFingerprint, kSize, kOffset, kDcid};

void Append(std::vector<unsigned char>& to, void const* bytes, std::size_t size) {
    auto const* const from = static_cast<unsigned char const*>(bytes);
    to.insert(to.end(), from, from + size);
}

} // namespace

void ObjectReader::Read(std::vector<unsigned char>& record) {
    Start();
    header_ = {};
    taskIds_.clear();
    dsids_.clear();
    references_.clear();
    auto const seen = parser_.ReadMembers(parser_.Root(), kMembers, *this);
    parser_.End();
    if (IsBloom(header_.dotype) && !seen.Has(RowOf(kMembers, "bitmap"))) {
        Parser::FailMember(0, "bitmap", "is missing");
    }
    Place(record);
    parser_.PlaceMembers(parser_.Root(), kMembers, *this);
    if (header_.nudcid != 0 && !seen.Has(RowOf(kMembers, "list_checksum"))) {
        unsigned char* const list = bytes_ + layout_.udcids;
        Store(list, UniqueListChecksum(list, header_.nudcid));
    }
}

void ObjectReader::Place(std::vector<unsigned char>& record) {
    // The longest line has fewer elements than 2^32; only references may take more bytes than their text.
    bool const fits = references_.size() <= kLargestRecord;
    header_.ntaskid = static_cast<std::uint32_t>(taskIds_.size() / kLegacyTaskIdSize);
    header_.nds = static_cast<std::uint32_t>(dsids_.size() / kLegacyDsidSize);
    header_.nfp = static_cast<std::uint32_t>(segments_);
    header_.nudcid = static_cast<std::uint32_t>(containers_);
    header_.trefssize = static_cast<std::uint32_t>(references_.size());
    if (IsBloom(header_.dotype)) {
        header_.bsize = static_cast<std::uint32_t>(bitmapDigits_ / 2);
    }
    layout_ = RecordLayout(CountsOf(&header_, Order::Host));
    if (!fits || layout_.total > kLargestRecord) {
        Parser::FailMember(0, "", fmt::format("a record beyond {} bytes", kLargestRecord));
    }
    header_.recsize = static_cast<std::uint32_t>(layout_.total);
    CheckDerived();

    record.assign(layout_.total, 0);
    bytes_ = record.data();
    std::memcpy(bytes_, &header_, sizeof header_);
    if (IsBloom(header_.dotype)) {
        Store(bytes_ + layout_.entries, std::uint32_t{header_.bsize});
    }
    if (header_.nudcid != 0) {
        Store(bytes_ + layout_.udcids + kUniqueCountOffset, std::uint32_t{header_.nudcid});
    }
    std::copy(taskIds_.begin(), taskIds_.end(), bytes_ + layout_.taskIds);
    std::copy(dsids_.begin(), dsids_.end(), bytes_ + layout_.dsids);
    std::copy(references_.begin(), references_.end(), bytes_ + layout_.trefs);
    source_ = DOSegmentSource::Of(reinterpret_cast<DORecordHeader const*>(bytes_));
}

void ObjectReader::ReadReserved2(Value value, MemberFacts const& member) {
    std::uint64_t count = 0;
    parser_.ForEachElement(value, member.name, [&](Value& element, std::uint64_t i) {
        if (i >= sizeof header_.reserved2) {
            parser_.Fail(element, fmt::format("expected {} elements", sizeof header_.reserved2));
        }
        header_.reserved2[i] = static_cast<unsigned char>(parser_.Number(element, 0, LargestOf(1)));
        count = i + 1;
    });
    if (count != sizeof header_.reserved2) {
        Parser::FailMember(parser_.PositionOf(value), member.name,
                           fmt::format("expected {} elements", sizeof header_.reserved2));
    }
}

void ObjectReader::MeasureBitmap(Value value, MemberFacts const&) {
    char const* const expected = "a string with an even number of hexadecimal digits";
    bitmapDigits_ = parser_.String(value, expected).size();
    if (bitmapDigits_ % 2 != 0) {
        parser_.FailExpecting(value, expected);
    }
}

Reference ObjectReader::ReadReference(Value& value) {
    Reference reference = ParseReference(parser_.String(value, kReferenceForm));
    if (!reference) {
        parser_.FailExpecting(value, kReferenceForm);
    }
    return reference;
}

void ObjectReader::ReadReferences(Value value, MemberFacts const& member) {
    parser_.ForEachElement(value, member.name, [this](Value& element, std::uint64_t) {
        Reference const reference = ReadReference(element);
        unsigned char bytes[CR_TREF_TEXT_SIZE];
        Append(references_, bytes, CRTRefSerialize(bytes, sizeof bytes, reference.get(), CR_TREF_SERIALIZED));
    });
}

void ObjectReader::ReadLegacyReferences(Value value, MemberFacts const& member) {
    parser_.ForEachElement(value, member.name, [this](Value& element, std::uint64_t) {
        Reference const reference = ReadReference(element);
        cr_reftype_t const kind = CRTRefGetType(reference.get());
        std::uint64_t const id = CRTRefGetID(reference.get());
        if (kind == CR_REFTYPE_TASKID && dsids_.empty()) {
            Append(taskIds_, &id, kLegacyTaskIdSize);
        } else if (kind == CR_REFTYPE_DSID) {
            auto const dsid = static_cast<std::uint32_t>(id);
            Append(dsids_, &dsid, kLegacyDsidSize);
        } else {
            parser_.FailExpecting(element,
                                  "tasks such as \"task:17\", and behind them data selections such as \"dsid:5\"");
        }
    });
}

void ObjectReader::RequireBloom(Value& value) {
    if (!IsBloom(header_.dotype)) {
        parser_.Fail(value, fmt::format("a record of DO type {} has none", header_.dotype));
    }
}

void ObjectReader::PlaceBitmap(Value value, MemberFacts const&) {
    RequireBloom(value);
    parser_.Hex(value, header_.bsize, bytes_ + layout_.entries + kBloomLengthSize);
}

void ObjectReader::PlaceBloomLength(Value value, MemberFacts const&) {
    RequireBloom(value);
    Store(bytes_ + layout_.entries, static_cast<std::uint32_t>(parser_.Number(value, 0, LargestOf(4))));
}

void ObjectReader::PlaceBloomZeros(Value value, MemberFacts const&) {
    RequireBloom(value);
    parser_.Hex(value, kBloomEndSize, bytes_ + layout_.udcids - kBloomEndSize);
}

void ObjectReader::PlaceListChecksum(Value value, MemberFacts const&) {
    if (header_.nudcid == 0) {
        parser_.Fail(value, "a record without containers has none");
    }
    Store(bytes_ + layout_.udcids, static_cast<std::uint32_t>(parser_.Number(value, 0, LargestOf(4))));
}

void ObjectReader::PlaceTail(Value value, MemberFacts const&) {
    parser_.Hex(value, layout_.total - layout_.tail, bytes_ + layout_.tail);
}

void ObjectReader::PlaceContainers(Value value, MemberFacts const& member) {
    parser_.ForEachCounted(value, member.name, containers_, [this](Value& element, std::uint64_t i) {
        element_ = bytes_ + layout_.UniqueEntry(i);
        parser_.ReadMembers(parser_.Object(element), kContainerMembers, *this, &element);
    });
}

void ObjectReader::PlaceSegments(Value value, MemberFacts const& member) {
    unsigned int const dotype = header_.dotype;
    parser_.ForEachCounted(value, member.name, segments_, [&](Value& element, std::uint64_t i) {
        if (IsBloom(dotype)) {
            parser_.Fail(element, "a record of DO type 4 has no segments");
        }
        index_ = static_cast<std::uint32_t>(i);
        element_ = bytes_ + layout_.Entry(i);
        simdjson::ondemand::object const object = parser_.Object(element);
        if (DOTypeOf(dotype).sizeWidth == 0) {
            parser_.ReadMembers(object, kBareMembers, *this, &element);
        } else if (DOTypeOf(dotype).offsetWidth == 0) {
            parser_.ReadMembers(object, kSizeMembers, *this, &element);
        } else {
            parser_.ReadMembers(object, kOffsetMembers, *this, &element);
        }
    });
}

void ObjectReader::ReadIndex(Value value, MemberFacts const&) {
    parser_.Number(value, index_, index_);
}

void ObjectReader::ReadFingerprint(Value value, MemberFacts const&) {
    parser_.Hex(value, layout_.fingerprint, element_);
}

void ObjectReader::CheckSegmentSize(Value value, MemberFacts const&) {
    std::uint32_t const size = source_.Read(index_).size;
    parser_.Number(value, size, size);
}

void ObjectReader::ReadSegmentSize(Value value, MemberFacts const&) {
    Store(element_ + layout_.fingerprint, static_cast<std::uint32_t>(parser_.Number(value, 0, LargestOf(4))));
}

void ObjectReader::ReadSegmentOffset(Value value, MemberFacts const&) {
    unsigned char* const to = element_ + layout_.offset;
    if (DOTypeOf(header_.dotype).offsetWidth == 8) {
        Store(to, parser_.Decimal(value));
    } else {
        Store(to, static_cast<std::uint32_t>(parser_.Decimal(value, LargestOf(4))));
    }
}

void ObjectReader::ReadSegmentDcid(Value value, MemberFacts const&) {
    Store(bytes_ + layout_.Dcid(index_), parser_.Decimal(value));
}

} // namespace crrecord::tool::json
