#include "io/output.h"

#include "io/failure.h"
#include "io/progress.h"

#include <array>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <span>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

// Signals that end a process and are no fault of its own, but for the real-time ones, which nobody sends unasked. Where
// one is ignored it stays so.
constexpr int kEnders[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,   SIGPIPE, SIGALRM, SIGUSR1,
                           SIGUSR2, SIGXCPU, SIGPROF, SIGVTALRM, SIGPOLL, SIGPWR,  SIGSTKFLT};

// The temporary file as the signal handler knows it; empty where there is none.
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

void RemoveWhenInterrupted(std::string const& path) {
    unfinished[path.copy(unfinished, sizeof unfinished - 1)] = '\0';
    for (int const signal : kEnders) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = RemoveUnfinished;
            ::sigaction(signal, &action, nullptr);
        }
    }
}

// A short name of its own: beside a file whose name is as long as names may be, too.
std::string TemporaryBeside(std::string const& target, unsigned int attempt) {
    auto const folder = std::filesystem::path(target).parent_path();
    return (folder / fmt::format(".crrecord-{}-{}.tmp", ::getpid(), attempt)).string();
}

} // namespace

void RemoveUnfinishedOutput() noexcept {
    if (unfinished[0] != '\0') {
        ::unlink(unfinished);
    }
}

void Output::MakeReady() {
    if (terminal_ || file_ == STDERR_FILENO) {
        MakePrintable(std::span(buffer_.data(), buffer_.size()).subspan(ready_));
    }
    ready_ = buffer_.size();
}

void Output::WriteSequence(std::string_view sequence) {
    MakeReady();
    buffer_.append(sequence);
    ready_ = buffer_.size();
}

void Output::Paint(std::string_view text, Colour colour) {
    constexpr std::array<std::string_view, 4> kStarts{"\033[32m", "\033[33m", "\033[31m", "\033[1m"};
    if (!coloured_) {
        Write(text);
        return;
    }
    WriteSequence(kStarts.at(static_cast<std::size_t>(colour)));
    buffer_.append(text);
    WriteSequence("\033[0m");
    FlushWhenFull();
}

void Output::Flush() {
    MakeReady();
    ready_ = 0;
    if (terminal_) {
        Progress::Wipe();
    }
    for (std::string_view rest(buffer_.data(), buffer_.size()); !rest.empty();) {
        ssize_t const count = ::write(file_, rest.data(), rest.size());
        if (count >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            std::string const reason = ErrnoText(name_, "write");
            buffer_.clear();
            throw Failure(reason);
        }
    }
    flushed_ += buffer_.size();
    buffer_.clear();
}

OutputFile::OutputFile(std::string path)
    : path_(std::move(path)), target_(path_), file_(path_ == "-" ? STDOUT_FILENO : Open()),
      output_(file_, path_ == "-" ? "standard output" : path_) {}

int OutputFile::Open() {
    // A file that meets its size limit is an error like any other.
    ::signal(SIGXFSZ, SIG_IGN);
    struct stat former {};
    bool const exists = ::stat(path_.c_str(), &former) == 0;
    int file = -1;
    if (exists && !S_ISREG(former.st_mode)) {
        file = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        if (exists) {
            target_ = std::filesystem::canonical(path_).string();
        }
        EndersHeldBack const heldBack;
        unsigned int attempt = 0;
        do {
            temporary_ = TemporaryBeside(target_, attempt++);
            file = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        } while (file == -1 && errno == EEXIST);
        if (file != -1) {
            RemoveWhenInterrupted(temporary_);
        }
    }
    if (file == -1) {
        throw Failure(ErrnoText(path_, "create"));
    }
    if (!temporary_.empty() && exists) {
        // Where that is not allowed the new file has the mode of a new file.
        [[maybe_unused]] int const done = ::fchmod(file, former.st_mode & 07777);
    }
    return file;
}

OutputFile::~OutputFile() {
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
        unfinished[0] = '\0';
    }
    if (file_ != STDOUT_FILENO && file_ != -1) {
        ::close(file_);
    }
}

void OutputFile::Commit() {
    output_.Flush();
    if (file_ == STDOUT_FILENO) {
        return;
    }
    if (!temporary_.empty() && ::fsync(file_) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
    if (::close(std::exchange(file_, -1)) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
    if (!temporary_.empty()) {
        if (::rename(temporary_.c_str(), target_.c_str()) == -1) {
            throw Failure(ErrnoText(path_, "replace"));
        }
        unfinished[0] = '\0';
        temporary_.clear();
    }
}

} // namespace crrecord::tool
