// One load, one store, and one way to turn a field between host and network (big-endian) order.
//
// Turning is its own inverse, and nothing on a big-endian machine.

#pragma once

#include <boost/endian/conversion.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace crrecord {

enum class Order { Host, Network };

constexpr Order Other(Order order) noexcept {
    return order == Order::Host ? Order::Network : Order::Host;
}

template <class T>
constexpr T Turned(T value) noexcept {
    return boost::endian::native_to_big(value);
}

// Neither needs alignment; both are the only way in which the library reads and writes integers in buffers.
template <class T>
T Load(void const* from, Order order = Order::Host) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return order == Order::Host ? value : Turned(value);
}

template <class T>
void Store(void* to, T value, Order order = Order::Host) noexcept {
    T const stored = order == Order::Host ? value : Turned(value);
    std::memcpy(to, &stored, sizeof stored);
}

// `to` may be `from`.
template <class T>
void Turn(void* to, void const* from) noexcept {
    Store<T>(to, Load<T>(from), Order::Network);
}

// Turns an integer of a width known at compile time.
template <std::size_t Width>
void TurnBytes(unsigned char* to, unsigned char const* from) noexcept {
    if constexpr (Width == 2) {
        Turn<std::uint16_t>(to, from);
    } else if constexpr (Width == 4) {
        Turn<std::uint32_t>(to, from);
    } else {
        static_assert(Width == 8);
        Turn<std::uint64_t>(to, from);
    }
}

// Calls use.operator()<I>() for every index of a constexpr table, so that a loop over fields compiles to straight code.
template <auto const& Table, class Use>
constexpr void ForEachIndex(Use use) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (use.template operator()<I>(), ...);
    }
    (std::make_index_sequence<Table.size()>{});
}

} // namespace crrecord
