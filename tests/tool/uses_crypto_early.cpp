// A library that is preloaded into the command and allocates with OpenSSL before main starts.

#include <openssl/crypto.h>

namespace {

[[gnu::constructor]] void Use() {
    OPENSSL_free(OPENSSL_malloc(1));
}

} // namespace
