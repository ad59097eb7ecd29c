#include "record/parallel_sha256.h"

#include <crrecord/fingerprint.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#ifdef CRRECORD_IPSEC_MB
#include <intel-ipsec-mb.h>
#endif

namespace crrecord::tool {

ParallelSha256::ParallelSha256(Manager manager) : manager_(std::move(manager)) {}

#ifdef CRRECORD_IPSEC_MB

void ParallelSha256::Free::operator()(IMB_MGR* manager) const {
    free_mb_mgr(manager);
}

std::unique_ptr<ParallelSha256> ParallelSha256::Create() {
    Manager manager(alloc_mb_mgr(0));
    if (!manager) {
        return nullptr;
    }
    init_mb_mgr_auto(manager.get(), nullptr);
    if (imb_get_errno(manager.get()) != 0) {
        return nullptr;
    }
    std::unique_ptr<ParallelSha256> made(new ParallelSha256(std::move(manager)));
    static bool const correct = made->IsCorrect(); // same processor, same code
    return correct ? std::move(made) : nullptr;
}

// libipsec-mb documents a limit of 64 KiB for a piece, and checks it. Its code counts blocks of 64 bytes in 16 bits, so
// that larger pieces are correct too; IsCorrect checks that for the largest, and users check a piece of each batch.
bool ParallelSha256::Digest(std::span<Piece const> pieces) {
    std::size_t completed = 0;
    auto const count = [&completed](IMB_JOB const* job) {
        completed += job != nullptr && job->status == IMB_STATUS_COMPLETED ? 1 : 0;
        return job != nullptr;
    };
    for (Piece const& piece : pieces) {
        IMB_JOB* const job = IMB_GET_NEXT_JOB(manager_.get());
        job->cipher_mode = IMB_CIPHER_NULL;
        job->cipher_direction = IMB_DIR_ENCRYPT;
        job->chain_order = IMB_ORDER_HASH_CIPHER;
        job->hash_alg = IMB_AUTH_SHA_256;
        job->src = piece.bytes.data();
        job->hash_start_src_offset_in_bytes = 0;
        job->msg_len_to_hash_in_bytes = piece.bytes.size();
        job->auth_tag_output = piece.digest;
        job->auth_tag_output_len_in_bytes = sizeof crfp_digest_t::bytes;
        for (bool more = count(IMB_SUBMIT_JOB_NOCHECK(manager_.get())); more;) {
            more = count(IMB_GET_COMPLETED_JOB(manager_.get()));
        }
    }
    while (count(IMB_FLUSH_JOB(manager_.get()))) {}
    return completed == pieces.size();
}

#else

void ParallelSha256::Free::operator()(IMB_MGR*) const {}

std::unique_ptr<ParallelSha256> ParallelSha256::Create() {
    return nullptr;
}

bool ParallelSha256::Digest(std::span<Piece const>) {
    return false;
}

#endif

bool ParallelSha256::EqualsOpenSSL(Piece const& piece) {
    crfp_context_t context;
    crfp_digest_t expected{};
    return CRFPInitialize(&context, CR_FP_TYPE_SHA256) == 0 &&
           CRFPAppend(&context, piece.bytes.data(), piece.bytes.size()) == 0 && CRFPFinalize(&context) == 0 &&
           CRFPGetDigest_r(&context, &expected) && std::memcmp(&expected, piece.digest, sizeof expected) == 0;
}

// Pieces of different sizes leave their lanes at different times.
bool ParallelSha256::IsCorrect() {
    constexpr std::size_t kPieces = kLanes + 3;
    std::vector<unsigned char> bytes(kMostBytes);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * i >> 3);
    }
    std::array<crfp_digest_t, kPieces> found{};
    std::array<Piece, kPieces> pieces;
    for (std::size_t i = 0; i < kPieces; ++i) {
        pieces[i] = {std::span(bytes).first(i < 2 ? kMostBytes - i : 61 * i), found[i].bytes};
    }
    if (!Digest(pieces)) {
        return false;
    }
    return std::all_of(pieces.begin(), pieces.end(), EqualsOpenSSL);
}

} // namespace crrecord::tool
