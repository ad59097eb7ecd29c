// The iterator over all references of a record.

#include "DORecord/record.h"

using namespace crrecord;

using Iterator = DORecord::tref_const_iterator_t;

namespace {

// Kind 0 is never visited.
constexpr cr_reftype_t kFirstVisitedKind = cr_reftype_t(1);

constexpr cr_reftype_t Next(cr_reftype_t kind) noexcept {
    return static_cast<cr_reftype_t>(kind + 1);
}

} // namespace

Iterator::tref_const_iterator_t() : record_(nullptr), kind_(cr_reftype_t(0)), position_() {}

Iterator::tref_const_iterator_t(DORecord const* record, cr_reftype_t kind) : record_(record), kind_(kind), position_() {
    if (kind_ != CR_REFTYPE_END) {
        position_ = record_->trefs[kind_].begin();
        skipEmptySets();
    }
}

// From the end of a set to the front of the next one that has a reference, or to the end of all.
void Iterator::skipEmptySets() {
    while (position_ == record_->trefs[kind_].end()) {
        kind_ = Next(kind_);
        if (kind_ == CR_REFTYPE_END) {
            return;
        }
        position_ = record_->trefs[kind_].begin();
    }
}

Iterator& Iterator::operator++() {
    if (record_ && kind_ != CR_REFTYPE_END) {
        ++position_;
        skipEmptySets();
    }
    return *this;
}

Iterator Iterator::operator++(int) {
    Iterator const before = *this;
    ++*this;
    return before;
}

bool Iterator::operator==(Iterator const& other) const {
    return record_ == other.record_ && kind_ == other.kind_ &&
           (kind_ == CR_REFTYPE_END || position_ == other.position_);
}

Iterator DORecord::GetTRefBegin() const {
    return {this, kFirstVisitedKind};
}

Iterator DORecord::GetTRefEnd() const {
    return {this, CR_REFTYPE_END};
}
