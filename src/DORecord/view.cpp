// A validated record, read in place.

#include <crrecord/DORecordView.h>

#include "DORecord/record.h"
#include "support/validate/record_diagnosis.h"

using namespace crrecord;

DORecordView::DORecordView(void const* buffer, unsigned long size, unsigned int options)
    : record_(static_cast<DORecordHeader const*>(buffer)),
      networkOrder_(RequireValid(buffer, size, options) == Order::Network) {
    fields_ = *record_;
    if (networkOrder_) {
        SwapHeaderFields(&fields_);
    }
}

DOReferenceRange DORecordView::References() const noexcept {
    RecordLayout const layout = LayoutOf(record_);
    return {BytesOf(record_) + layout.trefs, BytesOf(record_) + layout.tail};
}

// Validation has decoded every reference, so each has the size of its kind.
DOReference DOReferenceRange::iterator::operator*() const noexcept {
    _cr_tref_t value{};
    DecodeReference(at_, ReferenceSize(*at_), value);
    return {value.kind, value.id};
}

DOReferenceRange::iterator& DOReferenceRange::iterator::operator++() noexcept {
    at_ += ReferenceSize(*at_);
    return *this;
}
