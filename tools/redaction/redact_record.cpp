#include "redaction/redact_record.h"

#include "io/failure.h"
#include "record/do_record.h"
#include "record/segment_record.h"

#include "SOmarshall/layout.h"
#include "support/layout/dcid_totals.h"
#include "tref/value.h"

#include <utility>

namespace crrecord::tool {

namespace {

// Replaces the number at `at` by rename(number).
template <class T, class Rename>
void Replace(unsigned char* at, Order order, Rename rename) {
    Store<T>(at, rename(Load<T>(at, order)), order);
}

// The record is in host order.
void RedactSegmentRecord(_SegmentDBRecord& stored, Pseudonyms& pseudonyms) {
    bool const contained = RecordInContainer(stored.fileid);
    stored.pathid = contained ? pseudonyms.Container(stored.pathid) : pseudonyms.Path(stored.pathid);
    stored.fileid = pseudonyms.File(stored.fileid);
    stored.CRC = pseudonyms.Checksum(stored.CRC);
    std::fill(std::begin(stored.key), std::end(stored.key), static_cast<unsigned char>(0));
    stored.word8 = stored.word20 = 0;
    stored.keyindex = stored.word94 = 0;
    stored.reserved = 0;
    unsigned char* at = segment::BytesOf(&stored) + CR_SO_FIXED_SIZE;
    for (std::uint32_t i = 0; i < stored.ntaskids; ++i, at += segment::kTaskIdSize) {
        Replace<std::uint64_t>(at, Order::Host, [&](auto id) { return pseudonyms.Reference(CR_REFTYPE_TASKID, id); });
    }
    unsigned int const width = CRFPDigestSize(stored.fptype);
    for (std::uint32_t i = 0; i < stored.nfp; ++i, at += width) {
        pseudonyms.Fingerprint(at, width);
    }
    std::fill_n(at, segment::kSpareSize, static_cast<unsigned char>(0));
}

void Write(Output& to, void const* bytes, std::size_t size) {
    to.Write({static_cast<char const*>(bytes), size});
}

void WriteSegmentRecord(Output& to, Record const& record, Pseudonyms& pseudonyms) {
    Record host = record;
    ConvertRecord(host, Order::Host);
    host.order = Order::Host;
    RedactSegmentRecord(AsSegmentRecord(host), pseudonyms);
    ConvertRecord(host, record.order);
    Write(to, record.bytes, record.size);
}

// The sections of a DO record in host order.
class ObjectRedaction {
public:
    ObjectRedaction(DORecordHeader* header, Pseudonyms& pseudonyms)
        : header_(header), bytes_(crrecord::BytesOf(header)), layout_(LayoutOf(header)), pseudonyms_(pseudonyms) {}

    void Segments() {
        for (std::uint64_t i = 0; i < layout_.segments; ++i) {
            pseudonyms_.Fingerprint(bytes_ + layout_.Entry(i), layout_.fingerprint);
            Replace<std::uint64_t>(bytes_ + layout_.Dcid(i), Order::Host,
                                   [&](auto id) { return pseudonyms_.Container(id); });
        }
    }

    void Bloom() {
        unsigned char* const area = bytes_ + layout_.entries;
        std::uint32_t const size = header_->bsize;
        Store(area, size);
        pseudonyms_.Bitmap({area + kBloomLengthSize, size});
        std::fill_n(area + kBloomLengthSize + size, kBloomEndSize, static_cast<unsigned char>(0));
    }

    // In ascending order of the new ids. Of two entries for one container the later one is kept, as by readers of the
    // list.
    void UniqueList() {
        std::uint32_t const count = header_->nudcid;
        if (count == 0) {
            return;
        }
        unsigned char* const list = bytes_ + layout_.udcids;
        std::vector<UniqueEntry> entries;
        entries.reserve(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Host);
            entries.push_back({pseudonyms_.Container(entry.dcid), entry.bytes});
        }
        SortAndMerge(entries, [](UniqueEntry& kept, UniqueEntry const& later) { kept = later; });
        auto const kept = static_cast<std::uint32_t>(entries.size());
        for (std::uint32_t i = 0; i < kept; ++i) {
            StoreUniqueEntry(list, i, entries[i], Order::Host);
        }
        Store(list + kUniqueCountOffset, kept);
        Store(list, UniqueListChecksum(list, kept));
        header_->nudcid = kept;
    }

    // Returns: all references, legacy ones included, as typed ones in ascending order without duplicates.
    std::vector<unsigned char> References() {
        std::vector<std::pair<cr_reftype_t, unsigned long>> references;
        auto const add = [&](cr_reftype_t kind, std::uint64_t id) {
            references.emplace_back(kind, pseudonyms_.Reference(kind, id));
        };
        for (std::uint64_t at = layout_.taskids; at < layout_.dsids; at += kLegacyTaskIdSize) {
            add(CR_REFTYPE_TASKID, Load<std::uint64_t>(bytes_ + at));
        }
        for (std::uint64_t at = layout_.dsids; at < layout_.trefs; at += kLegacyDsidSize) {
            add(CR_REFTYPE_DSID, Load<std::uint32_t>(bytes_ + at));
        }
        for (DOReference const reference : DOReferenceRange(bytes_ + layout_.trefs, bytes_ + layout_.tail)) {
            add(reference.kind, reference.id);
        }
        std::sort(references.begin(), references.end());
        references.erase(std::unique(references.begin(), references.end()), references.end());
        return Serialized(references);
    }

    void Header(std::size_t referenceBytes) {
        header_->CID = pseudonyms_.Container(header_->CID);
        header_->CRC = pseudonyms_.Checksum(header_->CRC);
        header_->reserved = 0;
        header_->reserved2[0] = header_->reserved2[1] = 0;
        header_->ntaskid = header_->nds = 0;
        header_->trefssize = static_cast<std::uint32_t>(referenceBytes);
        if (!IsBloom(header_->dotype)) {
            header_->bsize = 0;
        }
    }

private:
    static std::vector<unsigned char>
    Serialized(std::vector<std::pair<cr_reftype_t, unsigned long>> const& references) {
        std::vector<unsigned char> bytes;
        for (auto const& [kind, id] : references) {
            _cr_tref_t const reference{id, kind};
            std::size_t const before = bytes.size();
            bytes.resize(before + CRTRefSerializedSize(&reference, CR_TREF_SERIALIZED));
            CRTRefSerialize(bytes.data() + before, bytes.size() - before, &reference, CR_TREF_SERIALIZED);
        }
        return bytes;
    }

    DORecordHeader* header_;
    unsigned char* bytes_;
    RecordLayout layout_; // before redaction
    Pseudonyms& pseudonyms_;
};

// Writes a record in host order in `order`.
// Returns: its size, or 0 without output if it would exceed the largest record: typed references are longer than legacy
// ones.
std::uint64_t WriteObject(Output& to, DORecordHeader* header, Order order, Pseudonyms& pseudonyms) {
    ObjectRedaction redaction(header, pseudonyms);
    std::vector<unsigned char> const references = redaction.References();
    IsBloom(header->dotype) ? redaction.Bloom() : redaction.Segments();
    redaction.UniqueList();
    redaction.Header(references.size());
    RecordLayout const layout = LayoutOf(header);
    if (references.size() > kLargestRecord || layout.total > kLargestRecord) {
        return 0;
    }
    header->recsize = static_cast<std::uint32_t>(layout.total);
    if (order == Order::Network) {
        DORecordHeaderHton(header);
    }
    constexpr unsigned char kZeros[kTailSize]{};
    Write(to, header, layout.trefs);
    Write(to, references.data(), references.size());
    Write(to, kZeros, layout.total - layout.tail);
    return layout.total;
}

} // namespace

std::uint64_t WriteRedacted(Output& to, std::string_view file, Record const& record, Pseudonyms& pseudonyms) {
    if (record.kind == Kind::Segment) {
        WriteSegmentRecord(to, record, pseudonyms);
        return record.size;
    }
    std::uint64_t written = 0;
    if (record.kind == Kind::Form) {
        written = WriteObject(to, OpenDORecord(file, record)->GetHeader(), Order::Network, pseudonyms);
    } else {
        ConvertRecord(record, Order::Host);
        written = WriteObject(to, reinterpret_cast<DORecordHeader*>(record.bytes), record.order, pseudonyms);
    }
    if (written == 0) {
        throw InputFailure(PlaceOf(file, record) + ": would be larger than 4 GiB - 1 with typed references");
    }
    return written;
}

} // namespace crrecord::tool
