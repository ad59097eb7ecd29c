// Typed references: the value in its two forms, its order, and the handles of one pool for all libraries.

#include <crrecord/tref.h>

#include "support/do_record.h"
#include "support/other_library.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

using Handle = boost::intrusive_ptr<Cr_TRef>;

struct DeleteReference {
    void operator()(_cr_tref_t* value) const { CRTRefDelete(&value); }
};
using Value = std::unique_ptr<_cr_tref_t, DeleteReference>;

Value NewValue(int kind, unsigned long id) {
    return Value(CRTRefNew(cr_reftype_t(kind), id));
}

struct Form {
    int kind;
    unsigned long id;
    char const* serialized;
    char const* text;
};

// In their order.
constexpr Form kForms[] = {
    {0, 0, "00080000000000000000", "ref0:0"},
    {1, ~0ul, "0108ffffffffffffffff", "ref1:18446744073709551615"},
    {2, 17, "02080000000000000011", "task:17"},
    {2, 0x0102030405060708, "02080102030405060708", "task:72623859790382856"},
    {3, 1, "03080000000000000001", "ref3:1"},
    {4, 5, "040400000005", "dsid:5"},
    {4, 0x01020304, "040401020304", "dsid:16909060"},
    {4, 0xffffffff, "0404ffffffff", "dsid:4294967295"},
    {6, 9, "06080000000000000009", "ref6:9"},
    {10, 1ul << 63, "0a088000000000000000", "ref10:9223372036854775808"},
};

TEST(TRef, HasTwoFormsThatReadBack) {
    for (Form const& form : kForms) {
        SCOPED_TRACE(form.text);
        Value const value = NewValue(form.kind, form.id);
        EXPECT_EQ(CRTRefGetType(value.get()), form.kind);
        EXPECT_EQ(CRTRefGetID(value.get()), form.id);
        EXPECT_EQ(CRTRefGetTaskID(value.get()), form.id);
        std::string const text = form.text;
        Bytes const expected[] = {Bytes(text.begin(), text.end()), FromHex(form.serialized)};
        for (int const number : {CR_TREF_TEXT, CR_TREF_SERIALIZED}) {
            Bytes const& bytes = expected[number];
            std::size_t const room = bytes.size() + (number == CR_TREF_TEXT);
            EXPECT_EQ(CRTRefSerializedSize(value.get(), number), room);
            for (std::size_t given = 0; given <= room; ++given) {
                Bytes written(given, 0xee);
                EXPECT_EQ(CRTRefSerialize(written.data(), given, value.get(), number), given < room ? 0 : bytes.size());
                Bytes whole = bytes;
                whole.resize(room);
                EXPECT_EQ(written, given < room ? Bytes(given, 0xee) : whole);
            }
            unsigned long consumed = 0;
            Value const read(CRTRefNewDeserialize(bytes.data(), bytes.size(), number, &consumed));
            ASSERT_TRUE(read);
            EXPECT_EQ(consumed, bytes.size());
            EXPECT_TRUE(CRTRefEqual(read.get(), value.get()));
            for (std::size_t cut = 0; number == CR_TREF_SERIALIZED && cut < bytes.size(); ++cut) {
                Bytes const part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut));
                consumed = 77;
                *__cr_errno_location() = CR_STATUS_OK;
                EXPECT_EQ(CRTRefNewDeserialize(part.data(), cut, number, &consumed), nullptr);
                EXPECT_TRUE(consumed == 0 && *__cr_errno_location() == CR_STATUS_CORRUPT_RECORD);
            }
        }
        char shown[CR_TREF_TEXT_SIZE];
        EXPECT_STREQ(CRTRefToString(shown, sizeof shown, value.get()), form.text);
        EXPECT_STREQ(CRTRefToString(shown, 4, value.get()), text.substr(0, 3).c_str());
    }
    char shown[5];
    EXPECT_STREQ(CRTRefToString(shown, sizeof shown, nullptr), "null");
}

TEST(TRef, RefusesWhatIsNone) {
    for (auto const& [kind, id] : {std::pair{-1, 1ul}, {11, 1ul}, {256, 1ul}, {4, 1ul << 32}}) {
        *__cr_errno_location() = CR_STATUS_OK;
        EXPECT_EQ(NewValue(kind, id), nullptr);
        EXPECT_EQ(*__cr_errno_location(), CR_STATUS_INVALID);
    }
    for (char const* const hex : {"0b080000000000000001", "ff080000000000000001", "04080000000000000001",
                                  "02040000000100000000", "02000000000000000000", "02ff0000000000000000"}) {
        Bytes const bytes = FromHex(hex);
        EXPECT_EQ(CRTRefNewDeserialize(bytes.data(), bytes.size(), CR_TREF_SERIALIZED, nullptr), nullptr) << hex;
    }
    for (char const* const text :
         {"",         ":",       "task",    "task:",   "task:-1",         "task:+1",
          "task: 1",  "task:01", "task:1 ", "Task:1",  "dsid:4294967296", "task:18446744073709551616",
          "ref11:1",  "ref2:1",  "ref4:1",  "ref06:1", "ref:1",           "ref-1:1",
          "ref6:1:2", "ref6:0x1"}) {
        EXPECT_EQ(CRTRefNewDeserialize(text, std::strlen(text), CR_TREF_TEXT, nullptr), nullptr) << text;
    }
    EXPECT_EQ(CRTRefNewDeserialize(nullptr, 10, CR_TREF_SERIALIZED, nullptr), nullptr);
    CRTRefDelete(nullptr);
}

TEST(TRef, IsOrderedByKindThenId) {
    for (Form const& a : kForms) {
        for (Form const& b : kForms) {
            Value const left = NewValue(a.kind, a.id), right = NewValue(b.kind, b.id);
            int const compared = CRTRefCompare(left.get(), right.get());
            EXPECT_EQ((compared > 0) - (compared < 0), (&a > &b) - (&a < &b)) << a.text << " " << b.text;
            EXPECT_EQ(CRTRefEqual(left.get(), right.get()) != 0, &a == &b);
            Handle const first(Cr_TRef::Factory(left.get())), second(Cr_TRef::Factory(right.get()));
            EXPECT_EQ(Cr_TRefComparator()(first, second), &a < &b);
        }
    }
}

TEST(TRefHandle, OwnsACopyAndGivesItsChunkBack) {
    Value const value = NewValue(6, 1);
    Handle handle(Cr_TRef::Factory(value.get()));
    EXPECT_NE(handle->Get(), value.get());
    EXPECT_TRUE(CRTRefEqual(handle->Get(), value.get()));
    Handle const second = handle;
    Cr_TRef const* const chunk = handle.get();
    handle.reset();
    EXPECT_EQ(CRTRefGetID(second->Get()), 1u); // held still
    handle = new Cr_TRef(5u);
    EXPECT_NE(handle.get(), chunk);
    EXPECT_EQ(CRTRefGetType(handle->Get()), CR_REFTYPE_DSID);
    Cr_TRef const* const freed = handle.get();
    handle.reset();
    handle = new Cr_TRef(5ul);
    EXPECT_EQ(handle.get(), freed);
    EXPECT_EQ(CRTRefGetType(handle->Get()), CR_REFTYPE_TASKID);
    EXPECT_EQ(Handle(Cr_TRef::Factory(nullptr))->Get(), nullptr);
}

TEST(TRefHandle, OfOneLibraryIsReleasedInAnother) {
    Cr_TRef* const theirs = OtherLibraryMakes(1);
    EXPECT_EQ(CRTRefGetTaskID(theirs->Get()), 1u);
    Handle(theirs).reset();
    Cr_TRef* const ours = new Cr_TRef(2ul);
    EXPECT_EQ(ours, theirs); // one pool
    OtherLibraryReleases(ours);
    EXPECT_EQ(OtherLibraryMakes(3), ours);
    OtherLibraryReleases(ours);
}

// They share nothing but the pool.
TEST(TRefHandle, ThreadsWithRecordsOfTheirOwn) {
    auto const work = [](unsigned int seed) {
        auto const record = Build(Example(3, 1));
        for (unsigned long i = 0; i < 2000; ++i) {
            record->AddTaskID(seed + i);
            record->AddDSID(seed);
            record->DelDSID(seed);
        }
        EXPECT_EQ(record->GetNTRefs(), 2000u);
        EXPECT_EQ(record->RemoveInactiveTaskIDs([](unsigned long id, void*) { return id % 2 ? 1 : 0; }, nullptr),
                  1000u);
        record->GetHeader();
    };
    std::thread first(work, 1), second(work, 1 << 20);
    first.join();
    second.join();
}

} // namespace
