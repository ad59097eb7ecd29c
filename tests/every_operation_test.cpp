// Every public operation without memory: each allocation fails once, and no byte of its operands changes. The reviewed
// list of exported symbols names the operations.

#include "support/fault.h"
#include "support/record_memory.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SORecord.h>
#include <crrecord/probe.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <span>

namespace {

struct TextBuffer : std::streambuf {
    TextBuffer() { setp(text, text + sizeof text); }
    char text[4096];
};

RecordValues WithReferences() {
    RecordValues values = Example(3, 1);
    values.references = {{2, 17}, {2, 18}, {4, 3}, {6, 1}};
    return values;
}

RecordValues Plain() {
    RecordValues values = Example(2, 0);
    values.list.clear();
    return values;
}

RecordValues Legacy() {
    RecordValues values = Example(2, 0);
    values.taskIds = {5, 3};
    values.dsids = {7};
    return values;
}

void Drop(cr_log_level_t, cr_status_t, char const*, void*) {}

constexpr auto kGoOn = [](cr_finding_t const*, void*) { return true; };

constexpr auto kIsActive = [](unsigned long, void*) { return 1; };

// The operands, new for each attempt.
struct Subject {
    Subject() {
        Hold(*legacy, Spell(Legacy()).bytes);
        unbuilt->cleanupConstruction();
        unlimited->expand(9999);
        CRFPInitialize(&opened, 3);
        record->handleUpdate(); // the clock is constant: another update changes nothing
    }
    ~Subject() {
        std::free(out);
        std::free(built);
        CRTRefDelete(&value);
        CRTRefDelete(&made);
        CRTDigestDelete(&digest);
    }
    // All that an operation may change.
    Bytes State() const {
        Bytes all = StoredBytes(*record);
        PutBytes(all, StoredBytes(*plain));
        PutBytes(all, StoredBytes(*unlimited));
        PutBytes(all, Buffer(*legacy));
        all.push_back(static_cast<unsigned char>(record->GetNTRefs() + legacy->GetNTRefs()));
        auto const* const so = reinterpret_cast<unsigned char const*>(segment->GetHeader());
        all.insert(all.end(), so, so + CR_SO_RECORD_SIZE);
        PutBytes(all, segmentBytes);
        PutBytes(all, memory);
        return all;
    }

    Bytes stored = Spell(WithReferences()).bytes, network = Spell(WithReferences(), true).bytes, memory = network,
          segmentBytes = Golden({false}), bareSegment = Golden({true, 0, 0, 0}), form = SpellForm(Example(3, 1), true),
          entries = SpellEntries(Plain(), false), exact = stored, section = SpellReferences({{9, 1}, {9, 2}});
    unsigned long const dcids[3] = {64, 65, 64};
    // In memory of exactly its size, so that it is copied when the record grows.
    std::unique_ptr<DORecord> record = DORecord::Wrap(exact.data(), exact.size(), exact.size(), false);
    std::unique_ptr<OpenRecord> plain = Build<OpenRecord>(Plain()), bloom = Build<OpenRecord>(Example(4, 0)),
                                legacy = Build<OpenRecord>(Plain()), unlimited = Build<OpenRecord>(Plain()),
                                unbuilt = Build<OpenRecord>(Plain());
    std::unique_ptr<SORecord> segment = SORecord::FromBuffer(bareSegment.data(), bareSegment.size());
    _cr_tref_t *value = CRTRefNew(cr_reftype_t(9), 5), *made = nullptr;
    DORecord::tref_ptr_t handle = new Cr_TRef(CRTRefNew(cr_reftype_t(9), 6));
    crt_digest_t* digest = nullptr;
    crfp_digest_t fingerprint{};
    crfp_context_t context, opened;
    cr_dcid_size_map_t sizes;
    DORecordHeader* built = nullptr;
    void* out = nullptr;
    unsigned long length = 0;
    char text[CR_TREF_TEXT_SIZE] = {};
    TextBuffer buffer;
    std::ostream stream{&buffer};
    DORecordView view{stored.data(), stored.size()};
    DORecordHeader* header = plain->header;
    Cr_ErrnoException thrown{CR_STATUS_INVALID};
    std::stringstream message;
};

struct Operation {
    std::string name; // up to the parenthesis that the arguments are in
    cr_status_t (*run)(Subject& s);
};

// Several to a line.
// clang-format off
#define NAMED(name, ...) \
    Operation{name, []([[maybe_unused]] Subject& s) { \
        return fault::StatusOf([&]() -> decltype(auto) { return __VA_ARGS__; }); }}
#define FREE(...) NAMED(#__VA_ARGS__, __VA_ARGS__)
#define OF(type, object, ...) NAMED(#type "::" #__VA_ARGS__, s.object->__VA_ARGS__)
#define DO(...) OF(DORecord, record, __VA_ARGS__)
#define SO(...) OF(SORecord, segment, __VA_ARGS__)

Operation const kNeedMemory[] = {
    DO(AddDSID(9)), DO(AddTaskID(9)), DO(AddTaskID(9, kIsActive, nullptr)), DO(AddTRef(*s.value)),
    DO(AddTRef(s.handle)), DO(OwnTRef(s.handle)), DO(OwnTRef(*std::exchange(s.value, nullptr))),
    OF(DORecord, unlimited, AddSerializedTRefs(reinterpret_cast<char*>(s.section.data()), 10)), DO(expand(9999)),
    DO(GetUDCIDSizeList(s.sizes)), DO(Serialize(&s.out, &s.length, true)),
    DO(FromBuffer(s.network.data(), s.network.size())),
    DO(Wrap(s.memory.data(), s.memory.size(), s.memory.size(), true)), DO(convertToTRefs()),
    OF(DORecord, plain, AppendBloomAndUniqueDCIDList()), OF(DORecord, legacy, convertToTRefs()),
    OF(DORecord, bloom, SerializeBloomFilterDO(&s.out, &s.length, true)), OF(DORecord, bloom, AppendBloom(s.sizes)),
    OF(DORecord, unbuilt, init(1, 9, 3, 0, 0, 0, s.dcids, 3, s.entries.data(), 3, s.dcids, nullptr, 0, 0)),
    OF(DORecord, unbuilt, initWithBloom(1, 9, 3, 0, 0, 0, s.dcids, 3, 16, s.entries.data(), nullptr, 0, 4)),
    NAMED("DORecord::GetDigest", static_cast<void>(s.digest = s.record->GetDigest())),
    NAMED("DORecord::DORecord", DORecord(1, 9, 3, 0, 0, 0, s.entries.data(), 3, s.dcids, nullptr, 0, 0)),
    NAMED("DORecord::DORecord", DORecord(1, 9, 3, 0, 0, 0, 16, s.entries.data(), nullptr, 0, 4)),
    NAMED("DORecord::DORecord", DORecord(3, 1, nullptr, 0, s.form.data(), s.form.size(), false)),
    NAMED("SORecord::SORecord", SORecord(0, 64, 0, 0, s.text, 0, 0)),
    SO(FromBuffer(s.bareSegment.data(), s.bareSegment.size())),
    FREE(DORecordHeaderDeserialize(&s.built, &s.length, s.form.data(), s.form.size(), 3, 1)),
    FREE(SegmentRecordSerialize(RecordOf(s.segmentBytes), &s.out, &s.length)), FREE(CRFPInitialize(&s.context, 3)),
    NAMED("CRTDigestNewFull", static_cast<void>(s.digest = CRTDigestNewFull(1, &s.fingerprint, 64)))};

// These allocate from the pool, which keeps its memory.
Operation const kNeedChunks[] = {
    NAMED("CRTRefNew", static_cast<void>(s.made = CRTRefNew(cr_reftype_t(2), 1))),
    NAMED("CRTRefNewDeserialize", static_cast<void>(s.made = CRTRefNewDeserialize(s.section.data(), 10, 1, &s.length))),
    NAMED("Cr_TRef::Cr_TRef", static_cast<void>(s.handle = new Cr_TRef(1ul))),
    NAMED("Cr_TRef::Cr_TRef", static_cast<void>(s.handle = new Cr_TRef(1u))),
    NAMED("Cr_TRef::Factory", static_cast<void>(s.handle = Cr_TRef::Factory(s.value))),
    NAMED("Cr_TRef::operator new", Cr_TRef::operator delete(Cr_TRef::operator new(16))),
    NAMED("Cr_TRef::operator delete", s.handle = new Cr_TRef(static_cast<_cr_tref_t*>(nullptr)))};

Operation const kNeedNone[] = {
    DO(CheckTRef((*s.record->GetTRefTypeBegin(cr_reftype_t(6)))->Get())), DO(DelDSID(3)), DO(DelTRef(s.handle->Get())),
    DO(HasTaskID(17)), DO(HasDSID(3)), DO(CheckTRef(s.handle)), DO(ClearTRefType(cr_reftype_t(6))),
    DO(DelTRef(s.handle)), DO(GetBSize()), DO(GetBloom()), DO(GetBloomStart()), DO(GetCTime()), DO(GetCheckTime()),
    DO(GetCrc()), DO(GetDCID()), DO(GetDOSize()), DO(GetDOType()), DO(GetFPType()), DO(GetFlags()), DO(GetHeader()),
    DO(GetHeaderSize()), DO(GetMTime()), DO(GetNTRefs()), DO(GetNTRefs(cr_reftype_t(2))), DO(GetNds()), DO(GetNfp()),
    DO(GetNtaskid()), DO(GetNudcid()), DO(GetPOID()),
    NAMED("DORecord::GetSegmentDCIDList", static_cast<void>(s.record->GetSegmentDCIDList())), DO(GetSegmentUDCID(0)),
    DO(GetSegmentUDCIDList()), DO(GetSerializedTRefs()), DO(GetSerializedTRefsSize()), DO(GetSize()), DO(GetSsize()),
    DO(GetTRefTypeBegin(cr_reftype_t(2))), DO(GetTRefTypeEnd(cr_reftype_t(2))),
    DO(GetTRefTypeTotalSize(cr_reftype_t(2))), DO(GetUDCIDSize()), DO(HostToNetwork(0)), DO(NetworkToHost(1)),
    DO(IsInNetworkOrder()), DO(IsSubDO()), DO(RemoveAllTRefs()), DO(RemoveAllTaskIDs()),
    DO(RemoveInactiveTaskIDs(kIsActive, nullptr)), DO(Segments()), DO(SerializedDORecordFree(&s.out)),
    DO(SetCheckTime(1)), DO(SetDCID(1)), DO(SetFPType(1)), DO(SetFlags(9)), DO(SetSegmentDCID(0, 64)),
    DO(SetSegmentFP(0, s.fingerprint)), DO(SetSegmentObjectOffset(0, 1)), DO(SetSegmentOffset(0, 1)),
    DO(SetSegmentSize(0, 1)), DO(SetSubDO(true)), DO(ToStream(s.stream, false)), DO(ToStream(s.stream, true)),
    DO(ValidateHeader(s.stored.data(), s.view.GetHeaderSize(), 0)), DO(calcRecSize()), DO(calcTRefsSize()),
    DO(checkSegmentList()), DO(checkSegmentOffsetEndiannes()), DO(checkSegmentSizeEndiannes()),
    DO(cleanupConstruction()), DO(expand()), DO(getRecSize()), DO(getTRefsSize()), DO(handleUpdate()),
    DO(initReferenceSets()), DO(operator!=(*s.plain)), DO(operator==(*s.record)), DO(setCheckTime(1)), DO(setDCID(1)),
    DO(setFPType(9)), DO(setFlags(9)), DO(setRecSize(9)), DO(setTRefsSize(9)),
    NAMED("DORecord::~DORecord", s.record.reset()), DO(UniqueDCIDs()), SO(GetCRC()), SO(GetCheckTime()),
    SO(GetCryptoMode()), SO(GetDCID()), SO(GetFPType()), SO(GetFileID()), SO(GetFlags()), SO(GetHeader()),
    SO(GetHeaderSize()), SO(GetKey()), SO(GetKeyIndex()), SO(GetPathID()), SO(GetSize()), SO(HostToNetwork(1)),
    SO(IsInNetworkOrder()), SO(NetworkToHost(0)), SO(SetCRC(1)), SO(SetCheckTime(1)), SO(SetCryptoMode(1)),
    SO(SetDCID(2)), SO(SetFPType(9)), SO(SetFlags(9)), SO(SetKey(s.text)), SO(SetKeyIndex(1)), SO(SetSize(1)),
    SO(operator==(*s.segment)), NAMED("SORecord::~SORecord", s.segment.reset()),
    FREE(SegmentRecordDiagnose(s.segmentBytes.data(), s.segmentBytes.size(), CR_SO_NO_TASKIDS, kGoOn, nullptr)),
    FREE(SegmentRecordHton(RecordOf(s.segmentBytes), RecordOf(s.segmentBytes), 0)),
    FREE(SegmentRecordNtoh(RecordOf(s.bareSegment), RecordOf(s.bareSegment), 0)),
    FREE(SegmentRecordToStream(s.stream, *RecordOf(s.segmentBytes), false)),
    FREE(SegmentRecordValidate(RecordOf(s.segmentBytes), RecordOf(s.segmentBytes)->recsize, 0)),
    FREE(DORecordDiagnose(s.stored.data(), s.stored.size(), 0, kGoOn, nullptr)), FREE(DORecordHeaderGetBloom(s.header)),
    FREE(DORecordDiagnose(s.stored.data(), s.stored.size(), 2, kGoOn, nullptr)), FREE(RecordInContainer(0)),
    FREE(DORecordHeaderGetBloomStart(s.header)), FREE(DORecordHeaderGetPOID(s.header)),
    FREE(DORecordHeaderHton(s.header)), FREE(DORecordHeaderIndexOfDCID(s.header, 0)),
    FREE(DORecordHeaderIndexOfDataSelection(s.header, 0)), FREE(DORecordHeaderIndexOfSegment(s.header, 0)),
    FREE(DORecordHeaderIndexOfSegmentObjectOffset(s.header, 0)), FREE(DORecordHeaderIndexOfSegmentOffset(s.header, 0)),
    FREE(DORecordHeaderIndexOfSegmentSize(s.header, 0)), FREE(DORecordHeaderIndexOfTaskId(s.header, 0)),
    FREE(DORecordHeaderIndexOfUDCID(s.header, 0)),
    FREE(DORecordHeaderNtoh(reinterpret_cast<DORecordHeader*>(s.network.data()))),
    FREE(DORecordHeaderSizeRaw(0, ~0u, 0, 0, 3, 3, 0)), FREE(DORecordHeaderSizeWithBloom(0, ~0u, 0, 0, 4, 0)),
    FREE(DORecordHeaderStartBFBitmap(s.header)), FREE(DORecordHeaderStartTRefs(s.header)),
    FREE(DORecordHeaderStartUDCID(s.header)), FREE(DORecordHeaderValidate(s.stored.data(), s.view.GetHeaderSize(), 0)),
    FREE(DORecordSerializedDiagnose(s.form.data(), s.form.size(), 3, 1, 1, kGoOn, nullptr)),
    FREE(DORecordSerializedValidate(s.form.data(), s.form.size(), 3, 1, 1)),
    NAMED("DORecordView::DORecordView", DORecordView(s.stored.data(), s.stored.size())),
    NAMED("DORecordView::GetBloom", s.view.GetBloom()), NAMED("DORecordView::References", s.view.References()),
    NAMED("DORecordView::Segments", s.view.Segments()), NAMED("DORecordView::UniqueDCIDs", s.view.UniqueDCIDs()),
    FREE(DOSegmentSource::Of(s.header)), FREE(DOUniqueDCIDSource::Of(s.view.GetHeader())), FREE(CRDOTypeIsValid(9)),
    FREE(CRRecordProbe(s.stored.data(), s.stored.size())), FREE(CRFindingName(1)), FREE(CRFPTypeIsValid(9)),
    FREE(CRFPAppend(&s.opened, "x", 1)), FREE(CRFPFinalize(&s.opened)), FREE(CRFPFinalizeDO(&s.opened)),
    FREE(CRFPGetDigest_r(&s.opened, &s.fingerprint)), FREE(CRFPDigestToString_r(&s.fingerprint, 3, s.text, 99)),
    FREE(CRFPStringToDigest_r("0", 3, &s.fingerprint)), FREE(CRTDigestDelete(&s.digest)),
    NAMED("crfp_context_t::crfp_context_t", static_cast<void>(crfp_context_t())),
    NAMED("crfp_context_t::~crfp_context_t", static_cast<void>(crfp_context_t())),
    FREE(CRTRefCompare(s.value, s.value)), FREE(CRTRefDelete(&s.value)), FREE(CRTRefEqual(s.value, s.value)),
    FREE(CRTRefGetID(s.value)), FREE(CRTRefGetTaskID(s.value)), FREE(CRTRefGetType(s.value)),
    FREE(CRTRefSerialize(s.text, 99, s.value, 1)), FREE(CRTRefSerializedSize(s.value, 0)),
    FREE(CRTRefToString(s.text, 9, s.value)),
    NAMED("Cr_ErrnoException::Cr_ErrnoException", Cr_ErrnoException(CR_STATUS_INVALID)),
    NAMED("Cr_ErrnoException::Cr_ErrnoException", Cr_ErrnoException(CR_STATUS_INVALID, "text", "detail")),
    NAMED("Cr_ErrnoException::Cr_ErrnoException", Cr_ErrnoException(CR_STATUS_INVALID, s.message, "detail")),
    NAMED("Cr_ErrnoException::~Cr_ErrnoException", Cr_ErrnoException(s.thrown)),
    NAMED("Cr_ErrnoException::GetDetail", s.thrown.GetDetail()),
    NAMED("Cr_ErrnoException::GetStatus", s.thrown.GetStatus()), NAMED("Cr_ErrnoException::what", s.thrown.what()),
    FREE(CRLogSetSink(Drop, nullptr)), FREE(CRLogSetTrace(0)), FREE(CRStatusToStringA(CR_STATUS_OK)),
    FREE(ErrorA(CR_STATUS_OK, "x")), FREE(WarningA(CR_STATUS_OK, "x")), FREE(__TraceA("x")),
    FREE(__cr_errno_location()), FREE(__zeblog_trace_location()), FREE(_crMapError("x", "x", 1)),
    FREE(zebLogLastMessageA())};
// clang-format on

struct EveryOperation : testing::Test {
    // The pool, and OpenSSL for each fingerprint type, keep their first allocations.
    EveryOperation() {
        CRLogSetSink(Drop, nullptr);
        std::vector<DORecord::tref_ptr_t> chunks;
        while (chunks.size() < 200) {
            chunks.emplace_back(new Cr_TRef(7ul));
        }
        for (unsigned int fptype = 0; fptype < 4; ++fptype) {
            crfp_context_t context;
            CRFPInitialize(&context, fptype);
        }
    }
    ~EveryOperation() override { CRLogSetSink(nullptr, nullptr); }
};

TEST_F(EveryOperation, IsInATable) {
    std::ifstream exported(CRRECORD_EXPORTED);
    std::map<std::string, int> missing; // by name; data have no parenthesis
    for (std::string symbol; std::getline(exported, symbol);) {
        symbol.erase(0, symbol.find('"') + 1);
        if (symbol.find('(') != std::string::npos) {
            ++missing[symbol.substr(0, symbol.find('('))];
        }
    }
    EXPECT_GT(missing.size(), 150u);
    for (auto const& table : {std::span<Operation const>(kNeedMemory), {kNeedChunks}, {kNeedNone}}) {
        for (Operation const& operation : table) {
            auto const found = missing.find(operation.name.substr(0, operation.name.find('(')));
            EXPECT_TRUE(found != missing.end()) << operation.name;
            found == missing.end() ? 0 : --found->second;
        }
    }
    for (auto const& [name, count] : missing) {
        EXPECT_LE(count, 0) << name;
    }
}

// Scratch memory is optional.
TEST_F(EveryOperation, ReportsNoMemoryAndChangesNothing) {
    for (Operation const& operation : kNeedMemory) {
        SCOPED_TRACE(operation.name);
        unsigned long failures = 0, number = 0;
        for (bool met = true; met;) {
            std::unique_ptr<Subject> subject;
            auto const set = [&](Subject* to) { return subject.reset(to), CR_STATUS_OK; };
            long live = fault::Run([&] { return set(new Subject); }, 0).live;
            Bytes const before = subject->State();
            auto const outcome = fault::Run([&] { return operation.run(*subject); }, ++number);
            met = outcome.attempts >= number;
            if (outcome.status != CR_STATUS_OK) {
                ++failures;
                EXPECT_EQ(std::pair(met, outcome.status), std::pair(true, CR_STATUS_NO_MEMORY)) << number;
                EXPECT_EQ(subject->State(), before) << number;
            } else if (met) {
                EXPECT_TRUE(operation.name.starts_with("DORecord::AppendBloomAndUniqueDCIDList")) << number;
            }
            live += outcome.live + fault::Run([&] { return set(nullptr); }, 0).live;
            EXPECT_EQ(live, 0) << number;
        }
        EXPECT_GE(failures, 1u);
    }
}

// The pool allocates blocks with operator new[], which sanitizers replace.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(EveryOperation, FailsWithoutAChunkInThePools) {
    for (auto const& table : {std::span<Operation const>(kNeedMemory), {kNeedChunks}}) {
        for (Operation const& operation : table) {
            Subject subject;
            Bytes const before = subject.State();
            std::vector<DORecord::tref_ptr_t> handles;
            std::vector<_cr_tref_t*> values;
            handles.reserve(100000);
            values.reserve(100000);
            std::function<void()> const takers[] = {
                [&] { handles.emplace_back(new Cr_TRef(static_cast<_cr_tref_t*>(nullptr))); },
                [&] { values.push_back(CRTRefNew(cr_reftype_t(6), 1)); }};
            for (auto const& take : takers) {
                while (fault::Run([&] { return fault::StatusOf(take); }, 1, true).status == CR_STATUS_OK) {}
            }
            auto const outcome = fault::Run([&] { return operation.run(subject); }, 1, true);
            EXPECT_EQ(outcome.status, CR_STATUS_NO_MEMORY) << operation.name;
            std::for_each(values.begin(), values.end(), [](_cr_tref_t* value) { CRTRefDelete(&value); });
            EXPECT_EQ(subject.State(), before) << operation.name;
        }
    }
}

// A reference takes two chunks. Without the first there is no value, without the second no handle.
TEST(AddSerializedTRefs, ThrowsBadAllocWithoutAChunkForTheHandle) {
    for (int const left : {0, 1}) {
        auto const record = Build(Plain());
        record->AddTaskID(2); // the buffer has a whole page then
        std::vector<_cr_tref_t*> values;
        values.reserve(100000);
        auto const take = [&] {
            values.push_back(CRTRefNew(CR_REFTYPE_TASKID, 1));
            return values.back() ? CR_STATUS_OK : CR_STATUS_NO_MEMORY;
        };
        while (fault::Run(take, 1, true).status == CR_STATUS_OK) {}
        std::for_each(values.begin(), values.begin() + left, [](_cr_tref_t*& value) { CRTRefDelete(&value); });
        std::string thrown;
        thrown.reserve(20);
        fault::Run(
            [&] {
                try {
                    record->AddSerializedTRefs("\2\10\0\0\0\0\0\0\0\1", 10);
                } catch (Cr_ErrnoException const&) {
                    thrown = "Cr_ErrnoException";
                } catch (std::bad_alloc const&) {
                    thrown = "bad_alloc";
                }
                return CR_STATUS_OK;
            },
            1, true);
        EXPECT_EQ(thrown, left == 0 ? "Cr_ErrnoException" : "bad_alloc");
        std::for_each(values.begin(), values.end(), [](_cr_tref_t* value) { CRTRefDelete(&value); });
    }
}
#endif

TEST_F(EveryOperation, OthersAllocateNothing) {
    for (Operation const& operation : kNeedNone) {
        Subject subject;
        auto const outcome = fault::Run([&] { return operation.run(subject); }, 1, true);
        EXPECT_EQ(outcome.attempts, 0u) << operation.name;
        // The validators get valid records: with a bad one they would end too soon.
        if (operation.name.find("Validate") != operation.name.npos) {
            EXPECT_EQ(outcome.status, CR_STATUS_OK) << operation.name;
        }
    }
}

// Accepts `left` characters.
struct Short : std::streambuf {
    explicit Short(std::size_t capacity) : left(capacity) {}
    std::streamsize xsputn(char const* from, std::streamsize count) override {
        auto const taken = std::min(left, static_cast<std::size_t>(count));
        text.append(from, taken);
        left -= taken;
        return static_cast<std::streamsize>(taken);
    }
    std::size_t left;
    std::string text;
};

// One exception: the text of a segment record in network order, which stays in host order if the stream throws.
TEST_F(EveryOperation, KeepsTheRecordWhenTheStreamFails) {
    std::function<void(Subject&, std::ostream&)> const writers[] = {
        [](Subject& s, std::ostream& to) { s.record->ToStream(to, false); },
        [](Subject& s, std::ostream& to) { s.record->ToStream(to, true); },
        [](Subject& s, std::ostream& to) { s.record->HostToNetwork(0), s.record->ToStream(to, true); },
        [](Subject& s, std::ostream& to) { SegmentRecordToStream(to, *RecordOf(s.segmentBytes), false); },
        [](Subject& s, std::ostream& to) { SegmentRecordToStream(to, *RecordOf(s.segmentBytes), true); },
        [](Subject& s, std::ostream& to) { SegmentRecordToStream(to, *RecordOf(s.bareSegment), true); },
        [](Subject& s, std::ostream& to) { SegmentRecordToStream(to, *RecordOf(s.bareSegment), false); }};
    for (auto const& write : writers) {
        Subject whole;
        Short unlimited(~0ul);
        std::ostream full(&unlimited);
        write(whole, full);
        for (std::size_t capacity = 0; capacity < unlimited.text.size(); ++capacity) {
            for (bool const throws : {false, true}) {
                Subject subject;
                Short device(capacity);
                std::ostream stream(&device);
                stream.exceptions(throws ? std::ios::badbit : std::ios::goodbit);
                bool thrown = false;
                try {
                    write(subject, stream);
                } catch (std::ios::failure const&) {
                    thrown = true;
                }
                EXPECT_EQ(std::tuple(thrown, stream.bad(), device.text),
                          std::tuple(throws, true, unlimited.text.substr(0, capacity)));
                EXPECT_EQ(subject.State(), whole.State()) << capacity;
                bool const converted = throws && &write == std::end(writers) - 1;
                EXPECT_EQ(subject.bareSegment, converted ? Golden({false, 0, 0, 0}) : whole.bareSegment) << capacity;
            }
        }
    }
}

} // namespace
