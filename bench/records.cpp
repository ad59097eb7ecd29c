// Whole records: building, exchange forms, byte order, checks.

#include "sides.h"

#include <benchmark/benchmark.h>

namespace bench {

namespace {

InputPtr MakeInput(Shape shape, unsigned int n) {
    return std::make_shared<Input const>(shape, n);
}

std::shared_ptr<std::vector<unsigned char>> SharedBytes(DORecord& record) {
    return std::make_shared<std::vector<unsigned char>>(BytesOf(record));
}

// Lower limit for operations that read every size and offset.
Side StridedRead(std::shared_ptr<std::vector<unsigned char>> const& record, Input const& input) {
    return {[record, n = input.Count(), stride = input.stride, sizeAt = input.fingerprintSize] {
        unsigned long sum = 0;
        unsigned char const* field = record->data() + CR_DO_HEADER_SIZE + sizeAt;
        for (unsigned int i = 0; i < n; ++i, field += stride) {
            sum += LoadAt<unsigned int>(field) + LoadAt<unsigned long>(field + 4);
        }
        benchmark::DoNotOptimize(sum);
    }};
}

// Lower limit for operations that byte-swap every size and offset.
Side StridedSwap(std::shared_ptr<std::vector<unsigned char>> const& record, Input const& input) {
    return {[record, n = input.Count(), stride = input.stride, sizeAt = input.fingerprintSize] {
        unsigned char* field = record->data() + CR_DO_HEADER_SIZE + sizeAt;
        for (unsigned int i = 0; i < n; ++i, field += stride) {
            unsigned int const size = __builtin_bswap32(LoadAt<unsigned int>(field));
            unsigned long const offset = __builtin_bswap64(LoadAt<unsigned long>(field + 4));
            std::memcpy(field, &size, sizeof size);
            std::memcpy(field + 4, &offset, sizeof offset);
        }
        benchmark::ClobberMemory();
    }};
}

Comparison SerializeAgainstFill(Shape shape, unsigned int n, bool withChecksum) {
    auto const input = MakeInput(shape, n);
    std::size_t const length = FormOf(*input->MakeRecord(), withChecksum).size();
    return {OurSerialize(input, withChecksum), {[length] {
                Block const block(static_cast<unsigned char*>(std::calloc(1, length)));
                Require(block != nullptr, "no memory");
                benchmark::DoNotOptimize(block.get());
                std::memset(block.get(), 'a', length);
                benchmark::ClobberMemory();
            }}};
}

} // namespace

Side OurSerialize(InputPtr const& input, bool withChecksum) {
    std::shared_ptr<DORecord> const record = input->MakeRecord();
    return {[record, withChecksum] {
        void* form = nullptr;
        unsigned long length = 0;
        Require(record->Serialize(&form, &length, withChecksum) == CR_STATUS_OK, "Serialize failed");
        benchmark::DoNotOptimize(form);
        benchmark::ClobberMemory();
        DORecord::SerializedDORecordFree(&form);
    }};
}

Side OurParse(InputPtr const& input) {
    auto const form = std::make_shared<std::vector<unsigned char>>(FormOf(*input->MakeRecord(), true));
    return {[form, shape = input->shape] {
        Require(DORecordSerializedValidate(form->data(), form->size(), shape.dotype, shape.fptype, 0) == CR_STATUS_OK,
                "the form is invalid");
        DORecord record(shape.dotype, shape.fptype, nullptr, 0, form->data(), form->size(), false);
        benchmark::DoNotOptimize(&record);
        benchmark::ClobberMemory();
    }};
}

Side CopyInto(std::shared_ptr<std::vector<unsigned char>> const& source) {
    return {[source] {
        Block const block = NewBlock(source->size());
        std::memcpy(block.get(), source->data(), source->size());
        benchmark::ClobberMemory();
    }};
}

Comparison Serialize(Shape shape, unsigned int n) {
    return SerializeAgainstFill(shape, n, true);
}

Comparison SerializeWithoutChecksum(Shape shape, unsigned int n) {
    return SerializeAgainstFill(shape, n, false);
}

Comparison Parse(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    return {OurParse(input), CopyInto(SharedBytes(*input->MakeRecord()))};
}

Comparison Build(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    return {{[input] {
                auto const record = input->MakeRecord();
                benchmark::DoNotOptimize(record.get());
                benchmark::ClobberMemory();
            }},
            CopyInto(SharedBytes(*input->MakeRecord()))};
}

Comparison Wrap(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    auto const bytes = SharedBytes(*input->MakeRecord());
    return {{[bytes] {
                auto const record = DORecord::Wrap(bytes->data(), bytes->size(), bytes->size(), true);
                benchmark::DoNotOptimize(record.get());
            }},
            StridedRead(SharedBytes(*input->MakeRecord()), *input)};
}

Comparison FromBuffer(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    auto const record = input->MakeRecord();
    record->HostToNetwork(0);
    auto const bytes = SharedBytes(*record);
    return {{[bytes] {
                auto const made = DORecord::FromBuffer(bytes->data(), bytes->size());
                benchmark::DoNotOptimize(made.get());
                benchmark::ClobberMemory();
            }},
            CopyInto(SharedBytes(*record))};
}

Comparison Convert(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    std::shared_ptr<DORecord> const record = input->MakeRecord();
    return {{[record] {
                record->IsInNetworkOrder() ? record->NetworkToHost(0) : record->HostToNetwork(0);
                benchmark::ClobberMemory();
            }},
            StridedSwap(SharedBytes(*input->MakeRecord()), *input)};
}

Comparison CheckSegmentList(Shape shape, unsigned int n) {
    auto const input = MakeInput(shape, n);
    std::shared_ptr<DORecord> const record = input->MakeRecord();
    return {{[record] { record->checkSegmentList(); }}, StridedRead(SharedBytes(*record), *input)};
}

} // namespace bench
