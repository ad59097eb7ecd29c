#include "store/temporary_file.h"

#include "io/failure.h"
#include "io/signals.h"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

int OpenNamed(std::string const& folder) {
    EndersBlocked const blocked;
    std::string name = folder + "/.crrecord-XXXXXX";
    int const file = ::mkostemp(name.data(), O_CLOEXEC);
    if (file != -1) {
        ::unlink(name.c_str());
    }
    return file;
}

int Open(std::string const& folder) {
    int const file = ::open(folder.c_str(), O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    // Kernels and file systems that do not know the flag fail in different ways.
    return file != -1 ? file : OpenNamed(folder);
}

} // namespace

TemporaryFile::TemporaryFile(std::string folder) : folder_(std::move(folder)), file_(Open(folder_)) {
    if (file_ == -1) {
        throw Failure(ErrnoText(folder_, "create a temporary file"));
    }
}

TemporaryFile::~TemporaryFile() {
    ::close(file_);
}

void TemporaryFile::Write(std::span<unsigned char const> bytes, std::uint64_t at) const {
    while (!bytes.empty()) {
        ssize_t const count = ::pwrite(file_, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            throw Failure(ErrnoText(folder_, "write a temporary file"));
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        at += static_cast<std::uint64_t>(count);
    }
}

void TemporaryFile::Read(std::span<unsigned char> bytes, std::uint64_t at) const {
    while (!bytes.empty()) {
        ssize_t const count = ::pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            throw Failure(ErrnoText(folder_, "read a temporary file"));
        }
        if (count == 0) {
            throw Failure(folder_ + ": a temporary file is shorter than what was written to it");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        at += static_cast<std::uint64_t>(count);
    }
}

} // namespace crrecord::tool
