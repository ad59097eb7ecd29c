// A program that loads the library with dlopen, and whose allocations fail on demand.

#include <crrecord/status.h>
#include <crrecord/tref.h>

#include <gtest/gtest.h>

#include <barrier>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>

namespace {

thread_local bool noMemory = false;

} // namespace

// The C library's own, which it and the dynamic loader call by these names, too.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);

void* malloc(std::size_t size) {
    return noMemory ? (errno = ENOMEM, nullptr) : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    return noMemory ? (errno = ENOMEM, nullptr) : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    return noMemory ? (errno = ENOMEM, nullptr) : __libc_realloc(block, size);
}
}

namespace {

struct Library {
    void* handle = dlopen(CRRECORD_LIBRARY, RTLD_NOW);

    template <class Function>
    Function* Find(char const* name) const {
        return reinterpret_cast<Function*>(dlsym(handle, name));
    }
    decltype(&ErrorA) error = Find<decltype(ErrorA)>("_Z6ErrorA11cr_status_tPKcz");
    decltype(&CRLogSetSink) setSink =
        Find<decltype(CRLogSetSink)>("_Z12CRLogSetSinkPFv14cr_log_level_t11cr_status_tPKcPvES3_");
    decltype(&zebLogLastMessageA) lastMessage = Find<decltype(zebLogLastMessageA)>("_Z18zebLogLastMessageAv");
    decltype(&__cr_errno_location) lastStatus = Find<decltype(__cr_errno_location)>("_Z19__cr_errno_locationv");
    decltype(&CRTRefNew) makeReference = Find<decltype(CRTRefNew)>("_Z9CRTRefNew12cr_reftype_tm");
    decltype(&CRTRefGetID) idOf = Find<decltype(CRTRefGetID)>("_Z11CRTRefGetIDPK10_cr_tref_t");
};

// What a thread without memory observed.
struct Seen {
    int lines = 0;
    int status = -1;
    char last[Cr_ErrnoException::kMaxText + 1] = {};
};
thread_local Seen* seen;

void CountFull(cr_log_level_t, cr_status_t, char const* message, void*) {
    seen->lines += std::string_view(message) == "the message 7";
}

TEST(LoadedLibrary, LogsWithoutMemoryOnNewThreads) {
    Library const library;
    ASSERT_NE(library.handle, nullptr) << dlerror();
    library.setSink(CountFull, nullptr);
    // All at once, so that the library runs out of spare buffers. Again after they ended, which releases the buffers.
    for (int round = 0; round < 3; ++round) {
        constexpr int kThreads = 20;
        std::vector<Seen> all(kThreads);
        std::barrier logged(kThreads);
        std::vector<std::jthread> threads;
        for (Seen& mine : all) {
            threads.emplace_back([&] {
                seen = &mine;
                noMemory = true;
                mine.status = *library.lastStatus();
                library.error(CR_STATUS_NO_MEMORY, "the message %d", 7);
                logged.arrive_and_wait();
                std::strcpy(mine.last, library.lastMessage());
                noMemory = false;
            });
        }
        threads.clear();
        int kept = 0, notKept = 0;
        for (Seen const& mine : all) {
            EXPECT_EQ(std::pair(mine.lines, mine.status), std::pair(1, 0));
            kept += std::string_view(mine.last) == "the message 7";
            notKept +=
                std::string_view(mine.last) == "not enough memory to keep this thread's last message; the log has it";
        }
        EXPECT_EQ(std::pair(kept, notKept), std::pair(15, 5));
    }
    library.setSink(nullptr, nullptr);
}

TEST(LoadedLibrary, StaysUsableAfterDlclose) {
    Library const library;
    ASSERT_NE(library.handle, nullptr) << dlerror();
    _cr_tref_t const* const held = library.makeReference(CR_REFTYPE_TASKID, 17);
    EXPECT_EQ(dlclose(library.handle), 0);
    EXPECT_EQ(library.idOf(held), 17u);
}

} // namespace
