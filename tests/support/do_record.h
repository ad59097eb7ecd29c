// Shared by the tests of DORecord: records of every type, access to members, refusals, and values in bytes.

#pragma once

#include "support/exchange_bytes.h"

#include <functional>

// Every DO type with every fingerprint type.
inline std::vector<RecordValues> Examples() {
    std::vector<RecordValues> examples;
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        for (unsigned char fptype = 0; fptype < 4; ++fptype) {
            examples.push_back(Example(dotype, fptype));
        }
    }
    return examples;
}

inline std::string NameOf(RecordValues const& values) {
    return "DO type " + std::to_string(values.dotype) + ", fingerprint type " + std::to_string(values.fptype);
}

// A record that shows its members.
struct OpenRecord : DORecord {
    using DORecord::bufferSize;
    using DORecord::copyMode;
    using DORecord::CopyMode;
    using DORecord::DORecord;
    using DORecord::header;
    using DORecord::networkOrder;
    using DORecord::ownsBuffer;
    using DORecord::spare;
    using DORecord::subDO;
};

// "9: text" of the exception, or "".
inline std::string Refusal(std::function<void()> const& action) {
    try {
        action();
        return "";
    } catch (Cr_ErrnoException const& caught) {
        return std::to_string(caught.GetStatus()) + ": " + caught.what();
    }
}

template <class T>
T WordAt(Bytes const& bytes, std::size_t offset) {
    T value;
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), sizeof value,
                reinterpret_cast<unsigned char*>(&value));
    return value;
}

inline unsigned int BigEndianAt(Bytes const& bytes, std::size_t offset) {
    unsigned int const word = WordAt<unsigned int>(bytes, offset);
    return kBig ? word : __builtin_bswap32(word);
}
