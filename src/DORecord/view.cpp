// A validated record, read in place.

#include <crrecord/DORecordView.h>

#include "DORecord/record.h"
#include "support/validate/record_diagnosis.h"

using namespace crrecord;

DORecordView::DORecordView(void const* buffer, unsigned long size, unsigned int options)
    : record_(static_cast<DORecordHeader const*>(buffer)) {
    ValidHeader const header = RequireValid(buffer, size, options);
    fields_ = header.fields;
    order_ = header.order;
}

unsigned char const* DORecordView::GetBloom() const noexcept {
    bool const bitmap = IsBloom(fields_.dotype) && fields_.bsize != 0;
    return bitmap ? BytesOf(record_) + CR_DO_HEADER_SIZE + kBloomLengthSize : nullptr;
}

DOSegmentRange DORecordView::Segments() const noexcept {
    return DOSegmentRange(SegmentSourceOf(fields_, BytesOf(record_), order_));
}

DOUniqueDCIDRange DORecordView::UniqueDCIDs() const noexcept {
    return DOUniqueDCIDRange(UniqueSourceOf(fields_, BytesOf(record_)));
}

DOReferenceRange DORecordView::References() const noexcept {
    RecordLayout const layout(CountsOf(&fields_, Order::Host));
    return {BytesOf(record_) + layout.trefs, BytesOf(record_) + layout.tail};
}
