// Records in memory of the test.

#pragma once

#include "support/do_record.h"

#include <cstdlib>

// The whole buffer, with the references as last written.
inline Bytes Buffer(OpenRecord const& record) {
    auto const* const from = reinterpret_cast<unsigned char const*>(record.header);
    return Bytes(from, from + record.bufferSize);
}

inline void Use(OpenRecord& record, void* memory, std::size_t size, OpenRecord::CopyMode mode) {
    std::free(record.ownsBuffer ? record.header : nullptr);
    record.header = static_cast<DORecordHeader*>(memory);
    record.bufferSize = size;
    record.copyMode = mode;
    record.ownsBuffer = mode == OpenRecord::CopyMode::Own;
}

// Gives the record a copy of the bytes as its own buffer, exactly as large.
inline void Hold(OpenRecord& record, Bytes const& bytes) {
    void* const copy = std::malloc(bytes.size());
    std::copy(bytes.begin(), bytes.end(), static_cast<unsigned char*>(copy));
    Use(record, copy, bytes.size(), OpenRecord::CopyMode::Own);
}

// Puts the record into the test's memory.
inline void Borrow(OpenRecord& record, Bytes& memory, OpenRecord::CopyMode mode) {
    Use(record, memory.data(), memory.size(), mode);
}

inline constexpr char kInvalidSize[] = "9: invalid record size for DO";
