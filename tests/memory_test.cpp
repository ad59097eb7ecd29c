// What happens without memory, and what needs none.

#include <crrecord/SORecord.h>
#include <crrecord/fingerprint.h>

#include "support/fault.h"
#include "support/log_capture.h"
#include "support/segment_bytes.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <cerrno>
#include <cstring>

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

TEST(SORecord, LogsAllocationFailure) {
    LogCapture log;
    char const key[33] = {};
    EXPECT_EQ(fault::FailEach([&] { return fault::StatusOf([&] { SORecord(0, 64, 0, 0, key, 0, 0); }); }), 1u);
    EXPECT_EQ(log.Take(), "error 22: SORecord: memory allocation of 104 bytes failed!\n");
}

// Except the fetch and the thread's error queue, which OpenSSL allocates once.
TEST(Memory, FingerprintReportsAllocationFailureWithoutLeak) {
    for (unsigned int fptype = 0; fptype < 4; ++fptype) {
        crfp_context_t first;
        ASSERT_EQ(CRFPInitialize(&first, fptype), 0);
        ERR_raise(ERR_LIB_USER, 1);
        auto const start = [=] {
            crfp_context_t context;
            *__cr_errno_location() = CR_STATUS_OK;
            bool const opened = CRFPInitialize(&context, fptype) == 0;
            cr_status_t const status = *__cr_errno_location();
            EXPECT_EQ(CRFPAppend(&context, "x", 1) == 0, opened);
            return status;
        };
        EXPECT_GE(fault::FailEach(start), 1u);
        EXPECT_EQ(ERR_get_error(), ERR_PACK(ERR_LIB_USER, 0, 1));
        EXPECT_EQ(ERR_get_error(), 0u);
    }
}

} // namespace
