#include "io/replacement.h"

#include "io/failure.h"
#include "io/file_facts.h"

#include <climits>
#include <csignal>
#include <filesystem>
#include <random>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

// Signals that end a process and are no fault of its own, but for the real-time ones, which nobody sends unasked. One
// that is ignored stays ignored.
constexpr int kEnders[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,   SIGPIPE, SIGALRM, SIGUSR1,
                           SIGUSR2, SIGXCPU, SIGPROF, SIGVTALRM, SIGPOLL, SIGPWR,  SIGSTKFLT};

// The temporary file as the signal handler knows it; empty if there is none.
char unfinished[PATH_MAX];

extern "C" void RemoveUnfinished(int signal) {
    RemoveUnfinishedOutput();
    // Only now, or the same signal again would end the process before the file is gone. Takes effect when this returns.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

// Keeps them back while it lives: none comes between a file and the name that the handler knows.
class EndersHeldBack {
public:
    EndersHeldBack() {
        sigset_t enders;
        ::sigemptyset(&enders);
        for (int const signal : kEnders) {
            ::sigaddset(&enders, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &enders, &former_);
    }
    ~EndersHeldBack() { ::pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    EndersHeldBack(EndersHeldBack const&) = delete;
    EndersHeldBack& operator=(EndersHeldBack const&) = delete;

private:
    sigset_t former_;
};

// A name for a file that has none.
std::string PathOf(int file) {
    return fmt::format("/proc/self/fd/{}", file);
}

} // namespace

void RemoveUnfinishedOutput() noexcept {
    if (unfinished[0] != '\0') {
        ::unlink(unfinished);
    }
}

Replacement::Replacement(std::string path, std::vector<std::string> const& inputs)
    : path_(std::move(path)), target_(path_) {
    auto const former = FactsOf(path_, -1);
    if (former) {
        target_ = std::filesystem::canonical(path_).string();
    }
    folder_ = std::filesystem::path(target_).parent_path().string();
    Create(former ? former->st_mode & 0600 : ModeForContentOf(inputs));
    if (former) {
        CopyAccess(*former);
    }
}

Replacement::~Replacement() {
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
        unfinished[0] = '\0';
    }
    if (file_ != -1) {
        ::close(file_);
    }
}

void Replacement::Create(mode_t mode) {
    if (CreateUnnamed(mode)) {
        return;
    }
    EndersHeldBack const heldBack;
    std::string name;
    do {
        name = RandomName();
        file_ = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (file_ == -1 && errno == EEXIST);
    if (file_ == -1) {
        throw Failure(ErrnoText(path_, "create"));
    }
    RemoveWhenInterrupted(name);
}

bool Replacement::CreateUnnamed(mode_t mode) {
    file_ = ::open(folder_.empty() ? "." : folder_.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
    // Without /proc it could not get a name later.
    if (file_ != -1 && ::access(PathOf(file_).c_str(), F_OK) == -1) {
        ::close(std::exchange(file_, -1));
    }
    return file_ != -1;
}

// The owner first: the mode's rights are for the former file's owner and group. The new file may have got a list from
// its folder, with entries that the mode would bring into force.
void Replacement::CopyAccess(struct stat const& former) const {
    bool const sameOwner = ::fchown(file_, former.st_uid, former.st_gid) == 0;
    bool const noList = ::fremovexattr(file_, kAccessList) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
    mode_t const kept = sameOwner && noList ? 0777 : 0700;
    // If this fails the mode stays narrower than the former one.
    [[maybe_unused]] int const done = ::fchmod(file_, PlainMode(former, path_) & kept);
}

// A short name beside the target: the target's own name may be as long as names may be.
std::string Replacement::RandomName() const {
    std::random_device random;
    return (std::filesystem::path(folder_) / fmt::format(".crrecord-{:08x}{:08x}.tmp", random(), random())).string();
}

void Replacement::RemoveWhenInterrupted(std::string const& name) {
    temporary_ = name;
    unfinished[name.copy(unfinished, sizeof unfinished - 1)] = '\0';
    for (int const signal : kEnders) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = RemoveUnfinished;
            ::sigaction(signal, &action, nullptr);
        }
    }
}

void Replacement::Link() {
    EndersHeldBack const heldBack;
    std::string name;
    int result = 0;
    do {
        name = RandomName();
        result = ::linkat(AT_FDCWD, PathOf(file_).c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW);
    } while (result == -1 && errno == EEXIST);
    if (result == -1) {
        throw Failure(ErrnoText(path_, "replace"));
    }
    RemoveWhenInterrupted(name);
}

void Replacement::Commit() {
    if (::fsync(file_) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
    if (temporary_.empty()) {
        Link();
    }
    if (::close(std::exchange(file_, -1)) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
    if (::rename(temporary_.c_str(), target_.c_str()) == -1) {
        throw Failure(ErrnoText(path_, "replace"));
    }
    unfinished[0] = '\0';
    temporary_.clear();
    SyncFolder();
}

// Some folders cannot be read, and some file systems cannot sync them: the file is complete anyway.
void Replacement::SyncFolder() const {
    int const folder = ::open(folder_.empty() ? "." : folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder == -1) {
        return;
    }
    bool const failed = ::fsync(folder) == -1 && errno == EIO;
    ::close(folder);
    if (failed) {
        throw Failure(ErrnoText(path_, "write"));
    }
}

} // namespace crrecord::tool
