// The range over the elements of a record.

#pragma once

#include <cstddef>
#include <iterator>

#if __cplusplus > 201703L
#include <ranges>
#endif

// A view of `source.count` elements. Each is made by `source.Read(i)` when it is dereferenced, so it is a value and not
// a reference into the record. Usable in a range-for and with the standard algorithms; in C++20 it is a random-access,
// borrowed and sized view.
//
// Preconditions: an iterator is dereferenced below end(), and an index is below size(); neither is checked.
// Lifetime: valid until the record changes, grows or is destroyed. Iterators may outlive the range itself.
// Thread safety: as reading the record.
template <class Source>
class cr_record_range {
public:
    using value_type = typename Source::value_type;

    // Moves as a random-access iterator does. Iterators of two ranges are not comparable, which is not checked.
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag; // it yields values; all else is random access
        using iterator_concept = std::random_access_iterator_tag;
        using value_type = typename Source::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = value_type;

        // The first may only be assigned to; the second is for cr_record_range.
        iterator() noexcept : source_{}, index_(0) {}
        iterator(Source const& source, unsigned int index) noexcept : source_(source), index_(index) {}

        // Read the element, and the element `n` after it.
        value_type operator*() const noexcept { return source_.Read(index_); }
        value_type operator[](difference_type n) const noexcept { return *(*this + n); }
        iterator& operator++() noexcept { return *this += 1; }
        iterator operator++(int) noexcept {
            iterator const before = *this;
            ++*this;
            return before;
        }
        iterator& operator--() noexcept { return *this -= 1; }
        iterator operator--(int) noexcept {
            iterator const before = *this;
            --*this;
            return before;
        }
        iterator& operator+=(difference_type n) noexcept {
            index_ = static_cast<unsigned int>(index_ + n);
            return *this;
        }
        iterator& operator-=(difference_type n) noexcept { return *this += -n; }
        friend iterator operator+(iterator i, difference_type n) noexcept { return i += n; }
        friend iterator operator+(difference_type n, iterator i) noexcept { return i += n; }
        friend iterator operator-(iterator i, difference_type n) noexcept { return i -= n; }
        // The distance in elements, and the order of positions.
        friend difference_type operator-(iterator const& a, iterator const& b) noexcept {
            return difference_type{a.index_} - difference_type{b.index_};
        }
        friend bool operator==(iterator const& a, iterator const& b) noexcept { return a.index_ == b.index_; }
        friend bool operator!=(iterator const& a, iterator const& b) noexcept { return a.index_ != b.index_; }
        friend bool operator<(iterator const& a, iterator const& b) noexcept { return a.index_ < b.index_; }
        friend bool operator>(iterator const& a, iterator const& b) noexcept { return b < a; }
        friend bool operator<=(iterator const& a, iterator const& b) noexcept { return !(b < a); }
        friend bool operator>=(iterator const& a, iterator const& b) noexcept { return !(a < b); }

    private:
        Source source_;
        unsigned int index_;
    };
    using const_iterator = iterator;

    // `source` is copied.
    explicit cr_record_range(Source const& source) noexcept : source_(source) {}

    // Iterators from element 0 to the end, and the number of elements.
    iterator begin() const noexcept { return {source_, 0}; }
    iterator end() const noexcept { return {source_, source_.count}; }
    unsigned int size() const noexcept { return source_.count; }
    bool empty() const noexcept { return source_.count == 0; }
    // Element `i`, which is below size().
    value_type operator[](unsigned int i) const noexcept { return source_.Read(i); }
    // The source that the range reads.
    Source const& GetSource() const noexcept { return source_; }

private:
    Source source_;
};

#if __cplusplus > 201703L
template <class Source>
inline constexpr bool std::ranges::enable_view<cr_record_range<Source>> = true;
template <class Source>
inline constexpr bool std::ranges::enable_borrowed_range<cr_record_range<Source>> = true;
#endif
