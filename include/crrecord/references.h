// The typed references in a record's buffer: decoding, and a range over their section.

#pragma once

#include <crrecord/tref.h>

#include <iterator>

#if __cplusplus > 201703L
#include <ranges>
#endif

// A typed reference of a record, by value.
struct DOReference {
    cr_reftype_t kind;
    unsigned long id;
};

// Decodes the serialized reference (tref.h) at the start of `available` bytes, which may be any bytes.
// Returns: the bytes that it takes; 0, with `reference` unchanged, if the bytes are no reference.
inline unsigned long DOReferenceDecode(unsigned char const* bytes, unsigned long available,
                                       DOReference& reference) noexcept {
    crr_reference decoded{};
    unsigned long const size = crr_reference_decode(bytes, available, &decoded);
    if (size != 0) {
        reference = {static_cast<cr_reftype_t>(decoded.kind), decoded.id};
    }
    return size;
}

// The typed references of a section, in stored order, which a note may report as not ascending. In C++20 it is a
// forward, borrowed view.
//
// Lifetime: valid while the section's buffer is unchanged. Iterators may outlive the range itself.
class DOReferenceRange {
public:
    // Decodes one reference after the other. Bytes that are no reference end the iteration.
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag; // it yields values; all else is forward
        using iterator_concept = std::forward_iterator_tag;
        using value_type = DOReference;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = DOReference;

        // The first may only be assigned to; the second takes the start of a reference and the end of the section.
        iterator() noexcept : at_(nullptr), end_(nullptr), size_(0), value_{} {}
        iterator(unsigned char const* at, unsigned char const* end) noexcept : at_(at), end_(end), size_(0), value_{} {
            Decode();
        }
        // Precondition: not at the end.
        DOReference operator*() const noexcept { return value_; }
        iterator& operator++() noexcept {
            at_ += size_;
            Decode();
            return *this;
        }
        iterator operator++(int) noexcept {
            iterator const before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(iterator const& a, iterator const& b) noexcept { return a.at_ == b.at_; }
        friend bool operator!=(iterator const& a, iterator const& b) noexcept { return a.at_ != b.at_; }

    private:
        void Decode() noexcept {
            size_ = DOReferenceDecode(at_, static_cast<unsigned long>(end_ - at_), value_);
            at_ = size_ != 0 ? at_ : end_;
        }

        unsigned char const* at_;
        unsigned char const* end_;
        unsigned long size_; // bytes of the reference at `at_`
        DOReference value_;
    };
    using const_iterator = iterator;
    using value_type = DOReference;

    // The bytes between `from` and `to`.
    DOReferenceRange(unsigned char const* from, unsigned char const* to) noexcept : from_(from), to_(to) {}
    iterator begin() const noexcept { return {from_, to_}; }
    iterator end() const noexcept { return {to_, to_}; }
    bool empty() const noexcept { return begin() == end(); }

private:
    unsigned char const* from_;
    unsigned char const* to_;
};

#if __cplusplus > 201703L
template <>
inline constexpr bool std::ranges::enable_view<DOReferenceRange> = true;
template <>
inline constexpr bool std::ranges::enable_borrowed_range<DOReferenceRange> = true;
#endif
