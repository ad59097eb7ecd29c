#include "io/replacement.h"

#include "io/failure.h"
#include "io/file_facts.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <random>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

// Signals that end a process and are no fault of its own, but for the real-time ones, which nobody sends unasked. One
// that is ignored stays ignored.
constexpr int kEnders[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,   SIGPIPE, SIGALRM, SIGUSR1,
                           SIGUSR2, SIGXCPU, SIGPROF, SIGVTALRM, SIGPOLL, SIGPWR,  SIGSTKFLT};

// The temporary file as the signal handler knows it, in its folder; empty if there is none.
char unfinished[NAME_MAX + 1];
int unfinishedFolder = -1;

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

// A short name: the target's own name may be as long as names may be.
std::string RandomName() {
    std::random_device random;
    return fmt::format(".crrecord-{:08x}{:08x}.tmp", random(), random());
}

} // namespace

void RemoveUnfinishedOutput() noexcept {
    if (unfinished[0] != '\0') {
        ::unlinkat(unfinishedFolder, unfinished, 0);
    }
}

Replacement::Replacement(std::string path) : path_(std::move(path)) {}

Replacement::Replacement(std::string path, std::vector<std::string> const& inputs) : Replacement(std::move(path)) {
    OpenFolder();
    former_ = ::openat(folder_, base_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (former_ == -1 && errno == ENOENT) {
        CreateFor(ReadersOf(inputs));
        return;
    }
    struct stat former {};
    if (former_ == -1 || ::fstat(former_, &former) == -1) {
        throw Failure(ErrnoText(path_, "create"));
    }
    if (!S_ISREG(former.st_mode)) {
        throw Failure(path_ + (S_ISLNK(former.st_mode) ? ": is a symbolic link that leads to no file"
                                                       : ": is not a regular file"));
    }
    Create(former.st_mode & 0600);
    CopyAccess(former);
}

Replacement::~Replacement() {
    if (!temporary_.empty()) {
        ::unlinkat(folder_, temporary_.c_str(), 0);
        unfinished[0] = '\0';
    }
    for (int const file : {file_, former_, folder_}) {
        if (file != -1) {
            ::close(file);
        }
    }
}

// By its name only this once. A link that leads nowhere has no resolved name: the caller finds the link itself.
void Replacement::OpenFolder() {
    std::error_code missing;
    std::filesystem::path target = std::filesystem::canonical(path_, missing);
    if (missing) {
        target = path_;
    }
    std::string const folder = target.parent_path().string();
    base_ = target.filename().string();
    folder_ = ::open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder_ == -1) {
        throw Failure(ErrnoText(path_, "create"));
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
        file_ = ::openat(folder_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (file_ == -1 && errno == EEXIST);
    if (file_ == -1) {
        throw Failure(ErrnoText(path_, "create"));
    }
    RemoveWhenInterrupted(std::move(name));
}

bool Replacement::CreateUnnamed(mode_t mode) {
    file_ = ::openat(folder_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
    // Without /proc it could not get a name later.
    if (file_ != -1 && ::access(NameOf(file_).c_str(), F_OK) == -1) {
        ::close(std::exchange(file_, -1));
    }
    return file_ != -1;
}

// Where everybody may read the content the folder's default list holds, as for any new file. Otherwise the list could
// let in who may not read it, and so could the group, which the folder may determine.
void Replacement::CreateFor(Readers const& readers) {
    if (readers.groups.empty()) {
        Create(readers.mode);
        return;
    }
    Create(0600);
    struct stat made {};
    if (RemoveList() && ::fstat(file_, &made) == 0) {
        mode_t const umask = ::umask(077);
        ::umask(umask);
        // If this fails the mode stays narrower.
        [[maybe_unused]] int const done = ::fchmod(file_, readers.ModeFor(made.st_gid) & ~umask);
    }
}

// The owner first: the mode's rights are for the former file's owner and group.
void Replacement::CopyAccess(struct stat const& former) const {
    bool const sameOwner = ::fchown(file_, former.st_uid, former.st_gid) == 0;
    mode_t const kept = RemoveList() && sameOwner ? 0777 : 0700;
    // If this fails the mode stays narrower than the former one.
    [[maybe_unused]] int const done = ::fchmod(file_, PlainMode(former, former_) & kept);
}

// The new file may have got a list from its folder, with entries that a wider mode would bring into force.
// Returns: false if it still has one.
bool Replacement::RemoveList() const {
    return ::fremovexattr(file_, kAccessList) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
}

void Replacement::RemoveWhenInterrupted(std::string&& name) {
    unfinishedFolder = folder_;
    unfinished[name.copy(unfinished, sizeof unfinished - 1)] = '\0';
    temporary_ = std::move(name);
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
        result = ::linkat(AT_FDCWD, NameOf(file_).c_str(), folder_, name.c_str(), AT_SYMLINK_FOLLOW);
    } while (result == -1 && errno == EEXIST);
    if (result == -1) {
        throw Failure(ErrnoText(path_, "replace"));
    }
    RemoveWhenInterrupted(std::move(name));
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
    ThrowIfReplaced();
    if (::renameat(folder_, temporary_.c_str(), folder_, base_.c_str()) == -1) {
        throw Failure(ErrnoText(path_, "replace"));
    }
    unfinished[0] = '\0';
    temporary_.clear();
    SyncFolder();
}

// The new file has the former one's access, which must not become another file's.
void Replacement::ThrowIfReplaced() const {
    struct stat former {};
    struct stat now {};
    if (former_ != -1 &&
        (::fstat(former_, &former) == -1 || ::fstatat(folder_, base_.c_str(), &now, AT_SYMLINK_NOFOLLOW) == -1 ||
         now.st_dev != former.st_dev || now.st_ino != former.st_ino)) {
        throw Failure(path_ + ": was replaced or removed by another program meanwhile");
    }
}

// Some folders cannot be read, and some file systems cannot sync them: the file is complete anyway.
void Replacement::SyncFolder() const {
    int const folder = ::openat(folder_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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
