// Integers in a record's buffer: at any address, in host or network (big-endian) order.

#pragma once

#include <boost/endian/conversion.hpp>

#include <cstring>

namespace crrecord {

enum class Order : unsigned char { Host, Network };

constexpr Order OrderFromFlag(bool networkOrder) noexcept {
    return networkOrder ? Order::Network : Order::Host;
}

// Converts between host order and big-endian: its own inverse, and the identity on a big-endian machine.
template <class T>
constexpr T ByteSwapped(T value) noexcept {
    return boost::endian::native_to_big(value);
}

// Converts a host value to `order`, or a value stored in `order` to a host value.
template <class T>
constexpr T InOrder(T value, Order order) noexcept {
    return order == Order::Host ? value : ByteSwapped(value);
}

// Returns: the integer that is stored at `from`, in `order`.
template <class T>
T Load(void const* from, Order order = Order::Host) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return InOrder(value, order);
}

} // namespace crrecord
