// One segment record, spelled byte by byte in both orders.

#pragma once

#include <crrecord/SOmarshall.h>

#include <bit>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// On such a machine both orders of a record are the same.
inline constexpr bool kBig = std::endian::native == std::endian::big;

inline Bytes FromHex(std::string const& text) {
    Bytes bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

struct Shape {
    bool network;
    unsigned char fptype = 1, taskIds = 3, fingerprints = 2;
};
inline constexpr Shape kShapes[] = {{false, 1}, {true, 1}, {false, 3}, {true, 3}, {false, 2, 0, 0}, {true, 2, 0, 0}};

// The 16-byte types have the first half. One begins with a comma, the other with a byte that is no ASCII.
inline std::string FingerprintText(unsigned int index, unsigned char fptype) {
    std::string const text = index == 0 ? "2c0102030405060708090a0b0c0d0e0fa0a1a2a3a4a5a6a7a8a9aaabacadaeaf"
                                        : "f01112131415161718191a1b1c1d1e1fb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
    return text.substr(0, fptype == 3 ? 64 : 32);
}

// Sets the lowest byte of a field in the record's order.
inline void SetLow(Bytes& bytes, bool network, std::size_t offset, std::size_t width, std::size_t value) {
    bool const big = network || kBig;
    bytes[offset + (big ? width - 1 : 0)] = static_cast<unsigned char>(value);
}

// All fields have different bytes. The record has less than 256 bytes.
inline Bytes Golden(Shape shape) {
    bool const big = shape.network || kBig;
    std::string text = big ? "00020002000000001112131400000000"
                             "21222324a1a2a3a40102030405060708"
                             "31323334353637384142434445464748"
                             "5152535400000000"
                           : "02000200000000001413121100000000"
                             "24232221a1a2a3a40807060504030201"
                             "38373635343332314847464544434241"
                             "5453525100000000";
    text += "606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f80"
            "00c100d1d2e1e2";
    text += std::string(big ? "0000000000000041fffffffffffffffe8182838485868788"
                            : "4100000000000000feffffffffffffff8887868584838281",
                        0, 16ul * shape.taskIds);
    for (unsigned int i = 0; i < shape.fingerprints; ++i) {
        text += FingerprintText(i, shape.fptype);
    }
    Bytes bytes = FromHex(text + "0000000000000000");
    SetLow(bytes, shape.network, 4, 4, bytes.size());
    SetLow(bytes, shape.network, 12, 4, shape.taskIds);
    SetLow(bytes, shape.network, 52, 4, shape.fingerprints);
    bytes[89] = shape.fptype;
    return bytes;
}

inline _SegmentDBRecord* RecordOf(Bytes& bytes) {
    return reinterpret_cast<_SegmentDBRecord*>(bytes.data());
}
