// The bytes select operations on one record. After each operation, the whole record is compared with a model of plain
// sets and maps.

#include "target.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <set>

namespace {

using fuzz::Must;

struct Segment {
    unsigned char mark; // each byte of the fingerprint
    unsigned int size;
    unsigned long offset, dcid;
};

void Put(fuzz::Block& to, unsigned long value, std::size_t width) {
    auto const* const bytes = reinterpret_cast<unsigned char const*>(&value); // requires a little-endian machine
    to.insert(to.end(), bytes, bytes + width);
}

using Key = std::pair<int, unsigned long>;

class Run {
public:
    explicit Run(fuzz::Bytes choices) : choices_(choices) { Make(); }

    void Go() {
        Compare();
        while (!choices_.empty()) {
            Step(fuzz::TakeByte(choices_) % 14);
            Compare();
        }
    }

private:
    void Make() {
        unsigned char const choice = fuzz::TakeByte(choices_);
        dotype_ = choice % 6;
        fptype_ = choice / 6 % 4;
        if (dotype_ == CR_DO_TYPE_BLOOM_FILTER) {
            fuzz::Block const bitmap(choice + 1u, choice);
            bitmap_ = choice + 1u;
            record_ = std::make_unique<DORecord>(64, 9, 0, 1, 1, 1, bitmap_, bitmap.data(), nullptr, fptype_, dotype_);
            return;
        }
        fuzz::Block entries;
        std::vector<unsigned long> dcids;
        unsigned long size = 0;
        constexpr unsigned int kFixed = 100; // of DO types 0 and 1
        unsigned int const count = 1u + fuzz::TakeByte(choices_) % 5;
        for (unsigned int i = 0; i < count; ++i) {
            unsigned char const mark = fuzz::TakeByte(choices_);
            bool const fixed = dotype_ <= CR_DO_TYPE_NO_SIZE;
            unsigned int const own = fixed ? i + 1 == count ? 1u + mark % kFixed : kFixed : mark * 8'000'000u;
            size += dotype_ == CR_DO_TYPE_8_BYTE_OFFSET ? mark : 0u;
            unsigned long const offset = dotype_ == CR_DO_TYPE_8_BYTE_OFFSET   ? size
                                         : dotype_ == CR_DO_TYPE_4_BYTE_OFFSET ? size & 0xffffffff
                                                                               : ~0ul;
            segments_.push_back({mark, own, offset, 64ul + mark % 4});
            entries.insert(entries.end(), CRFPDigestSize(fptype_), mark);
            Put(entries, own, fixed ? 0 : 4);
            Put(entries, segments_.back().offset, dotype_ == 3 ? 8 : dotype_ == 5 ? 4 : 0);
            dcids.push_back(segments_.back().dcid);
            size += own;
        }
        record_ = std::make_unique<DORecord>(64, size, kFixed, 1, 1, 1, entries.data(), count, dcids.data(), nullptr,
                                             fptype_, dotype_);
    }

    void Step(unsigned int choice) {
        int const kind = fuzz::TakeByte(choices_) % 16 - 2; // also some invalid kinds
        unsigned long const id = fuzz::TakeNumber(choices_, kind % 3 == 0 ? 4 : 1);
        auto const key = std::make_pair(kind, id);
        switch (choice) {
        case 0:
        case 1: return WithReference(kind, id, [&](_cr_tref_t const* reference) { Add(key, reference, choice == 0); });
        case 2: return WithReference(kind, id, [&](_cr_tref_t const* reference) { Delete(key, reference); });
        case 3: return WithReference(kind, id, [&](_cr_tref_t const* reference) { Check(key, reference); });
        case 4: return Load(kind, id);
        case 5:
            record_->ClearTRefType(static_cast<cr_reftype_t>(kind));
            std::erase_if(references_, [&](auto const& held) { return held.first == kind; });
            return;
        case 6: Must(record_->AddTaskID(id) == (references_.emplace(2, id).second ? 0 : 1), "AddTaskID"); return;
        case 7: return DropOddTasks();
        case 8: return record_->expand(static_cast<unsigned int>(id & 0xffff));
        case 9: return Convert((kind & 1) != 0);
        case 10: return AppendList();
        case 11: return Rebuild();
        case 12: return Reload(kind);
        default:
            if (!segments_.empty()) {
                unsigned int const i = static_cast<unsigned int>(id % segments_.size());
                segments_[i].dcid = 60 + id % 8;
                record_->SetSegmentDCID(i, segments_[i].dcid);
            }
        }
    }

    template <class Use>
    void WithReference(int kind, unsigned long id, Use use) {
        if (_cr_tref_t* reference = CRTRefNew(static_cast<cr_reftype_t>(kind), id)) {
            use(reference);
            CRTRefDelete(&reference);
        }
    }

    // Returns: the result of the operation, or 1000 plus the status that it throws.
    template <class Operation>
    static unsigned long Answer(Operation operation) {
        try {
            return static_cast<unsigned long>(operation());
        } catch (Cr_ErrnoException const& thrown) {
            return 1000ul + static_cast<unsigned int>(thrown.GetStatus());
        }
    }

    static bool Among(int kind, std::initializer_list<int> kinds) {
        return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
    }

    void Add(Key key, _cr_tref_t const* reference, bool asHandle) {
        unsigned long const expected = !Among(key.first, {2, 4, 6, 9}) ? 1009 : references_.contains(key) ? 1 : 0;
        auto const handle = [&] { return DORecord::tref_ptr_t(Cr_TRef::Factory(reference)); };
        unsigned long const seen =
            Answer([&] { return asHandle ? record_->OwnTRef(handle()) : record_->AddTRef(*reference); });
        Must(seen == expected, "adding a reference");
        if (expected == 0) {
            references_.insert(key);
        }
    }

    void Delete(Key key, _cr_tref_t const* reference) {
        unsigned long const expected = Among(key.first, {2, 4, 6, 8, 9}) ? references_.erase(key) : 1009;
        Must(Answer([&] { return record_->DelTRef(reference); }) == expected, "removing a reference");
    }

    void Check(Key key, _cr_tref_t const* reference) {
        unsigned long const expected = key.first == 7                 ? 0
                                       : !Among(key.first, {4, 6, 9}) ? 1009
                                       : references_.contains(key)    ? 0
                                                                      : 72;
        Must(Answer([&] { return record_->CheckTRef(reference); }) == expected, "looking for a reference");
    }

    // Loads a valid reference and a second one that is valid for kind 4 only.
    void Load(int kind, unsigned long id) {
        auto const first = static_cast<unsigned char>(kind);
        fuzz::Block const section{2, 8, 0, 0, 0, 0, 0, 0, 0, 17, first, 4, 0, 0, 0, static_cast<unsigned char>(id)};
        unsigned long const seen = Answer([&] {
            record_->AddSerializedTRefs(reinterpret_cast<char const*>(section.data()),
                                        static_cast<unsigned int>(section.size()));
            return 0;
        });
        Must(seen == (kind == 4 ? 0 : 1032), "loading references");
        references_.emplace(2, 17);
        if (kind == 4) {
            references_.emplace(4, id & 0xff);
        }
    }

    void DropOddTasks() {
        auto const odd = [](Key const& held) { return held.first == 2 && held.second % 2 != 0; };
        unsigned long const expected = std::erase_if(references_, odd);
        auto const isEven = [](unsigned long id, void*) { return id % 2 == 0 ? 1 : 0; };
        Must(record_->RemoveInactiveTaskIDs(isEven, nullptr) == expected, "dropping tasks");
    }

    void Convert(bool withoutTasks) {
        record_->HostToNetwork(withoutTasks ? 1 : 0);
        if (withoutTasks) {
            std::erase_if(references_, [](Key const& held) { return held.first == 2; });
        }
        CompareBytes();
        record_->NetworkToHost(0);
    }

    void AppendList() {
        if (dotype_ == CR_DO_TYPE_BLOOM_FILTER) {
            return; // it would take the list for a received one
        }
        bool refused = !references_.empty();
        std::map<unsigned long, unsigned long> sums;
        for (Segment const& segment : segments_) {
            refused |= segment.dcid < CR_FIRST_FREE_DCID;
            sums[segment.dcid] += segment.size;
        }
        Must(record_->AppendBloomAndUniqueDCIDList() == (refused ? 9 : 0), "the list of containers");
        list_ = refused ? list_ : sums;
    }

    // Replaces the record by one built from its exchange form, which has segments only.
    void Rebuild() {
        if (dotype_ == CR_DO_TYPE_BLOOM_FILTER) {
            return;
        }
        void* form = nullptr;
        unsigned long size = 0;
        Must(record_->Serialize(&form, &size, true) == CR_STATUS_OK, "a form");
        record_ = std::make_unique<DORecord>(dotype_, fptype_, nullptr, 0, form, size, false);
        DORecord::SerializedDORecordFree(&form);
        references_.clear();
        list_.clear();
    }

    // Replaces the record by one loaded from its bytes, in a new buffer or in memory_.
    void Reload(int how) {
        auto const* const bytes = reinterpret_cast<unsigned char const*>(record_->GetHeader());
        fuzz::Block memory(bytes, bytes + record_->GetHeaderSize());
        record_ = (how & 1) != 0 ? DORecord::FromBuffer(memory.data(), memory.size())
                                 : DORecord::Wrap(memory.data(), memory.size(), memory.size(), false);
        memory_ = std::move(memory);
    }

    void CompareBytes() {
        unsigned int const width = CRFPDigestSize(fptype_);
        unsigned long const entry = width + (dotype_ <= 1 ? 0u : 4u) + (dotype_ == 3 ? 8u : dotype_ == 5 ? 4u : 0u) + 8;
        unsigned long referenceBytes = 0;
        for (auto const& [kind, id] : references_) {
            referenceBytes += kind == CR_REFTYPE_DSID ? 6 : 10;
        }
        unsigned long const size =
            104 + bitmap_ + entry * segments_.size() + (list_.empty() ? 0 : 8 + 16 * list_.size()) + referenceBytes;
        Must(record_->GetHeaderSize() == size && record_->calcTRefsSize() == referenceBytes, "sizes");
        DORecordView const view(record_->GetHeader(), size); // the constructor validates
        Must(view.IsInNetworkOrder() == record_->IsInNetworkOrder(), "order");
        Must(std::equal(references_.begin(), references_.end(), view.References().begin(), view.References().end(),
                        [](Key const& a, DOReference const& b) { return a == Key(b.kind, b.id); }),
             "references in the bytes");
        Must(std::equal(list_.begin(), list_.end(), view.UniqueDCIDs().begin(), view.UniqueDCIDs().end(),
                        [](auto const& a, DOUniqueDCID const& b) { return a.first == b.dcid && a.second == b.bytes; }),
             "list of containers");
        Must(std::equal(segments_.begin(), segments_.end(), view.Segments().begin(), view.Segments().end(),
                        [&](Segment const& a, DOSegment const& b) {
                            return std::count(b.fingerprint.data, b.fingerprint.data + width, a.mark) == width &&
                                   a.size == b.size && a.offset == b.offset && a.dcid == b.dcid;
                        }),
             "segments");
    }

    void Compare() {
        CompareBytes();
        std::set<Key> held;
        for (int kind = -1; kind <= CR_REFTYPE_END; ++kind) {
            auto const type = static_cast<cr_reftype_t>(kind);
            auto const before = held.size();
            for (auto i = record_->GetTRefTypeBegin(type); i != record_->GetTRefTypeEnd(type); ++i) {
                held.emplace(CRTRefGetType((*i)->Get()), CRTRefGetID((*i)->Get()));
            }
            Must(record_->GetNTRefs(type) == held.size() - before, "number of references of a kind");
        }
        Must(held == references_ && record_->GetNTRefs() == held.size(), "references");
        cr_dcid_size_map_t sizes, expected(list_.begin(), list_.end());
        Must(record_->GetUDCIDSizeList(sizes) == (list_.empty() ? 32 : 0), "sizes of the containers");
        if (!list_.empty()) {
            expected[record_->GetDCID()] += record_->GetHeaderSize() - CR_DO_RECORD_SIZE;
            Must(sizes == expected, "bytes in the containers");
        }
    }

    fuzz::Bytes choices_;
    unsigned char dotype_ = 0, fptype_ = 0;
    unsigned int bitmap_ = 0; // bytes
    std::vector<Segment> segments_;
    std::set<Key> references_;
    std::map<unsigned long, unsigned long> list_;
    fuzz::Block memory_; // used by the record after Wrap
    std::unique_ptr<DORecord> record_;
};

} // namespace

FUZZ_TARGET(operations, bytes) {
    constexpr std::size_t kMost = 512; // each step compares the whole record
    Run(bytes.first(std::min(bytes.size(), kMost))).Go();
}
