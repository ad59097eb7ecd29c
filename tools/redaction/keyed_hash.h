// HMAC-SHA-256 under one secret.

#pragma once

#include <array>
#include <memory>
#include <span>

#include <openssl/evp.h>

namespace crrecord::tool {

class KeyedHash {
public:
    using Value = std::array<unsigned char, 32>;

    // Throws Failure where the system has no such algorithm.
    explicit KeyedHash(std::span<unsigned char const> secret);

    // Of the bytes behind the byte `domain`, which keeps the uses of one secret apart.
    Value operator()(unsigned char domain, std::span<unsigned char const> bytes);

private:
    struct Free {
        void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
    };
    std::unique_ptr<EVP_MAC_CTX, Free> context_;
};

// 32 random bytes of the system's. Throws Failure where it gives none.
KeyedHash::Value RandomSecret();

} // namespace crrecord::tool
