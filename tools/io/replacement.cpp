#include "io/replacement.h"

#include "io/failure.h"
#include "io/file_facts.h"
#include "io/signals.h"

#include <algorithm>
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

// The temporary files for the signal handler; the name of a free slot is empty.
struct Unfinished {
    char name[NAME_MAX + 1];
    int folder;
};
Unfinished unfinished[Replacement::kMost];

extern "C" void RemoveUnfinished(int signal) {
    RemoveUnfinishedOutput();
    // After the removal: a second signal must not end the process before it. The signal is delivered when this returns.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

// A short name: a name made from the target's could be too long.
std::string RandomName() {
    std::random_device random;
    return fmt::format(".crrecord-{:08x}{:08x}.tmp", random(), random());
}

} // namespace

void RemoveUnfinishedOutput() noexcept {
    for (Unfinished const& file : unfinished) {
        if (file.name[0] != '\0') {
            ::unlinkat(file.folder, file.name, 0);
        }
    }
}

Replacement::Replacement(std::string path) : path_(std::move(path)) {}

Replacement::Replacement(std::string path, std::vector<std::string> const* inputs) : Replacement(std::move(path)) {
    OpenFolder();
    former_ = ::openat(folder_, base_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (former_ == -1 && errno == ENOENT) {
        inputs ? CreateFor(ReadersOf(*inputs)) : Create(0600);
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
        unfinished[slot_].name[0] = '\0';
    }
    for (int const file : {file_, former_, folder_}) {
        if (file != -1) {
            ::close(file);
        }
    }
}

// Uses the folder's name only once. A link to no file has no resolved name; the caller then finds the link itself.
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
    EndersBlocked const blocked;
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
    // Without /proc the file could not get a name later.
    if (file_ != -1 && ::access(NameOf(file_).c_str(), F_OK) == -1) {
        ::close(std::exchange(file_, -1));
    }
    return file_ != -1;
}

// If everyone may read the content, the folder's default access control list applies, as to any new file. Otherwise the
// list, or a group that the folder determines, could give access to users who may not read the inputs.
void Replacement::CreateFor(Readers const& readers) {
    if (readers.groups.empty()) {
        Create(readers.mode);
        return;
    }
    Create(0600);
    WidenFor(readers);
}

void Replacement::WidenFor(Readers const& readers) {
    struct stat made {};
    if (former_ == -1 && RemoveList() && ::fstat(file_, &made) == 0) {
        mode_t const umask = ::umask(077);
        ::umask(umask);
        // If this fails the mode stays narrower.
        [[maybe_unused]] int const done = ::fchmod(file_, readers.ModeFor(made.st_gid) & ~umask);
    }
}

// The owner first: the permissions are for the former file's owner and group.
void Replacement::CopyAccess(struct stat const& former) const {
    bool const sameOwner = ::fchown(file_, former.st_uid, former.st_gid) == 0;
    mode_t const kept = RemoveList() && sameOwner ? 0777 : 0700;
    // If this fails the mode stays narrower than the former one.
    [[maybe_unused]] int const done = ::fchmod(file_, PlainMode(former, former_) & kept);
}

// Removes the access control list that the folder may have given to the new file: a wider mode would activate its
// entries.
// Returns: false if the file still has a list.
bool Replacement::RemoveList() const {
    return ::fremovexattr(file_, kAccessList) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
}

void Replacement::RemoveWhenInterrupted(std::string&& name) {
    auto const isFree = [](Unfinished const& file) { return file.name[0] == '\0'; };
    auto const free = std::find_if(std::begin(unfinished), std::end(unfinished), isFree);
    if (free == std::end(unfinished)) {
        throw Failure(path_ + ": more than four output files at a time");
    }
    slot_ = static_cast<std::size_t>(free - std::begin(unfinished));
    free->folder = folder_;
    free->name[name.copy(free->name, sizeof free->name - 1)] = '\0';
    temporary_ = std::move(name);
    for (int const signal : kEnders) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = RemoveUnfinished;
            ::sigaction(signal, &action, nullptr);
        }
    }
}

bool Replacement::IsFile(struct stat const& facts) const {
    struct stat own {};
    auto const isSame = [&](int file) {
        return file != -1 && ::fstat(file, &own) == 0 && own.st_dev == facts.st_dev && own.st_ino == facts.st_ino;
    };
    return isSame(file_) || isSame(former_);
}

void Replacement::Sync() const {
    if (::fsync(file_) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
}

void Replacement::Link() {
    ThrowIfReplaced();
    if (!temporary_.empty()) {
        return;
    }
    EndersBlocked const blocked;
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

void Replacement::Publish() {
    if (::close(std::exchange(file_, -1)) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
    ThrowIfReplaced();
    if (::renameat(folder_, temporary_.c_str(), folder_, base_.c_str()) == -1) {
        throw Failure(ErrnoText(path_, "replace"));
    }
    unfinished[slot_].name[0] = '\0';
    temporary_.clear();
}

// The new file has the permissions of the former one and must not replace a different file.
void Replacement::ThrowIfReplaced() const {
    struct stat former {};
    struct stat now {};
    if (former_ != -1 &&
        (::fstat(former_, &former) == -1 || ::fstatat(folder_, base_.c_str(), &now, AT_SYMLINK_NOFOLLOW) == -1 ||
         now.st_dev != former.st_dev || now.st_ino != former.st_ino)) {
        throw Failure(path_ + ": was replaced or removed by another program meanwhile");
    }
}

// Some folders cannot be read, and some file systems cannot sync folders. The file is complete in any case.
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
