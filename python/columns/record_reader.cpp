#include "columns/record_reader.h"

#include "SOmarshall/layout.h"
#include "diagnosis.h"
#include "doubtful_record.h"
#include "segment_fields.h"

#include <crrecord/probe.h>

#include <cstdio>
#include <limits>

namespace crrecord::python::columns {

namespace {

constexpr std::size_t kMostDoubtful = 64UL << 20; // bytes read of a file for the end of a doubtful record
constexpr std::size_t kHeadSize = 96;             // the larger of the heads that CRRecordProbe asks for

} // namespace

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

BadRecord RecordReader::Bad(std::string const& reason, std::size_t size) {
    std::string const& path = (*sources_)[source_].path;
    std::string const source = path.empty() ? "source " + std::to_string(source_) : path;
    BadRecord bad{source + ": record " + std::to_string(number_), reason, position_, {}};
    if (!options_.skipsBad) {
        std::span<unsigned char const> const bytes = Peek(size != 0 ? size : kHeadSize);
        std::size_t const there = size != 0 ? std::min(size, bytes.size()) : bytes.size();
        bad.findings = DiagnoseBytes(bytes.first(there), {.subDO = options_.subDO}).findings;
    }
    return bad;
}

void RecordReader::Read(std::span<unsigned char const> head, std::size_t& size) {
    cr_record_probe_t const probe = CRRecordProbe(head.data(), head.size());
    if (probe.kind == CR_RECORD_UNKNOWN) {
        throw std::string("unknown kind");
    }
    if (head.size() < probe.head_size) {
        throw std::string("the source ends within it");
    }
    if (probe.recorded_size != probe.counted_size) {
        std::size_t const most = file_ ? kMostDoubtful : std::numeric_limits<std::size_t>::max();
        size = SizeOfDoubtful(probe, most, [this](std::size_t least) { return Peek(least); });
        throw "size " + std::to_string(probe.recorded_size) + ", but its counts give " +
            std::to_string(probe.counted_size);
    }
    std::span<unsigned char const> const bytes = Peek(probe.recorded_size);
    if (bytes.size() < probe.recorded_size) {
        throw std::string("the source ends within it");
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
        throw std::string(reason);
    }
    record_.segment = segment::ReadHeader(copy_.data());
    if (record_.networkOrder) {
        record_.segment = ToHost(record_.segment);
    }
    record_.segmentBytes = copy_.data();
}

ReadRecord const* RecordReader::Step() {
    if (IsAtEnd()) {
        return nullptr;
    }
    std::size_t size = 0; // 0 while it is unknown
    std::optional<std::string> reason;
    try {
        Source const& source = (*sources_)[source_];
        if (!source.buffer && !file_) {
            file_.emplace(source.path);
        }
        std::span<unsigned char const> const head = Peek(kHeadSize);
        if (head.empty()) {
            NextSource();
            return nullptr;
        }
        Read(head, size);
        Advance(size);
        return &record_;
    } catch (std::string const& thrown) {
        reason = thrown;
    } catch (Cr_ErrnoException const& thrown) {
        reason = thrown.what();
    } catch (ReadError const&) {
        NextSource();
        throw;
    }
    BadRecord const bad = Bad(*reason, size);
    ++skipped_;
    Advance(size);
    if (size == 0) {
        NextSource();
    }
    if (!options_.skipsBad) {
        throw bad;
    }
    return nullptr;
}

} // namespace crrecord::python::columns
