// Stores and conversion of integers in host and network (big-endian) order.
//
// Conversion is its own inverse. On a big-endian machine it changes nothing.
//
// A record's fixed header is a packed structure: its members are read and written as such, through InOrder if the
// record may be in network order. If the memory may change meanwhile, the header is copied first (ReadHeader) and the
// copy is read. Load and Store are for all integers elsewhere: after the header, in an exchange form, or at an offset
// from a table of fields.

#pragma once

#include <crrecord/byte_order.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace crrecord {

constexpr Order Other(Order order) noexcept {
    return order == Order::Host ? Order::Network : Order::Host;
}

// Store, as Load, requires no alignment.
template <class T>
void Store(void* to, T value, Order order = Order::Host) noexcept {
    T const stored = InOrder(value, order);
    std::memcpy(to, &stored, sizeof stored);
}

// Converts between host order and big-endian. `to` may be `from`.
template <class T>
void CopySwapped(void* to, void const* from) noexcept {
    Store<T>(to, Load<T>(from), Order::Network);
}

// Byte-swaps an integer whose width is known at compile time.
template <std::size_t Width>
void SwapBytes(unsigned char* to, unsigned char const* from) noexcept {
    if constexpr (Width == 2) {
        CopySwapped<std::uint16_t>(to, from);
    } else if constexpr (Width == 4) {
        CopySwapped<std::uint32_t>(to, from);
    } else {
        static_assert(Width == 8);
        CopySwapped<std::uint64_t>(to, from);
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
