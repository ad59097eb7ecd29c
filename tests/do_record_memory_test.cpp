// DORecord without memory: each allocation fails in turn, and what was there stays as it was.

#include "support/fault.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <array>
#include <new>

namespace {

// The status that `make` ends with; a failed operator new throws its own exception.
template <class Make>
cr_status_t StatusOf(Make make) {
    try {
        make();
        return CR_STATUS_OK;
    } catch (Cr_ErrnoException const& caught) {
        return caught.GetStatus();
    } catch (std::bad_alloc const&) {
        return CR_STATUS_NO_MEMORY;
    }
}

TEST(DORecordMemory, ConstructionFailsWhole) {
    RecordValues const values = Example(3, 3), bloom = Example(4, 3);
    Bytes const entries = SpellEntries(values, false), form = SpellForm(values, true),
                bloomForm = SpellForm(bloom, true);
    std::array<unsigned long, 3> const ids{64, 65, 64};
    auto const segments = [&] { DORecord(1, values.size, 3, 4, 5, 6, entries.data(), 3, ids.data(), nullptr, 3, 3); };
    auto const bitmap = [&] { DORecord(1, 2, 3, 4, 5, 6, 5, bloom.bitmap.data(), nullptr, 3, 4); };
    auto const received = [&] { DORecord(3, 3, nullptr, 0, form.data(), form.size(), false); };
    auto const receivedBloom = [&] { DORecord(4, 3, nullptr, 0, bloomForm.data(), bloomForm.size(), false); };
    auto const withTasks = [&] {
        OpenRecord record(1, 2, 3, 4, 5, 6, nullptr, 0, nullptr, nullptr, 3, 4);
        record.init(1, values.size, 0, 0, 0, 0, ids.data(), 3, entries.data(), 3, ids.data(), nullptr, 3, 3);
    };
    EXPECT_EQ(fault::FailEach([&] { return StatusOf(segments); }), 1u);
    EXPECT_EQ(fault::FailEach([&] { return StatusOf(bitmap); }), 1u);
    EXPECT_EQ(fault::FailEach([&] { return StatusOf(received); }), 1u);
    EXPECT_EQ(fault::FailEach([&] { return StatusOf(receivedBloom); }), 1u);
    withTasks();                                                         // the pool of the handles keeps its chunks
    EXPECT_GE(fault::FailEach([&] { return StatusOf(withTasks); }), 5u); // of each reference a value and a set's node
}

// The largest bitmap whose record fits is asked for, and no larger one.
TEST(DORecordMemory, LargestRecord) {
    unsigned char const bitmap = 0;
    for (auto const& [bsize, expected] : {std::pair{0xffffffff - 104, "22: Not enough memory to create DORecord."},
                                          {0xffffffff - 103, "9: invalid record size for DO"}}) {
        char seen[64] = {};
        auto const attempt = [&, size = bsize] {
            try {
                DORecord(1, 2, 3, 4, 5, 6, size, &bitmap, nullptr, 0, 4);
            } catch (Cr_ErrnoException const& caught) {
                std::snprintf(seen, sizeof seen, "%d: %s", int{caught.GetStatus()}, caught.what());
            }
            return CR_STATUS_OK;
        };
        fault::Run(attempt, 1);
        EXPECT_STREQ(seen, expected);
    }
}

TEST(DORecordMemory, SerializersLogAndGiveNull) {
    struct Row {
        unsigned char dotype;
        cr_status_t (DORecord::*serialize)(void**, unsigned long*, bool) const;
        std::string trace, size;
    };
    for (Row const& row : {Row{3, &DORecord::Serialize, "Serialize", "188"},
                           Row{4, &DORecord::Serialize, "SerializeBloomFilterDO", "77"},
                           Row{4, &DORecord::SerializeBloomFilterDO, "SerializeBloomFilterDO", "77"}}) {
        auto const record = Build(Example(row.dotype, 0));
        void* out = &out;
        unsigned long length = 7;
        LogCapture log(1);
        auto const outcome = fault::Run([&] { return ((*record).*row.serialize)(&out, &length, true); }, 1);
        EXPECT_TRUE(outcome.status == CR_STATUS_NO_MEMORY && outcome.live == 0 && !out && length == 7);
        std::string const lines = log.Take();
        EXPECT_TRUE(lines.starts_with("trace 0: " + row.trace + " (DORecord/serialization.cpp:")) << lines;
        EXPECT_TRUE(lines.ends_with("error 22: Could not serialize DO: malloc failed for " + row.size + " bytes (" +
                                    CRStatusToStringA(CR_STATUS_NO_MEMORY) + ")\n"))
            << lines;
    }
}

// Whatever fails, the record is as before; a bloom record's length word stays turned. Scratch memory may be done
// without.
TEST(DORecordMemory, UniqueListLeavesTheRecordAlone) {
    LogCapture log;
    for (RecordValues values : {Example(2, 0), Example(4, 0)}) {
        bool const bloom = values.dotype == 4;
        if (!bloom) {
            values.list.clear();
        }
        unsigned long failures = 0;
        for (unsigned long number = 1;; ++number) {
            auto const record = Build<OpenRecord>(values);
            Bytes expected = Buffer(*record);
            auto const outcome = fault::Run([&] { return record->AppendBloomAndUniqueDCIDList(); }, number);
            if (outcome.status == CR_STATUS_OK) {
                EXPECT_EQ(record->GetNudcid(), bloom ? 1u : 2u);
                if (outcome.attempts < number) {
                    break;
                }
                continue;
            }
            ++failures;
            EXPECT_EQ(outcome.status, CR_STATUS_NO_MEMORY);
            EXPECT_EQ(outcome.live, 0);
            if (bloom) {
                Splice(expected, 80, Spelled(5, 4, true));
            }
            EXPECT_EQ(Buffer(*record), expected);
        }
        EXPECT_GE(failures, bloom ? 1u : 2u);
    }
    EXPECT_EQ(log.Take(), "");
}

TEST(DORecordMemory, SizeListReportsIt) {
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
}

// Of a single segment: what hashing needs is tested with the fingerprints.
TEST(DORecordMemory, DigestReportsIt) {
    RecordValues one = Example(2, 0);
    one.segments.resize(1);
    one.size = one.segments[0].size;
    auto const record = Build(one);
    char seen[100] = {};
    auto const attempt = [&] {
        try {
            record->GetDigest();
        } catch (Cr_ErrnoException const& caught) {
            std::snprintf(seen, sizeof seen, "%d: %s", int{caught.GetStatus()}, caught.what());
        }
        return CR_STATUS_OK;
    };
    fault::Run(attempt, 1);
    EXPECT_STREQ(seen, "22: Couldn't allocate enough memory to store the digest of a DORecord");
}

TEST(DORecordMemory, LoadingLeavesTheBytesAlone) {
    RecordValues values = Example(5, 1);
    values.references = {{9, 1}, {2, 17}, {2, 17}, {4, 3}};
    for (bool const network : {false, true}) {
        Bytes const stored = Spell(values, network).bytes;
        DORecord::FromBuffer(stored.data(), stored.size()); // the pool of the handles keeps its chunks
        EXPECT_GE(
            fault::FailEach([&] { return StatusOf([&] { DORecord::FromBuffer(stored.data(), stored.size()); }); }), 5u);
        for (unsigned long number = 1;; ++number) {
            Bytes memory = stored;
            auto const wrap = [&] {
                return StatusOf([&] { DORecord::Wrap(memory.data(), memory.size(), memory.size(), true); });
            };
            auto const outcome = fault::Run(wrap, number);
            EXPECT_EQ(outcome.live, 0);
            if (outcome.status == CR_STATUS_OK) {
                EXPECT_GE(number, 5u);
                break;
            }
            EXPECT_EQ(outcome.status, CR_STATUS_NO_MEMORY);
            EXPECT_EQ(memory, stored);
        }
    }
}

} // namespace
