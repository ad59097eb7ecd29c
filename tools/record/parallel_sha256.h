// SHA-256 of several pieces at once, one in each lane of the processor's vector registers. It takes less than half the
// time of one hash after the other.

#pragma once

#include <memory>
#include <span>

struct IMB_MGR;

namespace crrecord::tool {

class ParallelSha256 {
public:
    static constexpr std::size_t kLanes = 16;
    // Time is that of all lanes: fewer pieces are faster one after the other.
    static constexpr std::size_t kLeastPieces = kLanes / 2;
    static constexpr std::size_t kMostBytes = 256UL * 1024; // of a piece

    struct Piece {
        std::span<unsigned char const> bytes;
        unsigned char* digest; // 32 bytes
    };

    // Returns: null if the build is without libipsec-mb, if the library does not support the processor, if its digests
    // are not those of OpenSSL, or if memory is exhausted.
    static std::unique_ptr<ParallelSha256> Create();

    // Returns: false if the library did not complete all pieces.
    [[nodiscard]] bool Digest(std::span<Piece const> pieces);

    // Whether the digest of a piece is that of OpenSSL.
    static bool EqualsOpenSSL(Piece const& piece);

private:
    struct Free {
        void operator()(IMB_MGR* manager) const;
    };
    using Manager = std::unique_ptr<IMB_MGR, Free>;

    explicit ParallelSha256(Manager manager);
    bool IsCorrect();

    Manager manager_;
};

} // namespace crrecord::tool
