// The buffer of a DO record: its modes and growth, its size, and what a failure leaves.

#include "support/clock.h"
#include "support/fault.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include <unistd.h>

namespace {

using Mode = OpenRecord::CopyMode;

constexpr char kMayNotCopy[] = "9: Need to expand the buffer of DORecord but I'm not allowed to copy it.";

auto const kPage = static_cast<unsigned int>(sysconf(_SC_PAGESIZE));

TEST(DORecordBuffer, GrowsByZeroedPagesAsItsModeAllows) {
    Bytes const bytes = Spell(Example(3, 3)).bytes;
    auto const size = static_cast<unsigned int>(bytes.size());
    for (Mode const mode : {Mode::Fixed, Mode::Borrowed, Mode::Own}) {
        SCOPED_TRACE(static_cast<int>(mode));
        bool const fixed = mode == Mode::Fixed;
        Bytes memory = bytes;
        auto const record = Build<OpenRecord>(Example(3, 3));
        mode == Mode::Own ? Hold(*record, bytes) : Borrow(*record, memory, mode);
        DORecordHeader* const before = record->header;
        record->expand();
        record->expand(0);
        std::string text;
        auto const grow = [&] { return text = Refusal([&] { record->expand(kPage); }), CR_STATUS_OK; };
        fault::Run(grow, fixed ? 0 : 1);
        EXPECT_EQ(text, fixed ? kMayNotCopy : "22: Not enough memory to expand a DO record.");
        EXPECT_EQ(std::pair(record->header, record->copyMode), std::pair(before, mode));
        EXPECT_EQ(Buffer(*record), bytes);

        void* volatile const dirty = std::memset(std::malloc(2 * kPage), 0xee, 2 * kPage);
        std::free(dirty); // the next growth is likely to get it
        for (auto const& [asked, pages] :
             {std::pair{size + 1, 1u}, {kPage, 1}, {kPage + 1, 2}, {kPage, 2}, {2 * kPage + 2, 3}}) {
            EXPECT_EQ(Refusal([&, to = asked] { record->expand(to); }), fixed ? kMayNotCopy : "");
            Bytes expected = bytes;
            expected.resize(fixed ? size : pages * kPage);
            EXPECT_EQ(Buffer(*record), expected);
            EXPECT_EQ(record->copyMode, fixed ? Mode::Fixed : Mode::Own);
            EXPECT_EQ(record->ownsBuffer, !fixed);
        }
        EXPECT_EQ(memory, bytes);          // which is still the caller's to free
        record->copyMode = Mode::Borrowed; // from a block that the record frees
        auto const move = [&] { return record->expand(4 * kPage), CR_STATUS_OK; };
        EXPECT_EQ(fault::Run(move, 0).live, fixed);
    }
}

// A fixed record accepts references while they fit in its memory. A rejected one changes nothing.
TEST(DORecordBuffer, FixedRecordRejectsReferencesThatDoNotFit) {
    RecordValues values = Example(5, 1);
    Bytes memory = Spell(values).bytes;
    memory.resize(memory.size() + 16, 0xee);
    auto const record = Build<OpenRecord>(values);
    Borrow(*record, memory, Mode::Fixed);
    values.mtime = test_clock::now;
    values.references = {{2, 1}, {4, 5}};
    EXPECT_EQ(record->AddTaskID(1), 0);
    record->AddSerializedTRefs("\4\4\0\0\0\5", 6);
    ++test_clock::now;
    EXPECT_EQ(Refusal([&] { record->AddTaskID(6); }), kMayNotCopy);
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\4\4\0\0\0\6", 6); }), kMayNotCopy);
    record->GetHeader();
    EXPECT_EQ(memory, Spell(values).bytes);
    EXPECT_EQ(record->GetNTRefs(), 2u);
    record->setRecSize(record->getRecSize() + 1);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kMayNotCopy); // also rejects a reference that is present
    record->setRecSize(0xffffffff - 10);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(7); }),
              kMayNotCopy); // not refused as too large: no larger size is possible
}

TEST(DORecordBuffer, RejectsSizesBeyond32Bits) {
    auto const record = Build<OpenRecord>(Example(2, 1));
    record->header->nfp = 153391683; // 28 bytes each, with a list of 40 and 104 for header and tail
    EXPECT_EQ(record->calcRecSize(), 4294967268u);
    ++record->header->nfp;
    EXPECT_EQ(Refusal([&] { record->initReferenceSets(); }), kInvalidSize);
    record->header->nfp = 3;
    record->setRecSize(0xffffffff - 9);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\2\10\0\0\0\0\0\0\0\1", 10); }), kInvalidSize);
    EXPECT_EQ(std::tuple(record->getRecSize(), record->getTRefsSize(), record->GetNTRefs()),
              std::tuple(0xffffffff - 9, 0u, 0u));
    record->bufferSize = 5ul << 30; // no byte after the header is used
    record->setRecSize(104);
    record->setTRefsSize(0xffffffff - 9);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\2\10\0\0\0\0\0\0\0\1", 10); }), kInvalidSize);
    EXPECT_EQ(std::tuple(record->getRecSize(), record->getTRefsSize(), record->GetNTRefs()),
              std::tuple(104u, 0xffffffff - 9, 0u));
}

// A raw setter can make the section too small for the references.
TEST(DORecordBuffer, ReferencesAreWrittenIntoTheirSectionOnly) {
    auto const small = Build<OpenRecord>(Example(0, 1));
    small->AddTaskID(1);
    small->AddTaskID(2);
    small->setTRefsSize(10);
    Bytes written = Buffer(*small);
    auto const section =
        static_cast<std::ptrdiff_t>(reinterpret_cast<unsigned char const*>(DORecordHeaderStartTRefs(small->header)) -
                                    reinterpret_cast<unsigned char const*>(small->header));
    Bytes const first{2, 8, 0, 0, 0, 0, 0, 0, 0, 1};
    std::copy(first.begin(), first.end(), written.begin() + section);
    small->GetHeader();
    EXPECT_EQ(Buffer(*small), written); // the second reference is not in the section
}

// Raw setters can place sections outside of the buffer.
TEST(DORecordBuffer, RejectsSectionsOutsideItsBuffer) {
    using Break = void (*)(OpenRecord&);
    constexpr Break kBreaks[] = {
        [](OpenRecord& record) { record.header->nfp = ~0u; }, // the only one that conversions would follow too
        [](OpenRecord& record) { record.SetFPType(3); },
        [](OpenRecord& record) { record.setTRefsSize(~0u); },
        [](OpenRecord& record) { record.header->nudcid = ~0u; },
        [](OpenRecord& record) { record.header->ntaskid = ~0u; },
        [](OpenRecord& record) { record.header->nds = ~0u; },
    };
    for (Break const& make : kBreaks) {
        SCOPED_TRACE(&make - kBreaks);
        RecordValues values = Example(2, 1);
        values.references = {{2, 1}};
        auto const record = Build<OpenRecord>(values);
        record->AddTaskID(1);
        Hold(*record, Spell(values).bytes);
        make(*record);
        Bytes const before = Buffer(*record);
        EXPECT_EQ(Refusal([&] { record->AddTaskID(2); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\4\4\0\0\0\6", 6); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->GetHeader(); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->HostToNetwork(1); }), make == kBreaks[0] ? kInvalidSize : "");
        if (make == kBreaks[0]) {
            EXPECT_EQ(Buffer(*record), before);
        }
    }
    auto const none = Build<OpenRecord>(Example(2, 1));
    none->cleanupConstruction();
    EXPECT_EQ(Refusal([&] { none->AddTaskID(1); }), kInvalidSize);
    for (bool const binary : {false, true}) {
        std::ostringstream stream;
        EXPECT_EQ(Refusal([&] { none->ToStream(stream, binary); }), kInvalidSize);
    }
    auto const cut = Build<OpenRecord>(Example(2, 1));
    cut->bufferSize = 80 + 28 * cut->GetNfp() + 8; // with the list's count, the last number that a conversion swaps
    EXPECT_EQ(Refusal([&] { cut->HostToNetwork(0); }), "");
    --cut->bufferSize;
    EXPECT_EQ(Refusal([&] { cut->NetworkToHost(0); }), kInvalidSize);
}

} // namespace
