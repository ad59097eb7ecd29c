// Integers in a record's buffer: at any address, in host or network (big-endian) order.

#pragma once

#include <boost/endian/conversion.hpp>

#include <cstring>

namespace crrecord {

enum class Order : unsigned char { Host, Network };

// Converts between host order and big-endian: its own inverse, and the identity on a big-endian machine.
template <class T>
constexpr T ByteSwapped(T value) noexcept {
    return boost::endian::native_to_big(value);
}

// Returns: the integer that is stored at `from`, in `order`.
template <class T>
T Load(void const* from, Order order = Order::Host) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return order == Order::Host ? value : ByteSwapped(value);
}

} // namespace crrecord
