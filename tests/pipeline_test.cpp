// Pieces of work on several threads.

#include "io/pipeline.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

namespace {

using crrecord::tool::UsedBy;

struct Piece {
    unsigned long number = 0;
    unsigned long result = 0;
};

TEST(Pipeline, ProcessesPiecesOnceInOrderForAnyThreadCount) {
    for (unsigned int const threads : {1u, 2u, 7u}) {
        for (unsigned long const pieces : {0ul, 1ul, 1000ul, 1001ul}) {
            auto const usedBy = pieces % 2 == 0 ? UsedBy::AnyThread : UsedBy::CallingThread;
            std::vector<unsigned long> used, expected;
            crrecord::tool::Pipeline<Piece> pipeline(
                threads, [](Piece& piece) { piece.result = piece.number * piece.number; },
                [&](Piece& piece) { used.push_back(piece.result); }, usedBy);
            for (unsigned long i = 0; i < pieces; ++i) {
                pipeline.Next().number = i;
                pipeline.Submit();
                expected.push_back(i * i);
            }
            pipeline.Finish();
            EXPECT_EQ(used, expected);
        }
    }
}

TEST(Pipeline, WorksWhenNoThreadStarts) {
    pthread_attr_t former, huge;
    pthread_getattr_default_np(&former);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, 1ul << 60);
    pthread_setattr_default_np(&huge);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    unsigned long sum = 0;
    {
        crrecord::tool::Pipeline<Piece> pipeline(
            3, [](Piece& piece) { piece.result = piece.number; }, [&](Piece& piece) { sum += piece.result; });
        for (unsigned long i = 0; i < 100; ++i) {
            pipeline.Next().number = i;
            pipeline.Submit();
        }
        pipeline.Finish();
    }
    EXPECT_EQ(sum, 4950u);
    pthread_setattr_default_np(&former);
}

// An exception of one piece's work is thrown when that piece is due. Other pieces may be in work then.
TEST(Pipeline, RethrowsWhenThePieceIsDue) {
    for (auto const& how : {std::pair(1u, UsedBy::CallingThread), std::pair(3u, UsedBy::CallingThread),
                            std::pair(3u, UsedBy::AnyThread)}) {
        unsigned long used = 0;
        auto const run = [&] {
            crrecord::tool::Pipeline<Piece> pipeline(
                how.first,
                [](Piece& piece) {
                    if (piece.number % 20 == 19) {
                        throw std::runtime_error(std::to_string(piece.number));
                    }
                },
                [&](Piece&) { ++used; }, how.second);
            for (unsigned long i = 0; i < 1000; ++i) {
                pipeline.Next().number = i;
                pipeline.Submit();
            }
        };
        EXPECT_THROW(
            try { run(); } catch (std::runtime_error const& thrown) {
                EXPECT_STREQ(thrown.what(), "19");
                throw;
            },
            std::runtime_error);
        EXPECT_EQ(used, 19u);
    }
}

} // namespace
