#include "io/input.h"

#include "io/failure.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

int OpenInput(std::string const& name) {
    return name == "-" ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
}

} // namespace

Input::Input(std::string name) : Input(name, OpenInput(name)) {}

Input::Input(std::string name, int file) : name_(std::move(name)), file_(file) {
    if (file_ == -1 || ::fstat(file_, &facts_) == -1) {
        throw InputFailure(ErrnoText(name_, "open"));
    }
}

Input::Input(std::string name, std::string const& path, std::uint64_t offset)
    : Input(std::move(name), ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    ThrowIfNotRegular();
    if (::lseek(file_, static_cast<off_t>(offset), SEEK_SET) == -1) {
        throw InputFailure(ErrnoText(name_, "read"));
    }
}

int Input::OpenIn(int folder, std::string const& name, int flags) {
    return ::openat(folder, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags);
}

Input::~Input() {
    if (file_ != STDIN_FILENO) {
        ::close(file_);
    }
}

std::size_t Input::Read(std::span<unsigned char> buffer) {
    // Bytes appended since the opening are not read: they may be this command's output, which would never end.
    if (auto const left = BytesLeft()) {
        buffer = buffer.first(std::min<std::uint64_t>(buffer.size(), *left));
    }
    ssize_t count = 0;
    do {
        count = ::read(file_, buffer.data(), buffer.size());
    } while (count == -1 && errno == EINTR);
    if (count == -1) {
        throw InputFailure(ErrnoText(name_, "read"));
    }
    if (count == 0) {
        ThrowIfChanged();
    }
    return static_cast<std::size_t>(count);
}

std::size_t Input::ReadAt(std::span<unsigned char> buffer, std::uint64_t offset) const {
    std::size_t done = 0;
    while (done != buffer.size()) {
        ssize_t const count =
            ::pread(file_, buffer.data() + done, buffer.size() - done, static_cast<off_t>(offset + done));
        if (count == -1 && errno != EINTR) {
            throw InputFailure(ErrnoText(name_, "read"));
        }
        if (count == 0) {
            break;
        }
        done += count == -1 ? 0 : static_cast<std::size_t>(count);
    }
    return done;
}

Extent Input::NextExtent(std::uint64_t most) const {
    // Files in /proc have content but the size 0.
    off_t const here = ExpectedSize() != 0 && file_ != STDIN_FILENO ? ::lseek(file_, 0, SEEK_CUR) : -1;
    if (here == -1) {
        return {};
    }
    off_t data = ::lseek(file_, here, SEEK_DATA);
    bool const endsInHole = data == -1 && errno == ENXIO;
    if (endsInHole) {
        data = ::lseek(file_, 0, SEEK_END);
    }
    if (data == -1) {
        ::lseek(file_, here, SEEK_SET);
        return {};
    }
    auto const hole = static_cast<std::uint64_t>(std::max(data, here) - here);
    if (hole > most) {
        ::lseek(file_, here + static_cast<off_t>(most), SEEK_SET);
        return {most, 0};
    }
    off_t const end = endsInHole ? data : ::lseek(file_, data, SEEK_HOLE);
    ::lseek(file_, std::max(data, here), SEEK_SET);
    return end == -1 ? Extent{hole} : Extent{hole, static_cast<std::uint64_t>(end - data)};
}

void Input::ThrowIfNotRegular() const {
    if (!S_ISREG(facts_.st_mode)) {
        throw InputFailure(name_ + ": is not a regular file");
    }
}

bool Input::HasHole() const {
    off_t const hole = ::lseek(file_, 0, SEEK_HOLE);
    ::lseek(file_, 0, SEEK_SET);
    return hole != -1 && hole < facts_.st_size;
}

std::uint64_t Input::ExpectedSize() const {
    return S_ISREG(facts_.st_mode) ? static_cast<std::uint64_t>(facts_.st_size) : 0;
}

std::optional<std::uint64_t> Input::BytesLeft() const {
    off_t const here = ExpectedSize() != 0 ? ::lseek(file_, 0, SEEK_CUR) : -1;
    return here == -1 ? std::nullopt : std::optional<std::uint64_t>(std::max<off_t>(facts_.st_size - here, 0));
}

void Input::ThrowIfChanged() const {
    struct stat now {};
    if (S_ISREG(facts_.st_mode) &&
        (::fstat(file_, &now) == -1 || now.st_size != facts_.st_size || now.st_mtim.tv_sec != facts_.st_mtim.tv_sec ||
         now.st_mtim.tv_nsec != facts_.st_mtim.tv_nsec)) {
        throw InputFailure(name_ + ": file changed while it was read");
    }
}

} // namespace crrecord::tool
