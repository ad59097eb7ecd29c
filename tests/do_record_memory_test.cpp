// DORecord without memory: texts and logs of failures, and what they leave.

#include "support/fault.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

// "22: text" of what the action throws if its first allocation fails. Allocates nothing itself.
std::string FirstFailure(std::function<void()> const& action) {
    char seen[100] = {};
    auto const attempt = [&] {
        try {
            action();
        } catch (Cr_ErrnoException const& caught) {
            std::snprintf(seen, sizeof seen, "%d: %s", int{caught.GetStatus()}, caught.what());
        }
        return CR_STATUS_OK;
    };
    fault::Run(attempt, 1);
    return seen;
}

TEST(DORecordMemory, BuildersAndDigestReportAllocationFailure) {
    unsigned char const bitmap = 0;
    auto const bloom = [&](unsigned int bsize) {
        return FirstFailure([&] { DORecord(1, 2, 3, 4, 5, 6, bsize, &bitmap, nullptr, 0, 4); });
    };
    // The largest bitmap whose record fits is allocated, and no larger one.
    EXPECT_EQ(bloom(0xffffffff - 104), "22: Not enough memory to create DORecord.");
    EXPECT_EQ(bloom(0xffffffff - 103), kInvalidSize);
    // Of a single segment, which needs no hashing.
    auto const record = Build({.dotype = 2, .segments = {{Bytes(16), 0, 0, 64}}});
    EXPECT_EQ(FirstFailure([&] { record->GetDigest(); }),
              "22: Couldn't allocate enough memory to store the digest of a DORecord");
}

TEST(DORecordMemory, SerializersLogAllocationFailure) {
    auto const refuses = [](unsigned char dotype, auto serialize, std::string const& trace, std::string const& size) {
        auto const record = Build(Example(dotype, 0));
        void* out = &out;
        unsigned long length = 7;
        LogCapture log(1);
        auto const outcome = fault::Run([&] { return ((*record).*serialize)(&out, &length, true); }, 1);
        EXPECT_EQ(std::tuple(outcome.status, outcome.live, out, length),
                  std::tuple(CR_STATUS_NO_MEMORY, 0, nullptr, 7));
        std::string const lines = log.Take();
        EXPECT_TRUE(lines.starts_with("trace 0: " + trace + " (DORecord/serialization.cpp:")) << lines;
        EXPECT_TRUE(lines.ends_with("error 22: Could not serialize DO: malloc failed for " + size + " bytes (" +
                                    CRStatusToStringA(CR_STATUS_NO_MEMORY) + ")\n"))
            << lines;
    };
    refuses(3, &DORecord::Serialize, "Serialize", "188");
    refuses(4, &DORecord::Serialize, "SerializeBloomFilterDO", "77");
    refuses(4, &DORecord::SerializeBloomFilterDO, "SerializeBloomFilterDO", "77");
}

// A failure changes only the length word of a bloom record, which stays byte-swapped. Scratch memory is optional.
TEST(DORecordMemory, BloomListFailureSwapsOnlyTheLengthWord) {
    LogCapture log;
    unsigned long failures = 0;
    for (unsigned long number = 1; number < 9; ++number) {
        auto const record = Build<OpenRecord>(Example(4, 0));
        Bytes expected = Buffer(*record);
        auto const outcome = fault::Run([&] { return record->AppendBloomAndUniqueDCIDList(); }, number);
        if (outcome.status != CR_STATUS_OK) {
            ++failures;
            EXPECT_EQ(std::pair(outcome.status, outcome.live), std::pair(CR_STATUS_NO_MEMORY, 0l));
            Splice(expected, 80, Spelled(5, 4, true));
            EXPECT_EQ(Buffer(*record), expected);
        }
    }
    EXPECT_GE(failures, 1u);
    EXPECT_EQ(log.Take(), "");
}

TEST(DORecordMemory, SizeListLogsAllocationFailure) {
    auto const record = Build(Example(3, 3));
    LogCapture log;
    auto const list = [&] {
        *__cr_errno_location() = CR_STATUS_OK;
        cr_dcid_size_map_t sizes{};
        cr_status_t const status = record->GetUDCIDSizeList(sizes);
        EXPECT_EQ(*__cr_errno_location(), status);
        return status;
    };
    EXPECT_EQ(fault::FailEach(list), 3u);
    std::string const line = "error 22: GetUDCIDSizeList: failed to construct SO info vector, out of memory.\n";
    EXPECT_EQ(log.Take(), line + line + line);
    // A sink that makes a failing call leaves another status.
    CRLogSetSink([](cr_log_level_t, cr_status_t, char const*, void*) { CRFPAppend(nullptr, nullptr, 0); }, nullptr);
    EXPECT_EQ(fault::Run(list, 1).status, CR_STATUS_NO_MEMORY);
}

// A copy of the sets would allocate a node for each reference.
TEST(DORecordMemory, ReloadDoesNotCopyTheReferenceSets) {
    auto const record = Build(Example(1, 0));
    for (unsigned long id = 0; id < 300; ++id) {
        record->AddTaskID(id);
    }
    auto const reload = [&] { return record->convertToTRefs(), CR_STATUS_OK; };
    EXPECT_LT(fault::Run(reload, 0).attempts, 30u);
    EXPECT_EQ(record->GetNtaskid(), 300u);
}

TEST(DORecordMemory, NodesOfReferencesComeInBlocksAndAreFreedWithTheLast) {
    auto const record = Build(Example(1, 0));
    auto const work = [&] {
        for (unsigned long id = 0; id < 1000; ++id) {
            record->AddTaskID(id);
        }
        record->RemoveAllTRefs();
        return CR_STATUS_OK;
    };
    work(); // the buffer and the pool keep what they take
    auto const outcome = fault::Run(work, 0);
    EXPECT_LT(outcome.attempts, 20u);
    EXPECT_EQ(outcome.live, 0);
}

// Only memory of one size is in the blocks, and a copy of a set needs none of them.
TEST(DORecordMemory, NodesServeOneSizeAndNoCopies) {
    using Allocator = DORecord::tref_set_t::allocator_type;
    auto nodes = std::make_unique<DOReferenceNodes>();
    DORecord::tref_set_t copy;
    {
        std::vector<Cr_TRefEntry, Allocator> handles{Allocator(*nodes)};
        DORecord::tref_set_t set{Allocator(*nodes)};
        for (unsigned long id = 0; id < 40; ++id) {
            handles.emplace_back(new Cr_TRef(id));
            set.insert(handles.back());
            handles.shrink_to_fit();
        }
        copy = set;
    }
    nodes.reset();
    EXPECT_EQ(CRTRefGetID((*copy.rbegin())->Get()), 39u);
}

// The pool allocates blocks of a few dozen chunks: chunks that are not returned make it allocate more.
TEST(DORecordMemory, ReturnsEveryChunkToThePool) {
    RecordValues values = Example(5, 1);
    // The first is shorter than the others, so that chunks are left over; one is dropped.
    values.references = {{4, 3}, {9, 1}, {2, 17}, {2, 17}};
    Bytes const stored = Spell(values, true).bytes;
    auto const work = [&] {
        auto const record = DORecord::FromBuffer(stored.data(), stored.size());
        record->AddTaskID(18);
        record->AddTaskID(18);
        record->OwnTRef(new Cr_TRef(CRTRefNew(CR_REFTYPE_DSID, 3)));
        record->DelDSID(3);
        return CR_STATUS_OK;
    };
    work();
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(fault::Run(work, 0).live, 0);
    }
}

} // namespace
