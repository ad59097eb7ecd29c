// Fingerprints of bytes that arrive in pieces.

#pragma once

#include "io/failure.h"

#include <crrecord/fingerprint.h>
#include <crrecord/status.h>

#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

// Throws: Failure if the cryptographic library fails.
class Fingerprinter {
public:
    explicit Fingerprinter(unsigned int fptype) : fptype_(fptype) {}

    void Start() { Check(CRFPInitialize(&context_, fptype_) == 0); }
    void Append(std::span<unsigned char const> bytes) { Check(CRFPAppend(&context_, bytes.data(), bytes.size()) == 0); }
    crfp_digest_t Finish() {
        crfp_digest_t digest{};
        Check(CRFPFinalize(&context_) == 0 && CRFPGetDigest_r(&context_, &digest));
        return digest;
    }

private:
    void Check(bool done) const {
        if (!done) {
            throw Failure(fmt::format("fingerprint type {}: {}", fptype_, CRStatusToStringA(*__cr_errno_location())));
        }
    }

    unsigned int fptype_;
    crfp_context_t context_;
};

} // namespace crrecord::tool
