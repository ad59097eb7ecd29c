#include "cluster/work_file.h"

#include "io/failure.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/stat.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

constexpr std::size_t kNameSize = 64;

// The last bytes of a file.
struct WorkFoot {
    static constexpr std::uint64_t kMark =
        0x0002'4b52'4f57'5243; // "CRWORK" and the version in the order of the machine

    std::uint64_t mark;
    std::uint64_t directory;
    std::uint32_t streams;
    std::uint32_t crc; // of the foot with 0 here
    char name[kNameSize];
};
static_assert(sizeof(WorkFoot) == 88);

std::uint32_t CrcOf(void const* bytes, std::size_t size) {
    return libdeflate_crc32(0, bytes, size);
}

} // namespace

WorkFileWriter::WorkFileWriter(WorkName name, std::uint32_t streams, std::size_t blockSize)
    : name_(std::move(name)), temporary_(name_.Path() + ".XXXXXX"), file_(::mkostemp(temporary_.data(), O_CLOEXEC)),
      blockSize_(blockSize), streams_(streams) {
    if (file_ == -1) {
        throw Failure(ErrnoText(name_.Path(), "create"));
    }
}

WorkFileWriter::~WorkFileWriter() {
    if (file_ != -1) {
        ::close(file_);
        ::unlink(temporary_.c_str());
    }
}

void WorkFileWriter::Append(std::uint32_t stream, std::span<unsigned char const> items) {
    Stream& to = streams_[stream];
    if (!to.buffer.empty() && to.buffer.size() + items.size() > blockSize_) {
        Flush(to);
    }
    if (to.buffer.empty()) {
        auto const* const previous = reinterpret_cast<unsigned char const*>(&to.last);
        to.buffer.assign(previous, previous + sizeof to.last);
    }
    to.buffer.insert(to.buffer.end(), items.begin(), items.end());
}

void WorkFileWriter::Flush(Stream& stream) {
    std::vector<unsigned char>& bytes = stream.buffer;
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw Failure(name_.Path() + ": an item is too large");
    }
    stream.last = {end_, static_cast<std::uint32_t>(bytes.size()), CrcOf(bytes.data(), bytes.size())};
    Write(bytes.data(), bytes.size());
    bytes.clear();
}

void WorkFileWriter::Write(void const* bytes, std::size_t size) {
    auto const* at = static_cast<unsigned char const*>(bytes);
    end_ += size;
    while (size != 0) {
        ssize_t const count = ::write(file_, at, size);
        if (count == -1 && errno != EINTR) {
            throw Failure(ErrnoText(name_.Path(), "write"));
        }
        std::size_t const written = count == -1 ? 0 : static_cast<std::size_t>(count);
        at += written;
        size -= written;
    }
}

void WorkFileWriter::Commit() {
    for (Stream& stream : streams_) {
        if (!stream.buffer.empty()) {
            Flush(stream);
        }
    }
    WorkFoot foot{WorkFoot::kMark, end_, static_cast<std::uint32_t>(streams_.size()), 0, {}};
    for (Stream const& stream : streams_) {
        Write(&stream.last, sizeof stream.last);
    }
    std::memcpy(foot.name, name_.name.data(), std::min(kNameSize, name_.name.size()));
    foot.crc = CrcOf(&foot, sizeof foot);
    Write(&foot, sizeof foot);
    if (::close(std::exchange(file_, -1)) == -1 || ::rename(temporary_.c_str(), name_.Path().c_str()) == -1) {
        std::string const reason = ErrnoText(name_.Path(), "write");
        ::unlink(temporary_.c_str());
        throw Failure(reason);
    }
}

WorkFile::WorkFile(WorkName name) : name_(std::move(name)), file_(::open(name_.Path().c_str(), O_RDONLY | O_CLOEXEC)) {
    if (file_ == -1) {
        throw Failure(ErrnoText(name_.Path(), "open"));
    }
    try {
        ReadFoot();
    } catch (...) {
        ::close(file_);
        throw;
    }
}

WorkFile::~WorkFile() {
    ::close(file_);
}

void WorkFile::ThrowDamaged() const {
    throw Failure(name_.Path() + ": is damaged: remove it and run again");
}

void WorkFile::ReadFoot() {
    struct stat facts {};
    if (::fstat(file_, &facts) == -1) {
        throw Failure(ErrnoText(name_.Path(), "read"));
    }
    auto const size = static_cast<std::uint64_t>(facts.st_size);
    WorkFoot foot{};
    if (!S_ISREG(facts.st_mode) || size < sizeof foot) {
        ThrowDamaged();
    }
    ReadAt(&foot, sizeof foot, size - sizeof foot);
    std::uint32_t const crc = std::exchange(foot.crc, 0);
    bool const isNamed = name_.name.size() == kNameSize && std::memcmp(foot.name, name_.name.data(), kNameSize) == 0;
    if (foot.mark != WorkFoot::kMark || crc != CrcOf(&foot, sizeof foot) || !isNamed || foot.directory > size ||
        size - foot.directory != sizeof foot + foot.streams * std::uint64_t{sizeof(WorkBlock)}) {
        ThrowDamaged();
    }
    directory_ = foot.directory;
    streams_ = foot.streams;
}

void WorkFile::ReadAt(void* to, std::size_t size, std::uint64_t offset) const {
    auto* at = static_cast<unsigned char*>(to);
    while (size != 0) {
        ssize_t const count = ::pread(file_, at, size, static_cast<off_t>(offset));
        if (count == -1 && errno != EINTR) {
            throw Failure(ErrnoText(name_.Path(), "read"));
        }
        if (count == 0) {
            ThrowDamaged();
        }
        std::size_t const read = count == -1 ? 0 : static_cast<std::size_t>(count);
        at += read;
        size -= read;
        offset += read;
    }
}

std::vector<WorkBlock> WorkFile::Blocks(std::uint32_t stream) const {
    if (stream >= streams_) {
        ThrowDamaged();
    }
    std::vector<WorkBlock> blocks;
    WorkBlock block;
    ReadAt(&block, sizeof block, directory_ + stream * std::uint64_t{sizeof block});
    // Each block ends before the next one starts, so that the chain ends.
    for (std::uint64_t end = directory_; block.offset != WorkBlock::kNone; end = blocks.back().offset) {
        if (block.size < sizeof block || block.offset > end || block.size > end - block.offset) {
            ThrowDamaged();
        }
        blocks.push_back(block);
        ReadAt(&block, sizeof block, block.offset);
    }
    if (block.size != 0 || block.crc != 0) {
        ThrowDamaged();
    }
    std::reverse(blocks.begin(), blocks.end());
    return blocks;
}

void WorkFile::ReadItems(WorkBlock const& block, void* items) const {
    WorkBlock previous;
    ReadAt(&previous, sizeof previous, block.offset);
    std::size_t const size = block.size - sizeof previous;
    ReadAt(items, size, block.offset + sizeof previous);
    if (libdeflate_crc32(CrcOf(&previous, sizeof previous), items, size) != block.crc) {
        ThrowDamaged();
    }
}

} // namespace crrecord::tool
