#include "anatomy/sections.h"

#include "SOmarshall/layout.h"
#include "support/exchange/exchange_form.h"
#include "support/layout/header_fields.h"
#include <crrecord/do_types.h>

#include <algorithm>

namespace crrecord::tool {

namespace {

// Divides a record's bytes into sections, from its start to its end.
class SectionWalk {
public:
    explicit SectionWalk(std::uint64_t size) : left_(size) {}

    // Adds a section of `wanted` bytes, or of those that are left.
    Section& Take(std::string_view name, std::uint64_t wanted, std::vector<Field> fields) {
        std::uint64_t const size = std::min(wanted, left_);
        sections_.push_back({name, at_, size, wanted - size, std::move(fields)});
        at_ += size;
        left_ -= size;
        return sections_.back();
    }
    void TakeElements(std::string_view name, std::uint64_t wanted, std::string_view elements,
                      std::vector<Field> element) {
        if (wanted != 0) {
            Section& section = Take(name, wanted, {});
            section.elements = elements;
            section.element = std::move(element);
        }
    }
    // Adds a section of one field.
    void TakeField(std::string_view name, std::uint64_t wanted, std::string_view field, Format format) {
        if (wanted != 0) {
            Take(name, wanted, {{field, wanted, format}});
        }
    }

    // Adds a section of the bytes that no count requires.
    std::vector<Section> End() {
        TakeField(kBeyondSection, left_, "bytes", Format::Opaque);
        return std::move(sections_);
    }

private:
    std::vector<Section> sections_;
    std::uint64_t at_ = 0;
    std::uint64_t left_;
};

constexpr char kEntries[] = "entries";
constexpr char kDcids[] = "DCIDs";
constexpr char kSegments[] = "segments";
constexpr char kTaskIds[] = "task ids";
constexpr char kZeros[] = "zeros";

// The formats of the fields of both kinds of records. All others are numbers.
Format FormatOf(std::string_view name) {
    static constexpr std::pair<std::string_view, Format> kFormats[] = {
        {"type", Format::RecordType},
        {"flags", Format::Hexadecimal},
        {"reserved", Format::Zeros},
        {"checktime", Format::Time},
        {"CID", Format::Container},
        {"CRC", Format::Hexadecimal},
        {"ctime", Format::Time},
        {"mtime", Format::Time},
        {"key", Format::Digits},
        {"dotype", Format::DOType},
        {"fptype", Format::FingerprintType},
        {"reserved2", Format::Zeros},
    };
    auto const* const found =
        std::find_if(std::begin(kFormats), std::end(kFormats), [&](auto const& row) { return row.first == name; });
    return found == std::end(kFormats) ? Format::Number : found->second;
}

std::vector<Field> const& HeaderFields() {
    static std::vector<Field> const fields = [] {
        std::vector<Field> made;
        for (HeaderField const& field : kHeaderFields) {
            made.push_back({field.name, field.width, FormatOf(field.name), field.swapped});
        }
        return made;
    }();
    return fields;
}

// The fingerprint of a segment, and its size and offset if the DO type stores them.
std::vector<Field> EntryFields(Field fingerprint, unsigned int dotype) {
    std::vector<Field> fields{fingerprint};
    if (unsigned int const width = DOTypeOf(dotype).sizeWidth) {
        fields.push_back({"size", width, Format::Number});
    }
    if (unsigned int const width = DOTypeOf(dotype).offsetWidth) {
        fields.push_back({"offset", width, Format::Number});
    }
    return fields;
}

// In a record only the count is byte-swapped, in an exchange form all fields.
void TakeUniqueList(SectionWalk& walk, std::uint32_t nudcid, bool swapped) {
    if (nudcid != 0) {
        Section& list = walk.Take("unique list", UniqueListSize(nudcid),
                                  {{"unique.checksum", kUniqueCountOffset, Format::Hexadecimal, swapped},
                                   {"unique.count", kUniqueHeadSize - kUniqueCountOffset, Format::Number}});
        list.elements = "unique.entries";
        list.element = {{"dcid", kDcidSize, Format::Container, swapped},
                        {"bytes", kUniqueEntrySize - kDcidSize, Format::Number, swapped}};
    }
}

std::vector<Section> SectionsOfObject(Record const& record) {
    SectionWalk walk(record.size);
    walk.Take(kHeaderSection, CR_DO_HEADER_SIZE, HeaderFields());
    if (record.size < CR_DO_HEADER_SIZE) {
        return walk.End();
    }
    RecordCounts const counts = CountsOf(reinterpret_cast<DORecordHeader const*>(record.bytes), record.order);
    RecordLayout const layout(counts);
    if (IsBloom(counts.dotype)) {
        walk.Take("bloom area", layout.udcids - layout.entries,
                  {{"bloom.length", kBloomLengthSize, Format::Number},
                   {"bloom.bitmap", counts.bsize, Format::Opaque},
                   {"bloom.end", kBloomEndSize, Format::Zeros}});
    } else {
        walk.TakeElements(kEntries, layout.dcids - layout.entries, kSegments,
                          EntryFields({"fingerprint", layout.fingerprint, Format::Digits}, counts.dotype));
        walk.TakeElements(kDcids, layout.udcids - layout.dcids, kSegments,
                          {{"dcid", kDcidSize, Format::Container, false}});
    }
    TakeUniqueList(walk, counts.nudcid, false);
    walk.TakeElements(kTaskIds, layout.dsids - layout.taskids, "taskids",
                      {{"", kLegacyTaskIdSize, Format::TaskId, false}});
    walk.TakeElements("DSIDs", layout.trefs - layout.dsids, "dsids", {{"", kLegacyDsidSize, Format::Dsid, false}});
    walk.TakeField("references", layout.tail - layout.trefs, "references", Format::References);
    walk.TakeField(kZeros, layout.total - layout.tail, "tail", Format::Zeros);
    return walk.End();
}

std::vector<Field> const& SegmentFields() {
    static std::vector<Field> const fields = [] {
        std::vector<Field> made;
        for (segment::Field const& field : segment::kFields) {
            bool const kept = field.handling == segment::Handling::Kept || field.handling == segment::Handling::Left;
            made.push_back({field.name, field.width, FormatOf(field.name), !kept});
        }
        return made;
    }();
    return fields;
}

std::vector<Section> SectionsOfSegment(Record const& record) {
    using segment::FieldOf;
    SectionWalk walk(record.size);
    Section& header = walk.Take(kHeaderSection, CR_SO_FIXED_SIZE, SegmentFields());
    if (record.size < CR_SO_FIXED_SIZE) {
        return walk.End();
    }
    auto const count = [&](segment::Field which) {
        return Load<std::uint32_t>(record.bytes + which.offset, record.order);
    };
    if (RecordInContainer(Load<std::uint64_t>(record.bytes + FieldOf("fileid").offset, record.order))) {
        std::find_if(header.fields.begin(), header.fields.end(), [](Field const& field) {
            return field.name == "pathid";
        })->format = Format::Container;
    }
    std::uint64_t const width = CRFPDigestSize(record.bytes[FieldOf("fptype").offset]);
    walk.TakeElements(kTaskIds, std::uint64_t{segment::kTaskIdSize} * count(FieldOf("ntaskids")), "taskids",
                      {{"", segment::kTaskIdSize, Format::TaskId}});
    walk.TakeElements("fingerprints", width * count(FieldOf("nfp")), "fingerprints", {{"", width, Format::Digits}});
    walk.TakeField("spare slot", segment::kSpareSize, "spare", Format::Zeros);
    return walk.End();
}

std::vector<Field> const& FormHeadFields() {
    static std::vector<Field> const fields{{"size", 8, Format::Number},
                                           {"ssize", 8, Format::Number},
                                           {"checksum", 4, Format::Hexadecimal},
                                           {"nfp", 4, Format::Number},
                                           {"zero", 4, Format::Zeros}};
    return fields;
}

// Returns: the number of entries in the list. Only the form's length shows whether there is a list.
std::uint32_t ListCountOf(exchange::Form const& form, std::uint32_t bsize) {
    std::uint64_t const least = exchange::BloomFormSize(bsize, 1);
    return form.size < least ? 0 : form.Word(exchange::kBitmapOffset + std::uint64_t{bsize} + kUniqueCountOffset);
}

void TakeBloomBody(SectionWalk& walk, exchange::Form const& form) {
    std::uint32_t const bsize = form.size < exchange::kBitmapOffset ? 0 : form.Word(exchange::kHeadSize);
    std::uint32_t const nudcid = ListCountOf(form, bsize);
    std::uint64_t const listEnd = exchange::kBitmapOffset + std::uint64_t{bsize} + UniqueListSize(nudcid);
    walk.Take("bloom area", kBloomLengthSize + std::uint64_t{bsize},
              {{"bsize", kBloomLengthSize, Format::Number}, {"bitmap", bsize, Format::Opaque}});
    TakeUniqueList(walk, nudcid, true);
    walk.TakeField(kZeros, exchange::BloomFormSize(bsize, nudcid) - listEnd, "end", Format::Zeros);
}

std::vector<Section> SectionsOfForm(Record const& record) {
    exchange::Form const form(record.bytes, record.size, record.form.dotype, record.form.fptype);
    SectionWalk walk(record.size);
    walk.Take(kHeaderSection, exchange::kHeadSize, FormHeadFields());
    if (record.size < exchange::kHeadSize) {
        return walk.End();
    }
    unsigned int const dotype = record.form.dotype;
    unsigned int const fptype = record.form.fptype;
    if (IsBloom(dotype)) {
        TakeBloomBody(walk, form);
        return walk.End();
    }
    std::uint64_t const nfp = form.Word(exchange::kCountOffset);
    walk.TakeElements(kEntries, SegmentFormSize(fptype, dotype) * nfp, kSegments,
                      EntryFields({"fingerprint", CRFPTextSize(fptype), Format::Text}, dotype));
    walk.TakeField("separator", exchange::kSeparatorSize, "separator", Format::Zeros);
    walk.TakeElements(kDcids, kDcidSize * nfp, kSegments, {{"dcid", kDcidSize, Format::Container}});
    return walk.End();
}

} // namespace

std::vector<Section> Sections(Record const& record) {
    switch (record.kind) {
    case Kind::DataObject: return SectionsOfObject(record);
    case Kind::Segment: return SectionsOfSegment(record);
    case Kind::Form: return SectionsOfForm(record);
    default: break;
    }
    SectionWalk walk(record.size);
    walk.TakeField(kUnknownSection, record.size, "bytes", Format::Opaque);
    return walk.End();
}

} // namespace crrecord::tool
