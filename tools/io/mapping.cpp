#include "io/mapping.h"

#include "io/failure.h"
#include "io/output.h"

#include <algorithm>
#include <csignal>
#include <mutex>

#include <sys/mman.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

Mapping* inUse = nullptr;

void Say(std::string_view text) noexcept {
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, text.data(), text.size());
}

} // namespace

// What the system sends where a page of a mapped file can't be had. Calls only what a signal handler may.
struct MappingFault {
    static void Handle(int, siginfo_t* facts, void*) {
        auto const* const at = static_cast<unsigned char const*>(facts->si_addr);
        for (Mapping const* mapping = inUse; mapping != nullptr; mapping = mapping->next_) {
            auto const bytes = mapping->bytes_;
            if (at >= bytes.data() && at < bytes.data() + bytes.size()) {
                Say("crrecord: ");
                Say(mapping->name_);
                Say(": cannot read: the file became shorter, or its disk fails\n");
                RemoveUnfinishedOutput();
                ::_exit(static_cast<int>(ExitCode::CouldNotWork));
            }
        }
        // Not of ours: the same fault comes again, and ends the command as it would have.
        ::signal(SIGBUS, SIG_DFL);
    }

    static void Await() {
        static std::once_flag once;
        std::call_once(once, [] {
            struct sigaction action {};
            action.sa_sigaction = Handle;
            action.sa_flags = SA_SIGINFO;
            ::sigaction(SIGBUS, &action, nullptr);
        });
    }
};

Mapping::Mapping(int file, std::uint64_t size, std::string name) : name_(Printable(name)) {
    // Of what is never changed no copy is kept, so nothing has to be reserved for it.
    void* const start =
        size == 0 ? MAP_FAILED : ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_NORESERVE, file, 0);
    if (start == MAP_FAILED) {
        return;
    }
    MappingFault::Await();
    bytes_ = {static_cast<unsigned char*>(start), size};
    next_ = std::exchange(inUse, this);
    MoveTo(0);
}

Mapping::~Mapping() {
    if (bytes_.empty()) {
        return;
    }
    Mapping** link = &inUse;
    while (*link != this) {
        link = &(*link)->next_;
    }
    *link = next_;
    ::munmap(bytes_.data(), bytes_.size());
}

void Mapping::MoveTo(std::uint64_t position) {
    static std::uint64_t const page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    std::uint64_t const start = position / page * page;
    // Advice: where it is not taken, only time is lost.
    ::madvise(bytes_.data() + dropped_, start - dropped_, MADV_DONTNEED);
    dropped_ = start;
#ifdef MADV_POPULATE_READ
    std::uint64_t const wanted = std::min(bytes_.size(), start + 2 * kWindow) / page * page;
    if (std::uint64_t const from = std::max(populated_, start); from < wanted) {
        ::madvise(bytes_.data() + from, wanted - from, MADV_POPULATE_READ);
        populated_ = wanted;
    }
#endif
}

} // namespace crrecord::tool
