// JSON text, written in place.

#pragma once

#include "base/hex.h"
#include "io/text.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include <fmt/format.h>

namespace crrecord::tool::json {

// Writes at the end of a buffer. The constructor allocates for everything that one Text writes.
class Text {
public:
    Text(fmt::memory_buffer& to, std::size_t size) : to_(to) {
        to.reserve(to.size() + size);
        at_ = to.data() + to.size();
    }
    ~Text() { to_.resize(static_cast<std::size_t>(at_ - to_.data())); }
    Text(Text const&) = delete;
    Text& operator=(Text const&) = delete;

    Text& Put(std::string_view text) {
        std::memcpy(at_, text.data(), text.size());
        at_ += text.size();
        return *this;
    }

    // At most 20 characters.
    template <class Integer>
    Text& Number(Integer number) {
        at_ = std::to_chars(at_, at_ + std::numeric_limits<Integer>::digits10 + 1, number).ptr;
        return *this;
    }

    // At most 22 characters.
    Text& Decimal(std::uint64_t number) { return Put(tool::Decimal::quote).Number(number).Put(tool::Decimal::quote); }

    // Two characters for each byte. 32 more must be allocated.
    Text& Hex(unsigned char const* bytes, std::size_t count) {
        for (; count >= kBlock; count -= kBlock, bytes += kBlock) {
            HexEncode(bytes, kBlock, at_);
            at_ += 2 * kBlock;
        }
        if (count != 0) {
            unsigned char last[kBlock] = {};
            std::memcpy(last, bytes, count);
            HexEncode(last, kBlock, at_);
            at_ += 2 * count;
        }
        return *this;
    }

private:
    static constexpr unsigned int kBlock = 16;

    fmt::memory_buffer& to_;
    char* at_;
};

} // namespace crrecord::tool::json
