// Statuses, the exception, the log and the trace.

#include <crrecord/SOmarshall.h>

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <thread>

namespace {

constexpr auto kOddStatus = static_cast<cr_status_t>(-2'000'000'000); // any 32-bit value passes

TEST(Status, NumbersArePinnedAndTextsDiffer) {
    std::vector<int> const statuses{CR_STATUS_OK,
                                    CR_STATUS_INVALID,
                                    CR_STATUS_NO_MEMORY,
                                    CR_STATUS_CORRUPT_RECORD,
                                    CR_STATUS_NULL_ARGUMENT,
                                    CR_STATUS_NOT_SUPPORTED,
                                    CR_STATUS_NOT_FOUND,
                                    CR_STATUS_CORRUPT_DATA,
                                    CR_STATUS_INVALID_FP_TYPE,
                                    CR_STATUS_INVALID_DO_TYPE};
    EXPECT_EQ(statuses, (std::vector<int>{0, 9, 22, 32, 65, 71, 72, 89, 111, 113}));
    std::set<std::string> texts{"", CRStatusToStringA(kOddStatus)};
    for (int const status : statuses) {
        EXPECT_TRUE(texts.insert(CRStatusToStringA(static_cast<cr_status_t>(status))).second) << status;
    }
}

TEST(Exception, CopiesAndTruncatesItsTexts) {
    for (unsigned long const length : {0ul, 255ul, 256ul, 1023ul, 1024ul, 5000ul}) {
        std::string text(length, 'x');
        auto stream = std::make_unique<std::stringstream>(text);
        Cr_ErrnoException const fixed(kOddStatus, text.c_str(), text.c_str());
        Cr_ErrnoException const composed(CR_STATUS_CORRUPT_DATA, *stream, nullptr);
        stream.reset();
        text.assign(length, '?');
        EXPECT_EQ(fixed.what(), std::string(std::min(length, 1023ul), 'x'));
        EXPECT_EQ(composed.what(), std::string(std::min(length, 1023ul), 'x'));
        EXPECT_EQ(fixed.GetDetail(), std::string(std::min(length, 255ul), 'x'));
        EXPECT_EQ(std::tuple(fixed.GetStatus(), composed.GetDetail()), std::tuple(kOddStatus, nullptr));
    }
    EXPECT_STREQ(Cr_ErrnoException(CR_STATUS_INVALID).what(), "");
    EXPECT_STREQ(Cr_ErrnoException(CR_STATUS_INVALID, static_cast<char*>(nullptr), nullptr).what(), "");
}

TEST(MapError, ReturnsNoMemoryAndTracesThePlace) {
    LogCapture log(1);
    errno = EAGAIN;
    EXPECT_EQ(_crMapError("Serialize", "DORecord", 320), CR_STATUS_NO_MEMORY);
    EXPECT_EQ(errno, EAGAIN);
    CRLogSetTrace(0);
    _crMapError("Serialize", "DORecord", 320);
    EXPECT_EQ(log.Take(), "trace 0: Serialize (DORecord:320): error number 11 is status 22\n");
}

TEST(Log, PassesFormattedTextToTheSink) {
    EXPECT_EQ(*__zeblog_trace_location(), 0);
    LogCapture log(1);
    EXPECT_EQ(*__zeblog_trace_location(), 1);
    errno = E2BIG;
    ErrorA(CR_STATUS_NOT_FOUND, "%s: %lu\n%x", "Name", 7ul, 0xabu);
    WarningA(kOddStatus, "%s, %s", zebLogLastMessageA(), zebLogLastMessageA());
    __TraceA("%s", "traced");
    EXPECT_EQ(log.Take(), "error 72: Name: 7\nab\nwarning -2000000000: Name: 7\nab, Name: 7\nab\ntrace 0: traced\n");
    EXPECT_STREQ(zebLogLastMessageA(), "Name: 7\nab, Name: 7\nab");
    ErrorA(CR_STATUS_INVALID, "%ls", L"\xd800"); // no character: printf fails and sets errno
    __TraceA("%ls", L"\xd800");
    EXPECT_EQ(errno, E2BIG);
}

TEST(Log, TruncatesLongMessagesVisibly) {
    for (unsigned long const length : {1022ul, 1023ul, 1024ul, 5000ul}) {
        LogCapture log;
        std::string const text(length, 'x'), kept = length <= 1023 ? text : std::string(1020, 'x') + "...";
        ErrorA(CR_STATUS_INVALID, "%s", text.c_str());
        __TraceA("%s", text.c_str());
        EXPECT_EQ(log.Take(), "error 9: " + kept + "\ntrace 0: " + kept + "\n");
        EXPECT_EQ(zebLogLastMessageA(), kept);
    }
}

// A lock held during the call would make this hang.
TEST(Log, SinkMaySetASinkAndLog) {
    std::string seen;
    auto const sink = [](cr_log_level_t, cr_status_t, char const* message, void* context) {
        static_cast<std::string*>(context)->append(message).append(", ").append(zebLogLastMessageA());
        LogCapture inner;
        WarningA(CR_STATUS_OK, "inner");
        static_cast<std::string*>(context)->append(", ").append(inner.Take());
    };
    CRLogSetSink(sink, &seen);
    ErrorA(CR_STATUS_INVALID, "outer"); // leaves the log with no sink
    EXPECT_EQ(seen, "outer, outer, warning 0: inner\n");
    EXPECT_STREQ(zebLogLastMessageA(), "outer");
}

TEST(LogDeathTest, ThrowingCallbacksTerminate) {
    auto const sink = [](cr_log_level_t, cr_status_t, char const*, void*) { throw 1; };
    EXPECT_DEATH((CRLogSetSink(sink, nullptr), ErrorA(CR_STATUS_INVALID, "text")), "terminate");
    auto const callback = [](cr_finding_t const*, void*) -> bool { throw 1; };
    EXPECT_DEATH(SegmentRecordDiagnose("", 0, 0, callback, nullptr), "terminate");
}

TEST(Log, WritesPlainLinesToStandardErrorByDefault) {
    testing::internal::CaptureStderr();
    ErrorA(CR_STATUS_NOT_FOUND, "a\nb\tc\x1b[1m\x7f\xc3\xa9 \x01\x1f~\xc2\x80\xc2\x9f\xc2\xa0\xc3\x9b\xc2");
    WarningA(kOddStatus, "%s", std::string(1023, 'x').c_str());
    __TraceA("traced");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "crrecord: error 72: a?b?c?[1m?\xc3\xa9 ??~????\xc2\xa0\xc3\x9b\xc2\ncrrecord: warning -2000000000: " +
                  std::string(1023, 'x') + "\ncrrecord: trace: traced\n");
}

// Lines, last message and last status: each thread has its own.
TEST(Log, KeepsMessageAndStatusPerThread) {
    auto const work = [](std::string const& mine) {
        EXPECT_STREQ(zebLogLastMessageA(), "");
        EXPECT_EQ(std::exchange(*__cr_errno_location(), CR_STATUS_INVALID), CR_STATUS_OK);
        for (int i = 0; i < 100; ++i) {
            ErrorA(CR_STATUS_INVALID, "%s", mine.c_str());
            EXPECT_EQ(zebLogLastMessageA(), mine);
        }
    };
    std::multiset<std::string> expected, seen;
    testing::internal::CaptureStderr();
    for (std::vector<std::jthread> threads; threads.size() < 8;) {
        std::string const text(1 + 140 * threads.size(), "abcdefgh"[threads.size()]);
        threads.emplace_back(work, text);
        for (int i = 0; i < 100; ++i) {
            expected.insert("crrecord: error 9: " + text);
        }
    }
    std::istringstream lines(testing::internal::GetCapturedStderr());
    for (std::string line; std::getline(lines, line);) {
        seen.insert(line);
    }
    EXPECT_EQ(seen, expected);
}

} // namespace
