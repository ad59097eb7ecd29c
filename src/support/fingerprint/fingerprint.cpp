// Fingerprints, computed with OpenSSL's EVP interface.

#include <crrecord/fingerprint.h>
#include <crrecord/status.h>

#include "base/hex.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include <openssl/err.h>
#include <openssl/evp.h>

namespace {

int Fail(cr_status_t status) noexcept {
    *__cr_errno_location() = status;
    return -1;
}

// Runs a step of OpenSSL and restores the caller's error queue.
// Returns: CR_STATUS_NO_MEMORY if OpenSSL reports an allocation failure. Any other failure means that the algorithm is
// unavailable: CR_STATUS_NOT_SUPPORTED.
template <class Step>
cr_status_t RunCryptoStep(Step step) noexcept {
    ERR_set_mark();
    cr_status_t status = CR_STATUS_OK;
    if (!step()) {
        bool const noMemory = ERR_GET_REASON(ERR_peek_last_error()) == ERR_R_MALLOC_FAILURE;
        status = noMemory ? CR_STATUS_NO_MEMORY : CR_STATUS_NOT_SUPPORTED;
    }
    ERR_pop_to_mark();
    return status;
}

// An algorithm that is fetched on first use and kept until the process ends. Otherwise OpenSSL fetches it for every
// digest, which takes longer than hashing a small segment. A fetch that failed is repeated on the next use, since
// memory may be available then. Trivially destructible on purpose: threads may still hash while the process exits.
class Algorithm {
public:
    constexpr explicit Algorithm(char const* name) noexcept : name_(name) {}

    EVP_MD const* Get() noexcept {
        if (EVP_MD* const fetched = fetched_.load(std::memory_order_acquire)) {
            return fetched;
        }
        EVP_MD* const ours = EVP_MD_fetch(nullptr, name_, nullptr);
        EVP_MD* theirs = nullptr;
        if (ours && !fetched_.compare_exchange_strong(theirs, ours, std::memory_order_acq_rel)) {
            EVP_MD_free(ours);
            return theirs;
        }
        return ours;
    }

private:
    char const* name_;
    std::atomic<EVP_MD*> fetched_{nullptr};
};

constinit Algorithm md5{"MD5"};
constinit Algorithm sha1{"SHA1"};
constinit Algorithm sha256{"SHA256"};

Algorithm& AlgorithmOf(unsigned int fptype) noexcept {
    switch (fptype) {
    case CR_FP_TYPE_MD5: return md5;
    case CR_FP_TYPE_SHA1_128: return sha1;
    default: return sha256;
    }
}

} // namespace

struct FingerprintComputation {
    using State = crfp_context_t::State;

    static cr_status_t Open(crfp_context_t& context, unsigned int fptype) noexcept {
        context.state_ = State::Idle;
        if (!CRFPTypeIsValid(fptype)) {
            return CR_STATUS_INVALID_FP_TYPE;
        }
        EVP_MD const* algorithm = nullptr;
        cr_status_t const fetched = RunCryptoStep([&] { return (algorithm = AlgorithmOf(fptype).Get()) != nullptr; });
        if (fetched != CR_STATUS_OK) {
            return fetched;
        }
        // The algorithm is available, so this fails only if out of memory; OpenSSL does not always report that.
        cr_status_t const started = RunCryptoStep([&] {
            if (!context.hash_) {
                context.hash_ = EVP_MD_CTX_new();
            }
            return context.hash_ && EVP_DigestInit_ex2(context.hash_, algorithm, nullptr) == 1;
        });
        if (started != CR_STATUS_OK) {
            return CR_STATUS_NO_MEMORY;
        }
        context.fptype_ = fptype;
        context.state_ = State::Open;
        return CR_STATUS_OK;
    }

    static cr_status_t Append(crfp_context_t& context, void const* bytes, unsigned long length) noexcept {
        if (context.state_ != State::Open) {
            return CR_STATUS_INVALID;
        }
        return RunCryptoStep([&] { return EVP_DigestUpdate(context.hash_, bytes, length) == 1; });
    }

    static cr_status_t Finish(crfp_context_t& context) noexcept {
        if (context.state_ != State::Open) {
            return CR_STATUS_INVALID;
        }
        unsigned char whole[EVP_MAX_MD_SIZE];
        cr_status_t const status =
            RunCryptoStep([&] { return EVP_DigestFinal_ex(context.hash_, whole, nullptr) == 1; });
        context.state_ = State::Idle;
        if (status == CR_STATUS_OK) {
            context.digest_ = {};
            std::copy_n(whole, CRFPDigestSize(context.fptype_), context.digest_.bytes);
            context.state_ = State::Finished;
        }
        return status;
    }

    static bool Read(crfp_context_t const& context, crfp_digest_t& digest) noexcept {
        if (context.state_ == State::Finished) {
            digest = context.digest_;
        }
        return context.state_ == State::Finished;
    }

    static void Release(crfp_context_t& context) noexcept { EVP_MD_CTX_free(context.hash_); }
};

crfp_context_t::crfp_context_t() noexcept : hash_(nullptr), digest_{}, fptype_(0), state_(State::Idle) {}

crfp_context_t::~crfp_context_t() {
    FingerprintComputation::Release(*this);
}

int CRFPTypeIsValid(unsigned int fptype) noexcept {
    return fptype <= CR_FP_TYPE_LAST;
}

int CRFPInitialize(crfp_context_t* context, unsigned int fptype) noexcept {
    if (!context) {
        return Fail(CR_STATUS_INVALID);
    }
    cr_status_t const status = FingerprintComputation::Open(*context, fptype);
    return status == CR_STATUS_OK ? 0 : Fail(status);
}

int CRFPAppend(crfp_context_t* context, void const* bytes, unsigned long length) noexcept {
    if (!context || (!bytes && length != 0)) {
        return Fail(CR_STATUS_INVALID);
    }
    cr_status_t const status = FingerprintComputation::Append(*context, bytes, length);
    return status == CR_STATUS_OK ? 0 : Fail(status);
}

int CRFPFinalize(crfp_context_t* context) noexcept {
    cr_status_t const status = context ? FingerprintComputation::Finish(*context) : CR_STATUS_INVALID;
    return status == CR_STATUS_OK ? 0 : Fail(status);
}

int CRFPFinalizeDO(crfp_context_t* context) noexcept {
    static constexpr char kObjectMark[] = "DO"; // the digest covers its NUL
    return CRFPAppend(context, kObjectMark, sizeof kObjectMark) == 0 ? CRFPFinalize(context) : -1;
}

crfp_digest_t* CRFPGetDigest_r(crfp_context_t const* context, crfp_digest_t* digest) noexcept {
    if (!context || !digest || !FingerprintComputation::Read(*context, *digest)) {
        Fail(CR_STATUS_INVALID);
        return nullptr;
    }
    return digest;
}

char* CRFPDigestToString_r(crfp_digest_t const* digest, unsigned int fptype, char* text, unsigned long size) noexcept {
    if (!digest || !text || size < CRFPTextSize(fptype)) {
        Fail(CR_STATUS_INVALID);
        return nullptr;
    }
    crrecord::HexEncode(digest->bytes, CRFPDigestSize(fptype), text);
    text[CRFPTextSize(fptype) - 1] = '\0';
    return text;
}

crfp_digest_t* CRFPStringToDigest_r(char const* text, unsigned int fptype, crfp_digest_t* digest) noexcept {
    unsigned long const length = CRFPTextSize(fptype) - 1;
    crfp_digest_t value{};
    // The length is checked first, so that no byte after the NUL of a short text is read.
    if (!text || !digest || strnlen(text, length + 1) != length ||
        !crrecord::HexDecode(text, CRFPDigestSize(fptype), value.bytes)) {
        Fail(CR_STATUS_INVALID);
        return nullptr;
    }
    *digest = value;
    return digest;
}

crt_digest_t* CRTDigestNewFull(unsigned int kind, crfp_digest_t const* digest, unsigned long dcid) noexcept {
    if (!digest) {
        Fail(CR_STATUS_INVALID);
        return nullptr;
    }
    crt_digest_t* const copy = new (std::nothrow) crt_digest_t{kind, *digest, dcid};
    if (!copy) {
        Fail(CR_STATUS_NO_MEMORY);
    }
    return copy;
}

void CRTDigestDelete(crt_digest_t** digest) noexcept {
    if (digest) {
        delete *digest;
        *digest = nullptr;
    }
}
