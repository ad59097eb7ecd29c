// Builds DO records from Python objects: segments, packed entries, bitmaps.

#include "construction.h"

#include "support/layout/record_layout.h"

#include <algorithm>
#include <vector>

namespace crrecord::python {

namespace {

void RequireTypes(NewFields const& fields) {
    if (!CRDOTypeIsValid(fields.dotype)) {
        throw Cr_ErrnoException(CR_STATUS_INVALID_DO_TYPE);
    }
    if (!CRFPTypeIsValid(fields.fptype)) {
        throw Cr_ErrnoException(CR_STATUS_INVALID_FP_TYPE);
    }
    if (IsBloom(fields.dotype)) {
        throw py::value_error("a bloom record has no segments: use DORecord.from_bloom");
    }
}

// The library takes the length of the list from its count, so the count must match the buffer.
std::optional<Slice> PinList(py::object const& list) {
    if (list.is_none()) {
        return std::nullopt;
    }
    Slice bytes = PinWhole(list);
    if (bytes.size < kUniqueHeadSize ||
        bytes.size != kUniqueHeadSize +
                          std::uint64_t{kUniqueEntrySize} * Load<std::uint32_t>(bytes.Data() + kUniqueCountOffset)) {
        throw py::value_error("the size of unique_list does not match its count");
    }
    return bytes;
}

char const* ListIn(std::optional<Slice> const& list) {
    return list ? reinterpret_cast<char const*>(list->Data()) : nullptr;
}

template <class Number>
Number NumberFrom(py::object const& object) {
    try {
        return py::cast<Number>(object);
    } catch (py::cast_error const&) {
        throw py::value_error("a size, offset or container does not fit: " + py::cast<std::string>(py::repr(object)));
    }
}

// Packs segments into the entries and containers of a record in host order.
class Packer {
public:
    explicit Packer(NewFields const& fields)
        : layout_(RecordCounts{.fptype = fields.fptype, .dotype = fields.dotype}), dotype_(fields.dotype) {}

    void Add(py::handle item) {
        py::sequence const parts = py::reinterpret_borrow<py::sequence>(item);
        if (!py::isinstance<py::sequence>(item) || py::len(parts) != 4) {
            throw py::value_error("a segment is (fingerprint, size, offset, dcid)");
        }
        py::object const bytes = parts[0];
        PinnedBuffer const fingerprint(bytes);
        auto const size = NumberFrom<unsigned int>(parts[1]);
        py::object const offset = parts[2];
        if (fingerprint.Size() != layout_.fingerprint) {
            throw py::value_error("a fingerprint of this type has " + std::to_string(layout_.fingerprint) + " bytes");
        }
        dcids_.push_back(NumberFrom<unsigned long>(parts[3]));
        std::size_t const at = entries_.size();
        entries_.resize(at + layout_.stride);
        std::memcpy(&entries_[at], fingerprint.Data(), layout_.fingerprint);
        if (DOTypeOf(dotype_).sizeWidth != 0) {
            Store(&entries_[at + layout_.fingerprint], size);
        }
        unsigned long start = end_;
        if (DOTypeOf(dotype_).offsetWidth == 8) {
            start = NumberFrom<unsigned long>(offset);
            Store(&entries_[at + layout_.offset], start);
        } else if (DOTypeOf(dotype_).offsetWidth == 4) {
            start = NumberFrom<unsigned int>(offset);
            Store(&entries_[at + layout_.offset], static_cast<unsigned int>(start));
        }
        // If the sum wraps, the check of the segment list reports it.
        end_ = start + size;
    }

    std::vector<unsigned char> const& Entries() const noexcept { return entries_; }
    std::vector<unsigned long> const& Dcids() const noexcept { return dcids_; }
    unsigned long End() const noexcept { return end_; }

private:
    RecordLayout layout_;
    unsigned char dotype_;
    std::vector<unsigned char> entries_;
    std::vector<unsigned long> dcids_;
    unsigned long end_ = 0;
};

unsigned int CountOf(unsigned long count) {
    if (count > std::numeric_limits<unsigned int>::max()) {
        throw Cr_ErrnoException(CR_STATUS_INVALID, "invalid record size for DO", nullptr);
    }
    return static_cast<unsigned int>(count);
}

// The library has one constructor for records with segments and one for records with a bitmap. An empty record needs
// the constructor of the other kind.
std::unique_ptr<DORecord> BuildOfSegments(unsigned char const* entries, std::vector<unsigned long> const& dcids,
                                          unsigned long size, NewFields const& fields, unsigned char dotype) {
    std::optional<Slice> const list = PinList(fields.uniqueList);
    return std::make_unique<DORecord>(fields.cid, size, fields.segmentSize, fields.crc, fields.ctime, fields.mtime,
                                      static_cast<void const*>(entries), CountOf(dcids.size()), dcids.data(),
                                      ListIn(list), fields.fptype, dotype);
}

std::unique_ptr<DORecord> BuildOfBits(unsigned char const* bits, unsigned long count, unsigned long size,
                                      NewFields const& fields, unsigned char dotype) {
    std::optional<Slice> const list = PinList(fields.uniqueList);
    return std::make_unique<DORecord>(fields.cid, size, fields.segmentSize, fields.crc, fields.ctime, fields.mtime,
                                      CountOf(count), bits, ListIn(list), fields.fptype, dotype);
}

std::unique_ptr<DORecord> Build(unsigned char const* entries, std::vector<unsigned long> const& dcids,
                                unsigned long size, NewFields const& fields) {
    if (dcids.empty()) {
        unsigned char const nothing[1] = {};
        return BuildOfBits(nothing, 0, size, fields, fields.dotype);
    }
    return BuildOfSegments(entries, dcids, size, fields, fields.dotype);
}

} // namespace

std::unique_ptr<DORecord> FromSegments(py::iterable const& segments, NewFields const& fields) {
    RequireTypes(fields);
    Packer packer(fields);
    for (py::handle const segment : segments) {
        packer.Add(segment);
    }
    return Build(packer.Entries().data(), packer.Dcids(), fields.size.value_or(packer.End()), fields);
}

std::unique_ptr<DORecord> FromEntries(py::object const& entries, py::object const& dcids, NewFields fields) {
    RequireTypes(fields);
    Slice const packed = PinWhole(entries);
    Slice const containers = PinWhole(dcids);
    RecordLayout const layout(RecordCounts{.fptype = fields.fptype, .dotype = fields.dotype});
    unsigned long const count = containers.size / kDcidSize;
    if (containers.size % kDcidSize != 0 || packed.size % layout.stride != 0 || packed.size / layout.stride != count) {
        throw py::value_error("entries of " + std::to_string(layout.stride) +
                              " bytes and dcids of 8 bytes differ in number");
    }
    std::vector<unsigned long> aligned(count);
    std::copy_n(containers.Data(), containers.size, reinterpret_cast<unsigned char*>(aligned.data()));
    return Build(packed.Data(), aligned, fields.size.value(), fields);
}

std::unique_ptr<DORecord> FromBloom(py::object const& bitmap, NewFields const& fields) {
    Slice const bits = PinWhole(bitmap);
    unsigned long const size = fields.size.value();
    if (bits.size == 0) {
        return BuildOfSegments(nullptr, {}, size, fields, CR_DO_TYPE_BLOOM_FILTER);
    }
    return BuildOfBits(bits.Data(), bits.size, size, fields, CR_DO_TYPE_BLOOM_FILTER);
}

} // namespace crrecord::python
