// Rows of segments.

#include "columns/rows.h"

#include <algorithm>
#include <utility>

namespace crrecord::python::columns {

namespace {

constexpr unsigned int kFingerprintWidth = 32;

// Writes `count` numbers to consecutive places without alignment.
template <class Value, class Read>
void Fill(unsigned char* to, unsigned int count, Read read) {
    for (unsigned int i = 0; i < count; ++i) {
        Value const value = read(i);
        std::memcpy(to + std::size_t{i} * sizeof value, &value, sizeof value);
    }
}

template <unsigned int width>
void CopyFingerprints(unsigned char* to, unsigned int count, unsigned char const* from, unsigned int stride) {
    for (unsigned int i = 0; i < count; ++i, from += stride, to += kFingerprintWidth) {
        std::memcpy(to, from, width);
        std::memset(to + width, 0, kFingerprintWidth - width);
    }
}

class SegmentRows : public RowBuilder {
public:
    std::span<ColumnType const> Types() const noexcept override { return kTypes; }

private:
    bool Add(RecordReader& reader, Batch& batch) override {
        if (next_ == count_) {
            ReadRecord const* const record = reader.Step();
            if (record && record->object) {
                Use(*record);
            }
            return record || !reader.IsAtEnd();
        }
        // Few entries at a time: they stay in the cache from one column to the next.
        constexpr std::size_t kAtOnce = 256;
        std::size_t const most = std::min(kAtOnce, kBatchRows - batch.Rows());
        auto const rows = static_cast<unsigned int>(std::min<std::size_t>(count_ - next_, most));
        Append(batch, next_, rows);
        next_ += rows;
        return true;
    }

    void Use(ReadRecord const& record) {
        number_ = record.number;
        fptype_ = record.object->GetFPType();
        source_ = record.object->Segments().GetSource();
        next_ = 0;
        count_ = source_.count;
    }

    void Append(Batch& batch, unsigned int first, unsigned int rows) const {
        auto const add = [&](SegmentColumn column, bool areNull = false) {
            return batch.columns[column].AddRows(rows, areNull);
        };
        Fill<std::uint64_t>(add(kRecord), rows, [&](unsigned int) { return number_; });
        Fill<std::uint32_t>(add(kSegment), rows, [&](unsigned int i) { return first + i; });
        std::memset(add(kFPType), fptype_, rows);
        (source_.fingerprint == kFingerprintWidth
             ? CopyFingerprints<32>
             : CopyFingerprints<16>)(add(kFingerprint), rows, source_.Entry(first), source_.stride);
        bool const hasSizes = source_.sizeWidth != 0 || source_.check == ListCheck::Product;
        unsigned char* const sizes = add(kSize, !hasSizes);
        if (hasSizes) {
            Fill<std::uint64_t>(sizes, rows, [&](unsigned int i) { return source_.Size(first + i); });
        }
        unsigned char* const offsets = add(kOffset, source_.offsetWidth == 0);
        if (source_.offsetWidth != 0) {
            Fill<std::uint64_t>(offsets, rows, [&](unsigned int i) { return source_.Offset(first + i); });
        }
        std::memcpy(add(kDcid), source_.dcids + std::size_t{first} * 8, std::size_t{rows} * 8);
    }

    enum SegmentColumn { kRecord, kSegment, kFPType, kFingerprint, kSize, kOffset, kDcid, kColumns };

    static constexpr ColumnType kTypes[] = {
        {"record", Content::Number, 8},     {"segment", Content::Number, 4},
        {"fptype", Content::Number, 1},     {"fingerprint", Content::Bytes, kFingerprintWidth},
        {"size", Content::Number, 8, true}, {"offset", Content::Number, 8, true},
        {"dcid", Content::Number, 8}};
    static_assert(std::size(kTypes) == kColumns);

    // The record whose segments are being added, from next_ on.
    DOSegmentSource source_{};
    std::uint64_t number_ = 0;
    unsigned char fptype_ = 0;
    unsigned int next_ = 0;
    unsigned int count_ = 0;
};

} // namespace

std::shared_ptr<Batch const> RowBuilder::Next(RecordReader& reader) {
    constexpr std::size_t kMostSteps = 2 * kBatchRows;
    if (failure_) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
    if (hasEnded_) {
        return nullptr;
    }
    auto batch = std::make_shared<Batch>(Types());
    try {
        for (std::size_t step = 0; step < kMostSteps && !IsFull(*batch) && !hasEnded_; ++step) {
            hasEnded_ = !Add(reader, *batch);
        }
    } catch (Interrupted const&) {
        return batch;
    } catch (std::bad_alloc const&) {
        hasEnded_ = true;
        throw;
    } catch (...) {
        if (batch->Rows() == 0) {
            throw;
        }
        failure_ = std::current_exception();
    }
    return batch->Rows() != 0 || !hasEnded_ ? batch : nullptr;
}

std::unique_ptr<RowBuilder> MakeSegmentRows() {
    return std::make_unique<SegmentRows>();
}

} // namespace crrecord::python::columns
