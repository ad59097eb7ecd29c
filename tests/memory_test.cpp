// What happens without memory, and what needs none.

#include <crrecord/SORecord.h>

#include "support/fault.h"
#include "support/log_capture.h"
#include "support/segment_bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace {

TEST(Memory, ExceptionAllocatesOnlyItsObject) {
    std::stringstream const stream(std::string(2000, 'x'));
    auto const outcome = fault::Run(
        [&] {
            try {
                Cr_ErrnoException copy(Cr_ErrnoException(CR_STATUS_INVALID, "text", nullptr));
                copy = Cr_ErrnoException(CR_STATUS_INVALID, stream, "detail");
                throw copy;
            } catch (Cr_ErrnoException const& caught) {
                return caught.GetStatus();
            }
        },
        1, true);
    EXPECT_EQ(outcome.attempts, 0u);
    EXPECT_EQ(outcome.exceptions, 1u);
}

// The last size that fits 32 bits is allocated; the next is not, nor one whose product would wrap to 37.
TEST(Memory, SerializeReportsAllocationFailure) {
    struct {
        unsigned char fptype;
        unsigned int nfp;
        unsigned long attempts;
        std::string size;
    } const rows[] = {{3, 2, 1, "163"},
                      {1, 130'150'523, 1, "4294967292"},
                      {1, 130'150'524, 0, "4294967325"},
                      {3, 66'076'420, 0, "4294967333"}};
    for (auto const& row : rows) {
        Bytes bytes = Golden({false, row.fptype});
        RecordOf(bytes)->nfp = row.nfp;
        void* out = &bytes;
        unsigned long length = 77;
        LogCapture log(1);
        errno = EINVAL; // of an earlier call; the allocator sets no errno
        auto const outcome =
            fault::Run([&] { return SegmentRecordSerialize(RecordOf(bytes), &out, &length); }, 1, true);
        EXPECT_EQ(std::tuple(outcome.status, outcome.attempts, out, length),
                  std::tuple(CR_STATUS_NO_MEMORY, row.attempts, nullptr, 77))
            << row.size;
        EXPECT_EQ(log.Take(),
                  "trace 0: SegmentRecordSerialize (SOmarshall/serialize.cpp:350): error number 12 is status "
                  "22\nerror 22: Could not serialize SO: malloc failed for " +
                      row.size + " bytes (" + CRStatusToStringA(CR_STATUS_NO_MEMORY) + ")\n");
    }
}

TEST(Log, FreesTheMessageOfAnEndedThread) {
    LogCapture log;
    long const before = fault::LiveOfAllThreads();
    std::thread([] { ErrorA(CR_STATUS_INVALID, "text"); }).join();
    EXPECT_EQ(fault::LiveOfAllThreads(), before);
}

TEST(SORecord, LogsAllocationFailure) {
    LogCapture log;
    char const key[33] = {};
    EXPECT_EQ(fault::FailEach([&] { return fault::StatusOf([&] { SORecord(0, 64, 0, 0, key, 0, 0); }); }), 1u);
    EXPECT_EQ(log.Take(), "error 22: SORecord: memory allocation of 104 bytes failed!\n");
}

} // namespace
