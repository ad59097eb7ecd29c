#include "io/record_index.h"

#include "io/record_heads.h"
#include "io/record_stream.h"

#include <cstring>

namespace crrecord::tool {

namespace {

class Indexer {
public:
    Indexer(std::string const& name, std::string const& path, std::uint64_t step)
        : path_(path), step_(step), input_(name, path, 0), size_(input_.ExpectedSize()), buffer_(kBuffer) {}

    std::vector<RecordPosition> Run() {
        while (at_.offset < size_) {
            recordSize_ = SizeOfRecord();
            if (recordSize_ == 0 && !PassDoubtful()) {
                break;
            }
            if (recordSize_ != 0) {
                at_ = {at_.offset + recordSize_, at_.number + 1};
                Mark();
            }
        }
        return std::move(marks_);
    }

private:
    static constexpr std::uint64_t kBuffer = 64UL * 1024;

    // Returns: the size of the present record, if its header leaves no doubt; otherwise 0.
    std::uint64_t SizeOfRecord() {
        auto const head = Head();
        cr_record_probe_t const probe = CRRecordProbe(head.data(), head.size());
        bool const isCertain = probe.kind != CR_RECORD_UNKNOWN && head.size() >= probe.head_size &&
                               probe.recorded_size == probe.counted_size && probe.recorded_size >= probe.head_size;
        return isCertain ? probe.recorded_size : 0;
    }

    // Returns: the first bytes of the present record, enough for its header unless the file ends.
    std::span<unsigned char const> Head() {
        std::uint64_t const need = std::min(kLargestHead, size_ - at_.offset);
        if (at_.offset < start_ || at_.offset + need > start_ + there_) {
            // After a large record, another one is likely, whose other bytes are not read.
            std::uint64_t const most = recordSize_ < kBuffer / 8 ? kBuffer : need;
            start_ = at_.offset;
            there_ = input_.ReadAt(std::span(buffer_).first(most), start_);
        }
        std::uint64_t const begin = at_.offset - start_;
        return std::span(buffer_).subspan(begin, std::min(need, there_ - std::min(begin, there_)));
    }

    // Reads from a record whose end is in doubt to the next mark, as everyone reads. So that many such records do not
    // take long, certain records after it are read as well. Returns: false at the end.
    bool PassDoubtful() {
        struct stat const& facts = input_.Facts();
        RecordStream stream({.name = input_.Name(),
                             .path = path_,
                             .offset = at_.offset,
                             .number = at_.number,
                             .size = size_,
                             .modified = facts.st_mtim.tv_sec * std::int64_t{1'000'000'000} + facts.st_mtim.tv_nsec});
        stream.ReportGapsTo([](Gap const&) {});
        stream.Next();
        while (Record const* const record = stream.Next()) {
            at_ = {record->offset, record->number};
            if (Mark()) {
                return true;
            }
        }
        return false;
    }

    // Returns: true if the present record starts a part.
    bool Mark() {
        if (at_.offset >= size_ || at_.offset - marks_.back().offset < step_) {
            return false;
        }
        marks_.push_back(at_);
        return true;
    }

    std::string const& path_;
    std::uint64_t step_;
    Input input_;
    std::uint64_t size_;
    std::vector<unsigned char> buffer_;
    std::uint64_t recordSize_ = 0; // of the last record; 0 if its end is in doubt
    std::uint64_t start_ = 0;      // of the buffer in the file
    std::uint64_t there_ = 0;      // bytes in the buffer
    RecordPosition at_{0, 1};
    std::vector<RecordPosition> marks_{at_};
};

} // namespace

std::vector<RecordPosition> IndexOf(std::string const& name, std::string const& path, std::uint64_t step) {
    return Indexer(name, path, step).Run();
}

} // namespace crrecord::tool
