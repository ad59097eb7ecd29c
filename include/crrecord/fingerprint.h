// Fingerprints: the digest of a piece of content or of an object, its text form, and the digest object.
//
// | type | constant              | algorithm                | bytes | text |
// |------|-----------------------|--------------------------|-------|------|
// | 0    | CR_FP_TYPE_MD5        | MD5 (RFC 1321)           | 16    | 32   |
// | 1    | CR_FP_TYPE_SHA1_128   | SHA-1, first 16 bytes    | 16    | 32   |
// | 2    | CR_FP_TYPE_SHA256_128 | SHA-256, first 16 bytes  | 16    | 32   |
// | 3    | CR_FP_TYPE_SHA256     | SHA-256 (FIPS 180-4)     | 32    | 64   |
//
// The text is lower-case hexadecimal digits and a NUL.
//
// Errors: functions that fail return -1 or null and store the reason in this thread's last status (status.h). None
// throws.
//
// Memory: the first computation of an algorithm in a process fetches it from the crypto library. If memory runs out
// during that, the crypto library may crash, or the computation fails with CR_STATUS_NOT_SUPPORTED. A process that must
// survive this calls CRFPInitialize for the types 0, 1 and 3 at its start. Later computations fail with
// CR_STATUS_NO_MEMORY.
//
// Thread safety: a context is used by one thread at a time; all else may be called from any thread.

#pragma once

#include <crrecord/export.h>
#include <crrecord/reader.h>

// Fingerprint types. Records store these values, so they never change.
inline constexpr unsigned int CR_FP_TYPE_MD5 = 0;
inline constexpr unsigned int CR_FP_TYPE_SHA1_128 = 1;
inline constexpr unsigned int CR_FP_TYPE_SHA256_128 = 2;
inline constexpr unsigned int CR_FP_TYPE_SHA256 = CRR_FPTYPE_SHA256;
inline constexpr unsigned int CR_FP_TYPE_LAST = CR_FP_TYPE_SHA256; // the greatest fingerprint type

// A fingerprint. Types of 16 bytes use the first half; the second is zero.
struct crfp_digest_t {
    unsigned char bytes[32];
};

// Returns: non-zero for a type of the table above. The argument is not cut to 8 bits: 259 is not taken for 3.
CRRECORD_API int CRFPTypeIsValid(unsigned int fptype) noexcept;

// Returns: bytes of a fingerprint: 32 for CR_FP_TYPE_SHA256, 16 for every other type, also an unknown one.
constexpr unsigned int CRFPDigestSize(unsigned int fptype) noexcept {
    return crr_fingerprint_size(fptype);
}

// Returns: bytes of a fingerprint's text including its NUL: 65 for CR_FP_TYPE_SHA256, 33 for every other type.
constexpr unsigned int CRFPTextSize(unsigned int fptype) noexcept {
    return 2 * CRFPDigestSize(fptype) + 1;
}

struct evp_md_ctx_st;

// The state of one computation, for the stack. The destructor releases what it holds, finished or not. Initialize it
// with CRFPInitialize, feed it with CRFPAppend, end it with CRFPFinalize or CRFPFinalizeDO, read it with
// CRFPGetDigest_r.
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

// Starts a computation. A used context may be reused, finished or not.
// Returns: 0, or -1: CR_STATUS_INVALID for a null context; CR_STATUS_INVALID_FP_TYPE; CR_STATUS_NOT_SUPPORTED if the
// crypto library refuses the algorithm; CR_STATUS_NO_MEMORY.
// On failure: no computation is open; a former one is closed.
CRRECORD_API int CRFPInitialize(crfp_context_t* context, unsigned int fptype) noexcept;

// Feeds `length` bytes. `bytes` may be null if `length` is 0.
// Returns: 0, or -1: CR_STATUS_INVALID for null, or for a context that is not initialized or is finished;
// CR_STATUS_NOT_SUPPORTED or CR_STATUS_NO_MEMORY if the crypto library fails.
CRRECORD_API int CRFPAppend(crfp_context_t* context, void const* bytes, unsigned long length) noexcept;

// Ends the computation of a content's fingerprint.
// Returns: as CRFPAppend. The context is no longer open, even after a failure of the crypto library.
CRRECORD_API int CRFPFinalize(crfp_context_t* context) noexcept;

// Ends the computation of an object's digest. First feeds the three bytes 'D', 'O', NUL, so that the digest is not the
// fingerprint of the same bytes as content.
// Returns: as CRFPAppend.
CRRECORD_API int CRFPFinalizeDO(crfp_context_t* context) noexcept;

// Copies the result of a finished computation into `digest`, as often as it is called.
// Returns: `digest`; or null with CR_STATUS_INVALID for null, or for a context that is not finished.
CRRECORD_API crfp_digest_t* CRFPGetDigest_r(crfp_context_t const* context, crfp_digest_t* digest) noexcept;

// Writes the text of a fingerprint and its NUL into the `size` bytes of `text`. An unknown type is taken as 16 bytes
// wide.
// Returns: `text`; or null with CR_STATUS_INVALID for null or a `size` below CRFPTextSize(fptype).
// On failure: `text` is unchanged.
CRRECORD_API char* CRFPDigestToString_r(crfp_digest_t const* digest, unsigned int fptype, char* text,
                                        unsigned long size) noexcept;

// Reads the NUL-terminated text of a fingerprint. An unknown type is taken as 16 bytes wide.
// Returns: `digest`; or null with CR_STATUS_INVALID for null, or for anything but exactly 32 or, for CR_FP_TYPE_SHA256,
// 64 lower-case digits.
// On failure: `digest` is unchanged.
CRRECORD_API crfp_digest_t* CRFPStringToDigest_r(char const* text, unsigned int fptype, crfp_digest_t* digest) noexcept;

// The digest of an object.
struct crt_digest_t {
    unsigned int kind; // fingerprint type + 1, or 0 for a digest of no type
    crfp_digest_t digest;
    unsigned long dcid; // container of the object
};

// Makes a digest object from copies of its arguments.
// Returns: the object; or null with CR_STATUS_NO_MEMORY, or CR_STATUS_INVALID for a null digest.
// Lifetime: the caller releases the object with CRTDigestDelete.
CRRECORD_API crt_digest_t* CRTDigestNewFull(unsigned int kind, crfp_digest_t const* digest,
                                            unsigned long dcid) noexcept;

// Releases *digest and sets it to null. Both pointers may be null.
CRRECORD_API void CRTDigestDelete(crt_digest_t** digest) noexcept;
