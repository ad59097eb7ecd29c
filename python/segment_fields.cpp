#include "segment_fields.h"

#include "base/byteorder.h"

namespace crrecord::python {

// The counts are 0 during the conversion, which would otherwise convert the bytes after the fixed part, too.
_SegmentDBRecord ToHost(_SegmentDBRecord fields) {
    auto const ntaskids = ByteSwapped(fields.ntaskids);
    auto const nfp = ByteSwapped(fields.nfp);
    auto const recsize = ByteSwapped(fields.recsize);
    fields.ntaskids = fields.nfp = 0;
    SegmentRecordNtoh(&fields, &fields, 0);
    fields.ntaskids = ntaskids;
    fields.nfp = nfp;
    fields.recsize = recsize;
    return fields;
}

} // namespace crrecord::python
