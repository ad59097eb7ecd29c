// DORecordView: a validated DO record, read in place.

#pragma once

#include <crrecord/segments.h>
#include <crrecord/tref.h>

// A typed reference as it stands in a record.
struct DOReference {
    cr_reftype_t kind;
    unsigned long id;
};

// The typed references of a record, in stored order.
class DOReferenceRange {
public:
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag; // since it yields values; otherwise forward
        using value_type = DOReference;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = DOReference;

        iterator() noexcept : at_(nullptr), end_(nullptr) {}
        iterator(unsigned char const* at, unsigned char const* end) noexcept : at_(at), end_(end) {}
        // Kind and id are 0 for bytes that are no reference.
        CRRECORD_API DOReference operator*() const noexcept;
        // Goes to the end from bytes that are no reference.
        CRRECORD_API iterator& operator++() noexcept;
        iterator operator++(int) noexcept {
            iterator const before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(iterator const& a, iterator const& b) noexcept { return a.at_ == b.at_; }
        friend bool operator!=(iterator const& a, iterator const& b) noexcept { return a.at_ != b.at_; }

    private:
        unsigned char const* at_;
        unsigned char const* end_;
    };
    using const_iterator = iterator;
    using value_type = DOReference;

    DOReferenceRange(unsigned char const* from, unsigned char const* to) noexcept : from_(from), to_(to) {}
    iterator begin() const noexcept { return {from_, to_}; }
    iterator end() const noexcept { return {to_, to_}; }
    bool empty() const noexcept { return from_ == to_; }

private:
    unsigned char const* from_;
    unsigned char const* to_;
};

// Read-only and non-owning, over a buffer of either order: a mapped file, a slice of a database, bytes off a wire. It
// is made by validation and by nothing else, so everything that it gives lies in the buffer. The buffer must outlive
// the view and its ranges. All numbers are host values.
//
// The view keeps the header that it has validated. If the buffer changes later, or during validation, the ranges yield
// wrong values, but they never leave the buffer. GetHeader gives the changing header: don't use its counts then.
//
// Threads: any number may read one view.
class DORecordView {
public:
    // Validates `size` bytes; finds out their order by itself. Option: CR_DO_SUB_DO. Throws 32 with the first error's
    // message, 9 for null or another option bit.
    CRRECORD_API DORecordView(void const* buffer, unsigned long size, unsigned int options = 0);

    bool IsInNetworkOrder() const noexcept { return networkOrder_; }
    unsigned short GetFlags() const noexcept { return fields_.flags; }
    unsigned int GetHeaderSize() const noexcept { return fields_.recsize; } // bytes of the whole record
    unsigned int GetCheckTime() const noexcept { return fields_.checktime; }
    unsigned long GetDCID() const noexcept { return fields_.CID; }
    unsigned long GetSize() const noexcept { return fields_.size; }
    unsigned long GetSsize() const noexcept { return fields_.ssize; }
    unsigned int GetCrc() const noexcept { return fields_.CRC; }
    unsigned int GetCTime() const noexcept { return fields_.ctime; }
    unsigned int GetMTime() const noexcept { return fields_.mtime; }
    unsigned int GetNfp() const noexcept { return fields_.nfp; }
    unsigned int GetNudcid() const noexcept { return fields_.nudcid; }
    unsigned int GetTRefsSize() const noexcept { return fields_.trefssize; }
    unsigned int GetBSize() const noexcept { return fields_.bsize; }
    unsigned char GetFPType() const noexcept { return fields_.fptype; }
    unsigned char GetDOType() const noexcept { return fields_.dotype; }
    // Numbers of legacy references, which the ranges leave out.
    unsigned int GetLegacyTaskIDs() const noexcept { return fields_.ntaskid; }
    unsigned int GetLegacyDSIDs() const noexcept { return fields_.nds; }
    // GetBSize() bytes; null where there are none.
    CRRECORD_API unsigned char const* GetBloom() const noexcept;

    CRRECORD_API DOSegmentRange Segments() const noexcept;
    CRRECORD_API DOUniqueDCIDRange UniqueDCIDs() const noexcept;
    CRRECORD_API DOReferenceRange References() const noexcept;

    // The record itself, as it stands.
    DORecordHeader const* GetHeader() const noexcept { return record_; }

private:
    DORecordHeader const* record_;
    DORecordHeader fields_; // the header in host order
    bool networkOrder_;
};
