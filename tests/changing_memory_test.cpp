// Memory that changes while the library reads it: some bytes are changed just before the n-th load, for every n. The
// results may be wrong, but each load is inside the record, and a copied record is valid.
//
// The record's page is inaccessible. Each load faults, is counted, and is done in a single step (x86-64 Linux only).

#include "support/do_record.h"
#include "support/log_capture.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SORecord.h>
#include <crrecord/probe.h>
#include <crrecord/reader.h>

#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>
#include <set>

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kGuard = std::size_t{1} << 36; // inaccessible bytes on either side of the page
constexpr greg_t kTrapFlag = 0x100;

unsigned char* page;
unsigned char* writable; // the same page, always accessible
std::size_t recordSize;  // bytes of the record, which ends with the page
Bytes const* changed;    // the record after the change
unsigned long changeAt;  // number of the load before which it changes, from 1 on
unsigned long volatile loads;
sigjmp_buf escape;

void OnFault(int, siginfo_t* info, void* context) {
    auto* const at = static_cast<unsigned char*>(info->si_addr);
    if (at < page + kPage - recordSize || at >= page + kPage) {
        siglongjmp(escape, 1);
    }
    loads = loads + 1;
    mprotect(page, kPage, PROT_READ | PROT_WRITE);
    if (loads == changeAt) {
        std::copy(changed->begin(), changed->end(), writable + kPage - recordSize);
    } else {
        static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
    }
}

void OnStep(int, siginfo_t*, void* context) {
    mprotect(page, kPage, PROT_NONE);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
}

bool SetUp() {
    int const file = memfd_create("record", 0);
    void* const area = mmap(nullptr, 2 * kGuard + kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (ftruncate(file, kPage) != 0 || area == MAP_FAILED) {
        return false;
    }
    page = static_cast<unsigned char*>(area) + kGuard;
    writable = static_cast<unsigned char*>(mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = OnFault;
    sigaction(SIGSEGV, &action, nullptr);
    action.sa_sigaction = OnStep;
    sigaction(SIGTRAP, &action, nullptr);
    return mmap(page, kPage, PROT_NONE, MAP_SHARED | MAP_FIXED, file, 0) == page;
}

using Use = void (*)(unsigned char const* record, unsigned long size);
using Change = std::vector<std::pair<std::size_t, unsigned char>>; // offsets and values

// Whether all loads of one use are inside the record; `loads` is their number, up to the change.
bool StaysInside(Use use, Bytes const& record, unsigned long number, Bytes const& after) {
    static bool const isSetUp = SetUp();
    recordSize = record.size();
    changed = &after;
    changeAt = number;
    loads = 0;
    std::copy(record.begin(), record.end(), writable + kPage - recordSize);
    mprotect(page, kPage, PROT_NONE);
    if (!isSetUp || sigsetjmp(escape, 1) != 0) {
        return false;
    }
    try {
        use(page + kPage - recordSize, recordSize);
    } catch (Cr_ErrnoException const&) {}
    return true;
}

Bytes Changed(Bytes bytes, Change const& change) {
    for (auto const& [offset, value] : change) {
        bytes.at(offset) = value;
    }
    return bytes;
}

// Makes each change once before each load.
void ExpectInside(Use use, Bytes const& record, std::vector<Change> const& changes) {
    unsigned long made = 0, escapes = 0;
    for (Change const& change : changes) {
        Bytes const after = Changed(record, change);
        unsigned long number = 0;
        do {
            escapes += StaysInside(use, record, ++number, after) ? 0 : 1;
        } while (loads == number);
        made += number - 1;
    }
    EXPECT_NE(made, 0u);
    EXPECT_EQ(escapes, 0u) << "of " << made << " changes lead outside";
}

bool IgnoreFinding(cr_finding_t const*, void*) {
    return true;
}

void Diagnose(unsigned char const* record, unsigned long size) {
    DORecordDiagnose(record, size, record[0] == 3 ? 0 : CR_DO_NETWORK_ORDER, IgnoreFinding, nullptr);
}

void Copy(unsigned char const* bytes, unsigned long size) {
    auto const record = DORecord::FromBuffer(bytes, size);
    EXPECT_EQ(DORecord::ValidateHeader(record->GetHeader(), record->GetHeaderSize(), 0), CR_STATUS_OK);
}

void Read(unsigned char const* bytes, unsigned long size) {
    crr_do record;
    crr_fault fault;
    static unsigned long volatile kept = 0;
    if (crr_do_open(&record, bytes, size, bytes[0] == 3 ? 0 : CRR_NETWORK_ORDER, &fault) != CRR_OK) {
        return;
    }
    for (std::uint32_t i = 0; i <= record.layout.segments; ++i) { // an index after the last gives zeros
        crr_segment const segment = crr_do_segment(&record, i);
        kept = kept + segment.offset + (segment.fingerprint ? segment.fingerprint[15] : 0);
    }
    for (std::uint32_t i = 0; i <= record.header.nudcid; ++i) {
        kept = kept + crr_do_unique_dcid(&record, i).bytes;
    }
    crr_reference reference;
    for (std::uint64_t at = 0; crr_do_next_reference(&record, &at, &reference) != 0;) {
        kept = kept + reference.id;
    }
}

void View(unsigned char const* record, unsigned long size) {
    DORecordView const view(record, size);
    unsigned long sum = 0;
    for (DOSegment const segment : view.Segments()) {
        sum += segment.fingerprint.data[15] + segment.size + segment.offset + segment.dcid;
    }
    for (DOUniqueDCID const entry : view.UniqueDCIDs()) {
        sum += entry.dcid + entry.bytes;
    }
    for (DOReference const reference : view.References()) {
        EXPECT_TRUE(reference.kind >= 0 && reference.kind < CR_REFTYPE_END);
    }
    for (unsigned int i = 0; view.GetBloom() && i < view.GetBSize(); ++i) {
        sum += view.GetBloom()[i];
    }
    static unsigned long volatile kept = 0;
    kept = kept + sum;
}

TEST(ChangingMemory, DORecordLoadsStayInside) {
    RecordValues referenced = Example(3, 0), legacy = Example(5, 3), bloom = Example(4, 1);
    referenced.references = bloom.references = {{4, 5}, {9, 1}};
    legacy.taskIds = {17};
    legacy.dsids = {5};
    for (auto const& [values, network] : {std::pair(referenced, false), {legacy, true}, {bloom, true}}) {
        SCOPED_TRACE(NameOf(values));
        auto const [bytes, entries, dcids, list, taskIds, dsids, references, tail] = Spell(values, network);
        std::vector<Change> changes{{{0, 4}},    {{0x4c, 0}}, {{0x4c, 3}}, {{0x4d, 0}},
                                    {{0x4d, 3}}, {{0x4d, 4}}, {{0x4d, 9}}, {{references, 99}}};
        changes.push_back({{list + 4, 255}, {list + 7, 255}, {references, 2}});
        for (std::size_t const byte : {0ul, 3ul}) { // one of them is the highest
            Change counts;
            for (std::size_t const word : {0x04ul, 0x34ul, 0x38ul, 0x3cul, 0x40ul, 0x44ul, 0x48ul}) {
                counts.emplace_back(word + byte, 255);
            }
            changes.push_back(counts);
        }
        ExpectInside(Copy, bytes, changes);
        ExpectInside(View, bytes, changes);
        ExpectInside(Read, bytes, changes);
        ExpectInside(Diagnose, bytes, {changes.end() - 4, changes.end()}); // its notes load each byte of the tail
        ExpectInside([](auto* record, auto size) { CRRecordProbe(record, size); }, bytes, changes);
    }
}

void DiagnoseSegmentRecord(unsigned char const* record, unsigned long size) {
    SegmentRecordDiagnose(record, size, record[0] == 0 ? CR_SO_NETWORK_ORDER : 0, IgnoreFinding, nullptr);
}

void ReadSegmentRecord(unsigned char const* bytes, unsigned long size) {
    crr_so record;
    crr_fault fault;
    if (crr_so_open(&record, bytes, size, bytes[0] == 0 ? CRR_NETWORK_ORDER : 0, &fault) == CRR_OK) {
        crr_so_taskid(&record, 0);
        crr_so_taskid(&record, record.header.ntaskids);
        unsigned char const* const last = crr_so_fingerprint(&record, record.header.nfp - 1);
        EXPECT_TRUE(!last || last[record.width - 1] <= 255);
    }
}

void CopySegmentRecord(unsigned char const* bytes, unsigned long size) {
    auto const record = SORecord::FromBuffer(bytes, size);
    EXPECT_EQ(SegmentRecordValidate(record->GetHeader(), record->GetHeaderSize(), 0), CR_STATUS_OK);
}

TEST(ChangingMemory, SegmentRecordLoadsStayInside) {
    for (Shape const shape : kShapes) {
        for (Use const use : {DiagnoseSegmentRecord, CopySegmentRecord, ReadSegmentRecord}) {
            ExpectInside(
                use, Golden(shape),
                {{{1, 9}}, {{4, 255}, {12, 255}, {60, 255}}, {{7, 255}, {15, 255}, {63, 255}}, {{89, 3}}, {{89, 9}}});
        }
    }
}

template <unsigned char dotype>
void DiagnoseForm(unsigned char const* form, unsigned long size) {
    DORecordSerializedDiagnose(form, size, dotype, 1, 0, IgnoreFinding, nullptr);
}

template <unsigned char dotype>
void Parse(unsigned char const* form, unsigned long size) {
    DORecord record(dotype, 1, nullptr, 0, form, size, false);
    if (dotype == CR_DO_TYPE_BLOOM_FILTER) {
        EXPECT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    }
    EXPECT_EQ(DORecord::ValidateHeader(record.GetHeader(), record.GetHeaderSize(), 0), CR_STATUS_OK);
}

TEST(ChangingMemory, ExchangeFormLoadsStayInside) {
    // Sizes, counts, the length word, the list's count, a text and its NUL.
    std::vector<Change> const changes{
        {{7, 0}}, {{20, 255}, {28, 255}, {41, 255}}, {{23, 255}, {31, 255}, {44, 255}}, {{29, 'z'}, {60, 'a'}}};
    for (Use const use : {DiagnoseForm<3>, Parse<3>}) {
        ExpectInside(use, SpellForm(Example(3, 1), true), changes);
    }
    for (Use const use : {DiagnoseForm<4>, Parse<4>}) {
        ExpectInside(use, SpellForm(Example(4, 1), true), changes);
    }
}

int firstError;

void KeepFirstError(unsigned char const* record, unsigned long size) {
    firstError = 0;
    auto const keep = [](cr_finding_t const* finding, void*) {
        firstError = finding->severity == CR_FINDING_ERROR ? finding->code : 0;
        return false;
    };
    bool const valid = DORecordDiagnose(record, size, 0, keep, nullptr) == CR_STATUS_OK;
    EXPECT_EQ(valid, firstError == 0);
}

// A list whose sums break a rule is read again to find the segment. If it was mended meanwhile, the record is invalid
// nevertheless: the values that were read first broke a rule.
TEST(ChangingMemory, AMendedSegmentListIsInvalid) {
    for (auto const& [dotype, faulty, fault, mended] :
         {std::tuple(2, 80 + 16 + (kBig ? 0 : 3), CR_FINDING_SEGMENT_SIZE, CR_FINDING_SEGMENT_SUM),
          {3, 80 + 20 + (kBig ? 0 : 7), CR_FINDING_SEGMENT_OFFSET, CR_FINDING_SEGMENT_END}}) {
        Bytes const good = Spell(Example(static_cast<unsigned char>(dotype), 0)).bytes;
        Bytes const bad = Changed(good, {{faulty, 0x80}});
        std::set<int> errors;
        unsigned long number = 0;
        do {
            EXPECT_TRUE(StaysInside(KeepFirstError, bad, ++number, good));
            errors.insert(firstError);
        } while (loads == number);
        EXPECT_EQ(errors, (std::set<int>{0, fault, mended}));
    }
}

// A validator reports its first error to the trace, and no notes: it reads as much as without tracing.
TEST(ChangingMemory, ValidatorsSkipNotesWhenTracing) {
    Bytes const bytes = Spell(Example(3, 0)).bytes;
    unsigned long read[2] = {};
    for (int const trace : {0, 1}) {
        LogCapture const log(trace);
        auto const validate = [](auto* record, auto size) { DORecord::ValidateHeader(record, unsigned(size), 0); };
        EXPECT_TRUE(StaysInside(validate, bytes, 1000000, bytes));
        read[trace] = loads;
    }
    EXPECT_EQ(read[0], read[1]);
}

} // namespace
