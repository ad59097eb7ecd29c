#include "columns/record_reader.h"

#include "SOmarshall/layout.h"
#include "view.h"

#include <crrecord/probe.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::python::columns {

namespace {

constexpr std::size_t kReadSize = 4UL << 20;
constexpr std::size_t kMostDoubtful = 64UL << 20; // bytes read of a record whose size and counts disagree
constexpr std::size_t kHeadSize = 96;             // the larger of the heads that CRRecordProbe asks for

[[noreturn]] void ThrowErrno(std::string const& path) {
    int const number = errno;
    throw ReadError(number, path + ": " + std::strerror(number));
}

} // namespace

RecordReader::File::File(std::string const& path)
    : path_(path), descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) {
        ThrowErrno(path_);
    }
}

RecordReader::File::~File() {
    ::close(descriptor_);
}

std::span<unsigned char const> RecordReader::File::Peek(std::size_t least) {
    if (end_ - first_ < least) {
        std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(first_),
                  bytes_.begin() + static_cast<std::ptrdiff_t>(end_), bytes_.begin());
        end_ -= first_;
        first_ = 0;
        // Grows as bytes arrive: a size in a bad record takes no memory that the file does not fill.
        while (end_ < least) {
            if (end_ == bytes_.size()) {
                bytes_.resize(std::max(kReadSize, 2 * bytes_.size()));
            }
            ssize_t const got = ::read(descriptor_, bytes_.data() + end_, bytes_.size() - end_);
            if (got == 0) {
                break;
            }
            if (got < 0 && errno != EINTR) {
                ThrowErrno(path_);
            }
            end_ += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        }
    }
    return {bytes_.data() + first_, end_ - first_};
}

std::span<unsigned char const> RecordReader::Peek(std::size_t least) {
    if (file_) {
        return file_->Peek(least);
    }
    PinnedBuffer const& buffer = *(*sources_)[source_].buffer;
    return {buffer.Data() + position_, buffer.Size() - position_};
}

void RecordReader::Advance(std::size_t bytes) noexcept {
    position_ += bytes;
    ++number_;
    if (file_) {
        file_->Drop(bytes);
    }
}

void RecordReader::NextSource() noexcept {
    file_.reset();
    ++source_;
    position_ = 0;
}

BadRecord RecordReader::Bad(std::string const& reason) const {
    std::string const& path = (*sources_)[source_].path;
    std::string const source = path.empty() ? "source " + std::to_string(source_) : path;
    return {source + ": record " + std::to_string(number_), reason, position_};
}

// Returns: the bytes of a record whose size and counts disagree: up to the nearer end if a record starts there or the
// source ends there, otherwise up to the farther one; 0 if the source has neither, or only after kMostDoubtful.
std::size_t RecordReader::SizeOfDoubtful(std::size_t near, std::size_t far, std::size_t least) {
    if (near > kMostDoubtful) {
        return 0;
    }
    std::span<unsigned char const> const bytes = Peek(std::max(near, least) + 2);
    if (near >= least && bytes.size() >= near &&
        (bytes.size() == near || CRRecordProbe(bytes.data() + near, bytes.size() - near).kind != CR_RECORD_UNKNOWN)) {
        return near;
    }
    if (far <= kMostDoubtful && Peek(far).size() >= far) {
        return far;
    }
    return near >= least && bytes.size() >= near ? near : 0;
}

// Reads the record at the position. `size` becomes its size if its end is known, even if it throws.
// Throws: BadRecord; CR_STATUS_CORRUPT_RECORD with the first error.
void RecordReader::ReadNext(std::span<unsigned char const> head, std::size_t& size) {
    cr_record_probe_t const probe = CRRecordProbe(head.data(), head.size());
    if (probe.kind == CR_RECORD_UNKNOWN) {
        throw Bad("unknown kind");
    }
    if (head.size() < probe.head_size) {
        throw Bad("the source ends within it");
    }
    if (probe.recorded_size != probe.counted_size) {
        auto const [near, far] = std::minmax(probe.recorded_size, probe.counted_size);
        size = SizeOfDoubtful(near, far, probe.head_size);
        throw Bad("its size is " + std::to_string(probe.recorded_size) + ", but its counts give " +
                  std::to_string(probe.counted_size));
    }
    std::span<unsigned char const> const bytes = Peek(probe.recorded_size);
    if (bytes.size() < probe.recorded_size) {
        throw Bad("the source ends within it");
    }
    size = probe.recorded_size;
    record_.number = number_;
    record_.position = position_;
    record_.source = static_cast<std::uint32_t>(source_);
    record_.networkOrder = probe.network_order != 0;
    record_.object.reset();
    if (probe.kind == CR_RECORD_DO) {
        record_.object.emplace(bytes.data(), size, options_.subDO ? CR_DO_SUB_DO : 0);
    } else {
        ReadSegment(bytes.first(size));
    }
}

// Copies the record first: nobody changes it between its validation and its use.
void RecordReader::ReadSegment(std::span<unsigned char const> bytes) {
    copy_.assign(bytes.begin(), bytes.end());
    char reason[256] = "";
    auto const keepFirst = [](cr_finding_t const* finding, void* context) {
        std::snprintf(static_cast<char*>(context), sizeof reason, "%s", finding->message);
        return false;
    };
    if (SegmentRecordDiagnose(copy_.data(), copy_.size(), record_.networkOrder ? CR_SO_NETWORK_ORDER : 0, keepFirst,
                              reason) != CR_STATUS_OK) {
        throw Cr_ErrnoException(CR_STATUS_CORRUPT_RECORD, reason, nullptr);
    }
    record_.segment = segment::ReadHeader(copy_.data());
    if (record_.networkOrder) {
        record_.segment = ToHost(record_.segment);
    }
    record_.segmentBytes = copy_.data();
}

// Leaves a bad record: continues after it, or in the next source if `size` is 0.
void RecordReader::PassBad(std::size_t size) noexcept {
    ++skipped_;
    if (size != 0) {
        Advance(size);
    } else {
        ++number_;
        NextSource();
    }
}

ReadRecord const* RecordReader::Next() {
    for (;;) {
        if (source_ == sources_->size()) {
            return nullptr;
        }
        Source const& source = (*sources_)[source_];
        if (!source.buffer && !file_) {
            file_.emplace(source.path);
        }
        std::span<unsigned char const> const head = Peek(kHeadSize);
        if (head.empty()) {
            NextSource();
            continue;
        }
        std::size_t size = 0; // 0 while it is unknown
        std::optional<BadRecord> bad;
        try {
            ReadNext(head, size);
        } catch (BadRecord const& thrown) {
            bad = thrown;
        } catch (Cr_ErrnoException const& thrown) {
            bad = Bad(thrown.what());
        }
        if (!bad) {
            Advance(size);
            return &record_;
        }
        PassBad(size);
        if (!options_.skipsBad) {
            throw *bad;
        }
    }
}

} // namespace crrecord::python::columns
