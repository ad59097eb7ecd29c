// Fingerprints: the digest of a piece of content or of an object, its text form, and the digest object.
//
// | type | constant              | algorithm                | bytes | text |
// |------|-----------------------|--------------------------|-------|------|
// | 0    | CR_FP_TYPE_MD5        | MD5 (RFC 1321)           | 16    | 32   |
// | 1    | CR_FP_TYPE_SHA1_128   | SHA-1, first 16 bytes    | 16    | 32   |
// | 2    | CR_FP_TYPE_SHA256_128 | SHA-256, first 16 bytes  | 16    | 32   |
// | 3    | CR_FP_TYPE_SHA256     | SHA-256 (FIPS 180-4)     | 32    | 64   |
//
// The text is lower-case hexadecimal and a NUL. Functions that fail return -1 or null and leave the reason in this
// thread's last status (status.h): 9 for an argument or a call out of turn, 22 without memory, 71 where the crypto
// library refuses the algorithm, 111 for an unknown type. None of them throws.
//
// Threads: a context is used by one thread at a time; everything else may be called from any thread.

#pragma once

#include <crrecord/export.h>

inline constexpr unsigned int CR_FP_TYPE_MD5 = 0;
inline constexpr unsigned int CR_FP_TYPE_SHA1_128 = 1;
inline constexpr unsigned int CR_FP_TYPE_SHA256_128 = 2;
inline constexpr unsigned int CR_FP_TYPE_SHA256 = 3;
inline constexpr unsigned int CR_FP_TYPE_LAST = CR_FP_TYPE_SHA256; // the greatest fingerprint type

// A fingerprint value. The 16-byte types use the first half and leave the other zero.
struct crfp_digest_t {
    unsigned char bytes[32];
};

// Non-zero for a type of the table above. Takes the whole value, so that 259 is not taken for 3.
CRRECORD_API int CRFPTypeIsValid(unsigned int fptype) noexcept;

// Bytes of a fingerprint: 32 for type 3, 16 for every other type, known or not.
constexpr unsigned int CRFPDigestSize(unsigned int fptype) noexcept {
    return fptype == CR_FP_TYPE_SHA256 ? 32 : 16;
}

// Bytes of a fingerprint's text with its NUL: 65 for type 3, 33 for every other type.
constexpr unsigned int CRFPTextSize(unsigned int fptype) noexcept {
    return 2 * CRFPDigestSize(fptype) + 1;
}

struct evp_md_ctx_st;

// The state of one computation, made to live on the stack. It releases what it holds when it goes, finished or not.
class crfp_context_t {
public:
    CRRECORD_API crfp_context_t() noexcept;
    CRRECORD_API ~crfp_context_t();
    crfp_context_t(crfp_context_t const&) = delete;
    crfp_context_t& operator=(crfp_context_t const&) = delete;

private:
    friend struct FingerprintComputation;

    enum class State : unsigned char { Idle, Open, Finished };

    evp_md_ctx_st* hash_;
    crfp_digest_t digest_;
    unsigned int fptype_;
    State state_;
};

// Starts a computation; a context may be used again, finished or not. 0, or -1.
// On failure: the context has no computation; a former one is closed.
CRRECORD_API int CRFPInitialize(crfp_context_t* context, unsigned int fptype) noexcept;

// Feeds `length` bytes; null is allowed for none. 0, or -1.
CRRECORD_API int CRFPAppend(crfp_context_t* context, void const* bytes, unsigned long length) noexcept;

// Ends the computation of a content fingerprint. 0, or -1.
CRRECORD_API int CRFPFinalize(crfp_context_t* context) noexcept;

// Ends the computation of an object's digest: appends the three bytes 'D', 'O', NUL first, so that an object's digest
// is not the fingerprint of the same bytes as content. 0, or -1.
CRRECORD_API int CRFPFinalizeDO(crfp_context_t* context) noexcept;

// Reads the result of a finished computation into `digest`. Returns `digest`, or null.
CRRECORD_API crfp_digest_t* CRFPGetDigest_r(crfp_context_t const* context, crfp_digest_t* digest) noexcept;

// Writes the text of a fingerprint and its NUL. An unknown type is taken as 16 bytes wide. Returns `text`, or null for
// a null pointer or a `size` below CRFPTextSize(fptype), with nothing written.
CRRECORD_API char* CRFPDigestToString_r(crfp_digest_t const* digest, unsigned int fptype, char* text,
                                        unsigned long size) noexcept;

// Reads the NUL-terminated text of a fingerprint back; an unknown type is taken as 16 bytes wide. Returns `digest`, or
// null for a null pointer or anything but exactly 32 or 64 lower-case digits, with `digest` left alone.
CRRECORD_API crfp_digest_t* CRFPStringToDigest_r(char const* text, unsigned int fptype, crfp_digest_t* digest) noexcept;

// A digest together with what it is of.
struct crt_digest_t {
    unsigned int kind; // fingerprint type + 1, or 0 for a digest of no type
    crfp_digest_t digest;
    unsigned long dcid; // container of the object that the digest stands for
};

// A new digest object, owned by the caller; null without memory (22) or with a null digest (9).
CRRECORD_API crt_digest_t* CRTDigestNewFull(unsigned int kind, crfp_digest_t const* digest,
                                            unsigned long dcid) noexcept;

// Releases *digest and sets it to null; null pointers are allowed.
CRRECORD_API void CRTDigestDelete(crt_digest_t** digest) noexcept;
