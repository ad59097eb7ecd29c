// DORecordView: a validated DO record, read in place.
//
// A view copies the fixed header and nothing else. All values that it gives are host values, in either order of the
// record; DCIDs and the unique DCID list are as the machine that built the record wrote them.

#pragma once

#include <crrecord/references.h>
#include <crrecord/segments.h>

// A read-only view of a buffer that it does not own, in either order: a mapped file, a slice of a database, received
// bytes. Its constructor validates the buffer, so everything that a view returns is inside the buffer. All numbers are
// host values.
//
// The view keeps the header that it has validated. If the buffer changes later, or during validation, the ranges yield
// wrong values, but they never leave the buffer. GetHeader returns the changing header: do not use its counts then.
//
// Lifetime: the buffer must exist, unchanged, while the view or a range, iterator or pointer from it is in use.
// Thread safety: any number of threads may read one view.
class DORecordView {
public:
    // Validates `size` bytes, which may be any bytes, and detects their order. The only option is CR_DO_SUB_DO.
    // Throws: Cr_ErrnoException with CR_STATUS_CORRUPT_RECORD and the message of the first error; with
    // CR_STATUS_INVALID, without a text, for null or another option bit.
    CRRECORD_API DORecordView(void const* buffer, unsigned long size, unsigned int options = 0);

    // Header fields (DORecordHeader.h). GetHeaderSize is the bytes of the whole record; sizes are in bytes, times in
    // seconds since the epoch.
    bool IsInNetworkOrder() const noexcept { return order_ == crrecord::Order::Network; }
    // Bits 0x0002 and 0x0004 only.
    unsigned short GetFlags() const noexcept { return fields_.flags; }
    unsigned int GetHeaderSize() const noexcept { return fields_.recsize; }
    unsigned int GetCheckTime() const noexcept { return fields_.checktime; }
    // The container of the record itself.
    unsigned long GetDCID() const noexcept { return fields_.CID; }
    // Bytes of the object, and of a segment of DO types 0 and 1.
    unsigned long GetSize() const noexcept { return fields_.size; }
    unsigned long GetSsize() const noexcept { return fields_.ssize; }
    unsigned int GetCrc() const noexcept { return fields_.CRC; }
    unsigned int GetCTime() const noexcept { return fields_.ctime; }
    unsigned int GetMTime() const noexcept { return fields_.mtime; }
    // Number of segments, and of entries of the unique DCID list; bytes of the typed references and of the bitmap.
    unsigned int GetNfp() const noexcept { return fields_.nfp; }
    unsigned int GetNudcid() const noexcept { return fields_.nudcid; }
    unsigned int GetTRefsSize() const noexcept { return fields_.trefssize; }
    unsigned int GetBSize() const noexcept { return fields_.bsize; }
    unsigned char GetFPType() const noexcept { return fields_.fptype; }
    unsigned char GetDOType() const noexcept { return fields_.dotype; }
    // Number of legacy task ids and DSIDs. No range has them; DORecord::FromBuffer converts them.
    unsigned int GetLegacyTaskIDs() const noexcept { return fields_.ntaskid; }
    unsigned int GetLegacyDSIDs() const noexcept { return fields_.nds; }
    // Returns: the GetBSize() bytes of the bitmap; null without a bitmap and for other types than
    // CR_DO_TYPE_BLOOM_FILTER.
    CRRECORD_API unsigned char const* GetBloom() const noexcept;

    // The segments, the unique DCID list (segments.h) and the typed references (references.h).
    CRRECORD_API DOSegmentRange Segments() const noexcept;
    CRRECORD_API DOUniqueDCIDRange UniqueDCIDs() const noexcept;
    CRRECORD_API DOReferenceRange References() const noexcept;

    // Returns: the start of the buffer, with its fields in the record's order.
    DORecordHeader const* GetHeader() const noexcept { return record_; }

private:
    DORecordHeader const* record_;
    DORecordHeader fields_; // the header in host order
    crrecord::Order order_;
};
