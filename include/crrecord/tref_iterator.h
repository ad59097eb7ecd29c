// Iteration over all typed references that a DORecord holds. Part of DORecord.h.

#pragma once

#include <crrecord/DORecord.h>

#include <cstddef>
#include <iterator>

#if __cplusplus > 201703L
#include <ranges>
#endif

// Iterates over the references of a record kind by kind, without kind 0.
//
// Lifetime: valid until its reference is removed or the record is destroyed.
class DORecord::tref_const_iterator_t {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = tref_ptr_t;
    using difference_type = std::ptrdiff_t;
    using pointer = tref_ptr_t const*;
    using reference = tref_ptr_t const&;

    // Of no record; may only be assigned and compared.
    tref_const_iterator_t() : record_(nullptr), kind_(0), position_() {}
    reference operator*() const { return *position_; }
    pointer operator->() const { return &*position_; }
    // At the end it does nothing.
    tref_const_iterator_t& operator++() {
        if (record_ && kind_ != kEnd) {
            ++position_;
            SkipEmptySets();
        }
        return *this;
    }
    tref_const_iterator_t operator++(int) {
        tref_const_iterator_t const before = *this;
        ++*this;
        return before;
    }
    bool operator==(tref_const_iterator_t const& other) const {
        return record_ == other.record_ && kind_ == other.kind_ && (kind_ == kEnd || position_ == other.position_);
    }
    bool operator!=(tref_const_iterator_t const& other) const { return !(*this == other); }

private:
    friend class DORecord;
    static constexpr unsigned int kFirst = 1; // kind 0 is never visited
    static constexpr unsigned int kEnd = CR_REFTYPE_END;

    tref_const_iterator_t(DORecord const* record, unsigned int kind) : record_(record), kind_(kind), position_() {
        if (kind_ != kEnd) {
            position_ = record_->trefs[kind_].begin();
            SkipEmptySets();
        }
    }

    // From the end of a set to the first reference of the next kinds, or to the end of all.
    void SkipEmptySets() {
        while (position_ == record_->trefs[kind_].end() && ++kind_ != kEnd) {
            position_ = record_->trefs[kind_].begin();
        }
    }

    DORecord const* record_;
    unsigned int kind_;
    tref_set_t::const_iterator position_;
};

// All references of a record, as tref_const_iterator_t visits them. In C++20 it is a forward, borrowed view.
//
// Lifetime: valid until the record is destroyed.
class DORecord::tref_range_t {
public:
    using const_iterator = tref_const_iterator_t;
    explicit tref_range_t(DORecord const& record) : record_(&record) {}
    const_iterator begin() const { return record_->GetTRefBegin(); }
    const_iterator end() const { return record_->GetTRefEnd(); }
    bool empty() const { return begin() == end(); }

private:
    DORecord const* record_;
};

inline DORecord::tref_const_iterator_t DORecord::GetTRefBegin() const {
    return {this, tref_const_iterator_t::kFirst};
}

inline DORecord::tref_const_iterator_t DORecord::GetTRefEnd() const {
    return {this, tref_const_iterator_t::kEnd};
}

inline DORecord::tref_range_t DORecord::References() const {
    return tref_range_t(*this);
}

#if __cplusplus > 201703L
template <>
inline constexpr bool std::ranges::enable_view<DORecord::tref_range_t> = true;
template <>
inline constexpr bool std::ranges::enable_borrowed_range<DORecord::tref_range_t> = true;
#endif
