#include "input.h"

#include "failure.h"

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::tool {

Input::Input(std::string name) : name_(std::move(name)), file_(STDIN_FILENO) {
    if (name_ != "-") {
        file_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (file_ == -1 || ::fstat(file_, &facts_) == -1) {
        throw InputFailure(ErrnoText(name_, "open"));
    }
}

Input::~Input() {
    if (file_ != STDIN_FILENO) {
        ::close(file_);
    }
}

std::size_t Input::Read(std::span<unsigned char> room) {
    ssize_t count = 0;
    do {
        count = ::read(file_, room.data(), room.size());
    } while (count == -1 && errno == EINTR);
    if (count == -1) {
        throw InputFailure(ErrnoText(name_, "read"));
    }
    return static_cast<std::size_t>(count);
}

std::uint64_t Input::ExpectedSize() const {
    return S_ISREG(facts_.st_mode) ? static_cast<std::uint64_t>(facts_.st_size) : 0;
}

bool Input::IsSameFileAs(std::string const& path) const {
    struct stat other {};
    return ::stat(path.c_str(), &other) == 0 && other.st_dev == facts_.st_dev && other.st_ino == facts_.st_ino;
}

} // namespace crrecord::tool
