// Segments and unique DCID list of a DO record as ranges.
//
// DORecordView and DORecord return them (Segments, UniqueDCIDs). They read records in either order and return host
// values. Reading is inline; docs/performance.md has its cost.

#pragma once

#include <crrecord/entry_layout.h>
#include <crrecord/record_range.h>

#include <cstdint>

// A fingerprint in a record's buffer.
//
// Lifetime: that of the record's bytes.
struct DOFingerprint {
    unsigned char const* data;
    unsigned int size; // in bytes: 16 or 32

    // Returns: a copy whose second half is zero for 16-byte fingerprints.
    crfp_digest_t Copy() const noexcept {
        crfp_digest_t copy{};
        std::memcpy(copy.bytes, data, size);
        return copy;
    }
    friend bool operator==(DOFingerprint const& a, DOFingerprint const& b) noexcept {
        return a.size == b.size && std::memcmp(a.data, b.data, a.size) == 0;
    }
    friend bool operator!=(DOFingerprint const& a, DOFingerprint const& b) noexcept { return !(a == b); }
};

// One segment, as host values.
struct DOSegment {
    DOFingerprint fingerprint;
    unsigned int size;    // in bytes, derived ones cut to 32 bits; 0xffffffff for DO types without sizes
    unsigned long offset; // in bytes, of DO types 3 and 5; 2^64 - 1 for the others
    unsigned long dcid;   // the container that holds the segment
};

// One entry of the unique DCID list, as host values on the kind of machine that built the record.
struct DOUniqueDCID {
    unsigned long dcid;
    unsigned long bytes; // number of the object's bytes in that container
};

// The source of a range of segments: position and layout of the entries in a record. The members are not for callers.
//
// Preconditions: Of takes a record in either order whose counts fit its buffer, as after validation. The other
// functions take an index below count.
struct DOSegmentSource : crrecord::DOEntryLayout {
    typedef DOSegment value_type;

    CRRECORD_API static DOSegmentSource Of(DORecordHeader const* header) noexcept;
    DOSegment Read(unsigned int i) const noexcept {
        return order == crrecord::Order::Host ? ReadIn<crrecord::Order::Host>(i) : ReadIn<crrecord::Order::Network>(i);
    }
    unsigned char const* Entry(unsigned int i) const noexcept { return entries + std::uint64_t{i} * stride; }
    // The size and the offset that Read returns, without reading the rest of the segment.
    unsigned int Size(unsigned int i) const noexcept {
        return order == crrecord::Order::Host ? SizeIn<crrecord::Order::Host>(i) : SizeIn<crrecord::Order::Network>(i);
    }
    unsigned long Offset(unsigned int i) const noexcept {
        return order == crrecord::Order::Host ? OffsetIn<crrecord::Order::Host>(i)
                                              : OffsetIn<crrecord::Order::Network>(i);
    }

    // Calls use(segment) for each segment, in order.
    template <class Use>
    void ForEach(Use& use) const {
        order == crrecord::Order::Host ? ForEachIn<crrecord::Order::Host>(use)
                                       : ForEachIn<crrecord::Order::Network>(use);
    }

    unsigned char const* entries;
    unsigned char const* dcids;
    unsigned long objectSize;
    unsigned long ssize;
    unsigned int count;
    crrecord::Order order; // of sizes and offsets

private:
    template <crrecord::Order order, class Use>
    void ForEachIn(Use& use) const {
        switch (offsetWidth) {
        case 8: return ForEachOf<order, 4, 8>(use);
        case 4: return ForEachOf<order, 4, 4>(use);
        default: return sizeWidth != 0 ? ForEachOf<order, 4, 0>(use) : ForEachOf<order, 0, 0>(use);
        }
    }
    // Reads from a copy whose widths the compiler knows, so that the loop does not test them.
    template <crrecord::Order order, unsigned char knownSizeWidth, unsigned char knownOffsetWidth, class Use>
    void ForEachOf(Use& use) const {
        DOSegmentSource source = *this;
        source.sizeWidth = knownSizeWidth;
        source.offsetWidth = knownOffsetWidth;
        for (unsigned int i = 0; i < source.count; ++i) {
            use(source.ReadIn<order>(i));
        }
    }
    template <crrecord::Order order>
    DOSegment ReadIn(unsigned int i) const noexcept {
        return {{Entry(i), fingerprint},
                SizeIn<order>(i),
                OffsetIn<order>(i),
                crrecord::Load<std::uint64_t>(dcids + std::uint64_t{i} * 8)};
    }
    template <crrecord::Order order>
    unsigned int SizeIn(unsigned int i) const noexcept {
        return sizeWidth != 0 ? crrecord::Load<std::uint32_t>(Entry(i) + fingerprint, order)
                              : DerivedSize(i, count, objectSize, ssize);
    }
    template <crrecord::Order order>
    unsigned long OffsetIn(unsigned int i) const noexcept {
        switch (offsetWidth) {
        case 8: return crrecord::Load<std::uint64_t>(Entry(i) + offset, order);
        case 4: return crrecord::Load<std::uint32_t>(Entry(i) + offset, order);
        default: return crrecord::kNoOffset;
        }
    }
};

// As DOSegmentSource, for the entries of the unique DCID list.
struct DOUniqueDCIDSource {
    typedef DOUniqueDCID value_type;

    CRRECORD_API static DOUniqueDCIDSource Of(DORecordHeader const* header) noexcept;

    DOUniqueDCID Read(unsigned int i) const noexcept {
        unsigned char const* const entry = entries + std::uint64_t{i} * 16;
        return {crrecord::Load<std::uint64_t>(entry), crrecord::Load<std::uint64_t>(entry + 8)};
    }

    unsigned char const* entries;
    unsigned int count;
};

// The ranges that records and views return.
typedef cr_record_range<DOSegmentSource> DOSegmentRange;
typedef cr_record_range<DOUniqueDCIDSource> DOUniqueDCIDRange;

// Calls use(segment) for each segment, in order. The DO type and the byte order are tested once, and not for each
// segment as by an iterator.
template <class Use>
void ForEachSegment(DOSegmentRange const& segments, Use&& use) {
    segments.GetSource().ForEach(use);
}
