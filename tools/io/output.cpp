#include "io/output.h"

#include "io/failure.h"
#include "io/file_facts.h"
#include "io/progress.h"
#include "io/signals.h"

#include <array>
#include <csignal>
#include <cstring>
#include <span>

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

Output* beforeMessages = nullptr;

} // namespace

OutputBeforeMessages::OutputBeforeMessages(Output& out) {
    beforeMessages = &out;
}

OutputBeforeMessages::~OutputBeforeMessages() {
    beforeMessages = nullptr;
}

void Complain(std::string_view text) {
    if (beforeMessages) {
        beforeMessages->FlushLines();
    }
    auto const hidden = Progress::Hide();
    std::string const line = "crrecord: " + Printable(text) + "\n";
    // A failure cannot be reported: there is no output left.
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
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

void Output::FlushTo(std::uint64_t position) {
    if (position <= flushed_) {
        return;
    }
    MakeReady();
    std::size_t const size = position - flushed_;
    if (!whole_) {
        WriteToFile(size);
    } else if (size < kWrittenAlone || size != buffer_.size()) {
        whole_->WriteSequence({buffer_.data(), size});
        whole_->FlushWhenFull();
    } else {
        whole_->Flush();
        std::swap(buffer_, whole_->buffer_);
        whole_->ready_ = size;
        whole_->Flush();
        flushed_ += size;
        ready_ = 0;
        return;
    }
    RemoveFlushed(size);
}

void Output::FlushLines() {
    std::string_view const text(buffer_.data(), buffer_.size());
    FlushTo(flushed_ + text.rfind('\n') + 1);
}

void Output::RemoveFlushed(std::size_t size) {
    flushed_ += size;
    std::size_t const left = buffer_.size() - size;
    std::memmove(buffer_.data(), buffer_.data() + size, left);
    buffer_.resize(left);
    ready_ = left;
}

void Output::WriteToFile(std::size_t size) {
    auto const hidden = terminal_ ? Progress::Hide() : Progress::Hidden();
    for (std::string_view rest(buffer_.data(), size); !rest.empty();) {
        ssize_t const count = ::write(file_, rest.data(), rest.size());
        if (count >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            std::string const reason = ErrnoText(name_, "write");
            buffer_.clear();
            throw Failure(reason);
        }
    }
}

OutputFile::OutputFile(std::vector<std::string> const* inputs, std::string path)
    : path_(std::move(path)), file_(path_ == "-" ? STDOUT_FILENO : Open(inputs)),
      output_(file_, path_ == "-" ? "standard output" : path_) {}

int OutputFile::Open(std::vector<std::string> const* inputs) {
    // Reaching the file size limit is an error, not a signal.
    ::signal(SIGXFSZ, SIG_IGN);
    auto const former = FactsOf(path_, -1);
    if (!former || S_ISREG(former->st_mode)) {
        return replacement_.emplace(path_, inputs).File();
    }
    int const file = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    struct stat facts {};
    if (file == -1 || ::fstat(file, &facts) == -1) {
        throw Failure(ErrnoText(path_, "create"));
    }
    // A regular file, which another program may have created meanwhile, must not be overwritten in place.
    if (S_ISREG(facts.st_mode)) {
        ::close(file);
        throw Failure(path_ + ": was replaced by another program meanwhile");
    }
    return file;
}

OutputFile::~OutputFile() {
    if (!replacement_ && file_ != -1) {
        try {
            output_.Flush();       // the records before a failure
        } catch (Failure const&) { // the first failure is reported
        }
    }
    if (!replacement_ && file_ != STDOUT_FILENO && file_ != -1) {
        ::close(file_);
    }
}

void OutputFile::Abandon() {
    if (!replacement_) {
        output_.Flush();
    }
}

void OutputFile::WidenFor(Readers const& readers) {
    if (replacement_) {
        replacement_->WidenFor(readers);
    }
}

bool OutputFile::IsFile(struct stat const& facts) const {
    struct stat own {};
    return replacement_ ? replacement_->IsFile(facts)
                        : S_ISREG(facts.st_mode) && ::fstat(file_, &own) == 0 && own.st_dev == facts.st_dev &&
                              own.st_ino == facts.st_ino;
}

void OutputFile::CommitAll(std::initializer_list<OutputFile*> files) {
    for (OutputFile* const file : files) {
        if (file) {
            file->Finish();
        }
    }
    auto const forEach = [&files](auto step) {
        for (OutputFile* const file : files) {
            if (file && file->replacement_) {
                step(*file->replacement_);
            }
        }
    };
    EndersBlocked const blocked;
    forEach([](Replacement& replacement) { replacement.Link(); });
    forEach([](Replacement& replacement) { replacement.Publish(); });
    forEach([](Replacement const& replacement) { replacement.SyncFolder(); });
}

void OutputFile::Finish() {
    output_.Flush();
    if (replacement_) {
        replacement_->Sync();
    } else if (file_ != STDOUT_FILENO && ::close(std::exchange(file_, -1)) == -1) {
        throw Failure(ErrnoText(path_, "write"));
    }
}

} // namespace crrecord::tool
