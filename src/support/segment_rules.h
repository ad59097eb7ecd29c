// The rules that a record's segments keep, as the class and the validator share them.

#pragma once

#include "support/record_layout.h"

namespace crrecord {

// What the rules look at: the entries in their buffer, and the object that they make up.
struct SegmentList {
    unsigned char const* entries;
    std::uint32_t count;
    unsigned int stride;
    unsigned int sizeAt; // positions in an entry
    unsigned int offsetAt;
    unsigned int dotype;
    Order order; // of sizes and offsets
    bool subDO;  // sizes may reach 4 GiB - 1
    std::uint64_t objectSize;
    std::uint64_t ssize;
};

SegmentList SegmentListOf(DORecordHeader const* header, RecordLayout const& layout, Order order, bool subDO) noexcept;

// Values of segment i as the record's accessors give them: host order, and the none values where there is none.
std::uint32_t SegmentSizeOf(SegmentList const& list, std::uint32_t i) noexcept;
std::uint64_t SegmentOffsetOf(SegmentList const& list, std::uint32_t i) noexcept;
std::uint32_t SegmentObjectOffsetOf(SegmentList const& list, std::uint32_t i) noexcept;

inline constexpr std::uint32_t kNoSize = 0xffffffff;
inline constexpr std::uint32_t kNoObjectOffset = 0xffffffff;
inline constexpr std::uint64_t kNoOffset = 0xffffffffffffffff;

enum class SegmentRule {
    None,    // every rule is kept
    Product, // types 0 and 1: segment size times count is less than the object
    Sum,     // types 2 and 5: the sizes do not add up to the object
    Size,    // a size from 2 GiB on
    Offset,  // an offset from 8192 PiB on
    Overlap, // type 3: a segment starts before the one in front of it ends
    End,     // type 3: the last segment ends behind the object
};

// The first rule that is broken.
struct SegmentFault {
    SegmentRule rule = SegmentRule::None;
    std::uint32_t segment = 0; // the one at fault, for the rules that look at one
    std::uint64_t found = 0;
    std::uint64_t expected = 0; // a limit, or the value that would have been right
};

// Judges segments as they pass by, so that whoever reads or writes them goes through memory once.
class SegmentRules {
public:
    explicit SegmentRules(SegmentList const& list) noexcept : list_(list) {}

    // The next segments of the list: those from the first one not judged yet.
    void Judge(std::uint64_t from, std::uint64_t count) noexcept;
    // After all of them. Looks at the list again where there is a fault.
    SegmentFault Fault() const noexcept;

private:
    template <class E>
    void JudgeSizes(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    template <class E>
    void JudgeOffsets(E entries, std::uint64_t from, std::uint64_t count) noexcept;
    SegmentFault ProductFault() const noexcept;
    SegmentFault SumFault() const noexcept;
    SegmentFault OffsetFault() const noexcept;

    SegmentList list_;
    std::uint64_t sum_ = 0;     // of the sizes
    std::uint64_t end_ = 0;     // of the last segment
    std::uint64_t offsets_ = 0; // every bit of theirs
    std::uint32_t sizes_ = 0;   // every bit of theirs
    bool overlap_ = false;
};

// All of that at once.
SegmentFault CheckSegments(SegmentList const& list) noexcept;
SegmentFault CheckSegmentSizes(SegmentList const& list) noexcept;
SegmentFault CheckSegmentOffsets(SegmentList const& list) noexcept;

} // namespace crrecord
