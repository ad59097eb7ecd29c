// Builds DO records from Python objects: segments, packed entries, bitmaps.

#include "construction.h"

#include "array.h"
#include "format.h"
#include "support/layout/record_layout.h"

#include <algorithm>
#include <bit>
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

template <class Number>
Number NumberFrom(py::object const& object) {
    try {
        return py::cast<Number>(object);
    } catch (py::cast_error const&) {
        throw py::value_error("a size, offset or container does not fit: " + ShortRepr(object));
    }
}

// Returns: a complete list of the (container, bytes) pairs.
py::bytes PackList(py::iterable const& pairs) {
    std::vector<unsigned char> list(kUniqueHeadSize);
    std::uint32_t count = 0;
    for (py::handle const pair : pairs) {
        if (!py::isinstance<py::tuple>(pair) || py::len(pair) != 2) {
            throw py::value_error("unique_list is a complete list or pairs of container and bytes");
        }
        auto const parts = py::reinterpret_borrow<py::tuple>(pair);
        list.resize(list.size() + kUniqueEntrySize);
        Store(&list[list.size() - kUniqueEntrySize], NumberFrom<std::uint64_t>(parts[0]));
        Store(&list[list.size() - kUniqueEntrySize + 8], NumberFrom<std::uint64_t>(parts[1]));
        CheckSignals(++count);
    }
    Store(&list[kUniqueCountOffset], count);
    py::object const checksum = py::module_::import("zlib").attr("adler32")(
        BytesOf(&list[kUniqueCountOffset], list.size() - kUniqueCountOffset));
    Store(list.data(), py::cast<std::uint32_t>(checksum));
    return BytesOf(list.data(), list.size());
}

py::bytes CopyOf(Slice const& bytes) {
    return BytesOf(bytes.Data(), bytes.size);
}

// The library takes the length of the list from its count, so the count must match the buffer. The list is copied,
// since somebody may change the count of a map after it was checked.
std::optional<Slice> PinList(py::object const& list) {
    if (list.is_none()) {
        return std::nullopt;
    }
    bool const isComplete = PyObject_CheckBuffer(list.ptr()) && !py::isinstance<Array>(list);
    Slice const bytes = PinWhole(isComplete ? CopyOf(PinWhole(list)) : PackList(py::iterable(list)));
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
    py::ssize_t i = 0;
    for (py::handle const segment : segments) {
        packer.Add(segment);
        CheckSignals(i++);
    }
    return Build(packer.Entries().data(), packer.Dcids(), fields.size.value_or(packer.End()), fields);
}

namespace {

FormatField UnsignedAt(unsigned long position, unsigned long width, std::string const& name) {
    return {false, position, width, true, std::endian::native == std::endian::big, name};
}

// The fields of an entry, as a buffer with structures has them.
std::vector<FormatField> EntryFields(RecordLayout const& layout) {
    std::vector<FormatField> fields{{true, 0, layout.fingerprint, false, false, "fingerprint"}};
    if (layout.sizeWidth != 0) {
        fields.push_back(UnsignedAt(layout.fingerprint, layout.sizeWidth, "size"));
    }
    if (layout.offsetWidth != 0) {
        fields.push_back(UnsignedAt(layout.offset, layout.offsetWidth, "offset"));
    }
    return fields;
}

bool IsNameOf(std::vector<FormatField> const& fields, std::string const& name) {
    return std::any_of(fields.begin(), fields.end(), [&](FormatField const& field) { return field.name == name; });
}

// Names of the caller's own are accepted; those of other fields are not.
bool AreSame(std::vector<FormatField> found, std::vector<FormatField> const& expected) {
    for (std::size_t i = 0; i < std::min(found.size(), expected.size()); ++i) {
        if (!IsNameOf(expected, found[i].name)) {
            found[i].name = expected[i].name;
        }
    }
    return found == expected;
}

// Raises ValueError for a format that is neither that of bytes nor the expected one.
void RequireFormat(Slice const& buffer, std::vector<FormatField> const& expected, std::string const& text) {
    auto const found = ParseFormat(buffer.owner->Format());
    bool const isBytes = found && found->size() == 1 && found->front().isBytes;
    if (!found || (!isBytes && !AreSame(*found, expected))) {
        throw py::value_error("the format of " + text + ", or bytes, not '" +
                              std::string(buffer.owner->Format()).substr(0, 100) + "'");
    }
}

} // namespace

std::unique_ptr<DORecord> FromEntries(py::object const& entries, py::object const& dcids, NewFields fields) {
    RequireTypes(fields);
    Slice const packed = PinWhole(entries);
    Slice const containers = PinWhole(dcids);
    RecordLayout const layout(RecordCounts{.fptype = fields.fptype, .dotype = fields.dotype});
    RequireFormat(packed, EntryFields(layout),
                  "entries is that of View.entries in host order for this DO type and fingerprint type");
    RequireFormat(containers, {UnsignedAt(0, kDcidSize, "dcid")}, "dcids is unsigned 64-bit integers in host order");
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
