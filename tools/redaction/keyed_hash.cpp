#include "redaction/keyed_hash.h"

#include "io/failure.h"

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <sys/random.h>

namespace crrecord::tool {

namespace {

void Check(bool done) {
    if (!done) {
        throw Failure("HMAC-SHA-256 is not to be had here");
    }
}

} // namespace

KeyedHash::KeyedHash(std::span<unsigned char const> secret) {
    std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> const hmac(EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr),
                                                                 &EVP_MAC_free);
    Check(hmac != nullptr);
    context_.reset(EVP_MAC_CTX_new(hmac.get()));
    char digest[] = "SHA256";
    OSSL_PARAM const parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                     OSSL_PARAM_construct_end()};
    Check(context_ && EVP_MAC_init(context_.get(), secret.data(), secret.size(), parameters) == 1);
}

KeyedHash::Value KeyedHash::operator()(unsigned char domain, std::span<unsigned char const> bytes) {
    Value value;
    std::size_t size = 0;
    // Without a key it starts anew under the same one.
    Check(EVP_MAC_init(context_.get(), nullptr, 0, nullptr) == 1 && EVP_MAC_update(context_.get(), &domain, 1) == 1 &&
          EVP_MAC_update(context_.get(), bytes.data(), bytes.size()) == 1 &&
          EVP_MAC_final(context_.get(), value.data(), &size, value.size()) == 1 && size == value.size());
    return value;
}

KeyedHash::Value RandomSecret() {
    KeyedHash::Value secret;
    // So few bytes come all at once, and no signal can cut them short.
    if (::getrandom(secret.data(), secret.size(), 0) != static_cast<ssize_t>(secret.size())) {
        throw Failure(ErrnoText("random bytes", "read"));
    }
    return secret;
}

} // namespace crrecord::tool
