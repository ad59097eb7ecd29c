#include "reference_changes.h"

#include <crrecord/byte_order.h>
#include <crrecord/references.h>

#include <algorithm>

namespace {

using crrecord::Order;

constexpr char kForm = 1;

template <class T>
void Append(std::string& bytes, T value) {
    value = crrecord::InOrder(value, Order::Network);
    bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
}

// Reads bytes from the start to the end.
class Cursor {
public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

    std::size_t Offset() const { return offset_; }
    std::string_view Rest() const { return bytes_.substr(offset_); }

    // Returns: false, with `value` unchanged, if too few bytes are left. So does Take.
    template <class T>
    bool Read(T& value) {
        std::string_view field;
        if (!Take(sizeof value, field)) {
            return false;
        }
        value = crrecord::Load<T>(field.data(), Order::Network);
        return true;
    }

    bool Take(std::uint64_t size, std::string_view& part) {
        if (size > bytes_.size() - offset_) {
            return false;
        }
        part = bytes_.substr(offset_, size);
        offset_ += size;
        return true;
    }

private:
    std::string_view bytes_;
    std::size_t offset_ = 0;
};

// Returns: the bytes of the reference at the start of `section`; empty if it does not start with a reference.
std::string_view FirstReference(std::string_view section) {
    DOReference reference{};
    auto const* const bytes = reinterpret_cast<unsigned char const*>(section.data());
    return section.substr(0, DOReferenceDecode(bytes, section.size(), reference));
}

// Returns: the bytes before the first that are no reference.
std::size_t DecodableSize(std::string_view section) {
    std::string_view rest = section;
    for (std::string_view reference; !(reference = FirstReference(rest)).empty();) {
        rest.remove_prefix(reference.size());
    }
    return section.size() - rest.size();
}

struct Item {
    std::string_view reference; // in serialized form, whose bytes have the order of references
    bool added;
};

void AppendItems(std::vector<Item>& items, std::string_view section, bool added) {
    while (!section.empty()) {
        std::string_view const reference = FirstReference(section);
        items.push_back({reference, added});
        section.remove_prefix(reference.size());
    }
}

} // namespace

std::string EncodeChanges(ReferenceChanges const& changes) {
    std::string bytes(1, kForm);
    Append(bytes, changes.time);
    Append(bytes, std::uint64_t{changes.added.size()});
    Append(bytes, std::uint64_t{changes.removed.size()});
    return bytes.append(changes.added).append(changes.removed).append(changes.undecoded);
}

std::optional<DecodingFault> DecodeChanges(std::string_view bytes, ReferenceChanges& changes) {
    if (bytes.empty() || bytes.front() != kForm) {
        return DecodingFault{0, "form 1"};
    }
    Cursor cursor(bytes);
    std::string_view form;
    ReferenceChanges decoded;
    std::uint64_t addedSize = 0;
    std::uint64_t removedSize = 0;
    if (!cursor.Take(1, form) || !cursor.Read(decoded.time) || !cursor.Read(addedSize) || !cursor.Read(removedSize)) {
        return DecodingFault{cursor.Offset(), "time and sizes"};
    }
    for (auto const& [size, section] : {std::pair{addedSize, &decoded.added}, {removedSize, &decoded.removed}}) {
        std::size_t const start = cursor.Offset();
        if (!cursor.Take(size, *section)) {
            return DecodingFault{start, "as many bytes of references as the size says"};
        }
        if (std::size_t const good = DecodableSize(*section); good != section->size()) {
            return DecodingFault{start + good, "a reference"};
        }
    }
    decoded.undecoded = cursor.Rest();
    while (!cursor.Rest().empty()) {
        std::uint32_t size = 0;
        std::string_view part;
        if (!cursor.Read(size) || !cursor.Take(size, part)) {
            return DecodingFault{cursor.Offset(), "the size of undecoded bytes, and the bytes"};
        }
    }
    changes = decoded;
    return {};
}

std::vector<std::string_view> UndecodedParts(std::string_view undecoded) {
    std::vector<std::string_view> parts;
    Cursor cursor(undecoded);
    std::uint32_t size = 0;
    std::string_view part;
    while (cursor.Read(size) && cursor.Take(size, part)) {
        parts.push_back(part);
    }
    return parts;
}

std::string MergeChanges(std::vector<std::string_view> const& oldestFirst, Removals removals) {
    std::uint32_t time = 0;
    std::vector<Item> items;
    std::string undecoded;
    for (std::string_view const bytes : oldestFirst) {
        ReferenceChanges changes;
        if (DecodeChanges(bytes, changes)) {
            Append(undecoded, static_cast<std::uint32_t>(bytes.size())); // the database limits values to 32 bits
            undecoded.append(bytes);
            continue;
        }
        time = std::max(time, changes.time);
        AppendItems(items, changes.removed, false);
        AppendItems(items, changes.added, true);
        undecoded.append(changes.undecoded);
    }
    // Stable, so that the last change of a reference stays the last.
    std::stable_sort(items.begin(), items.end(),
                     [](Item const& a, Item const& b) { return a.reference < b.reference; });
    std::string added;
    std::string removed;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i + 1 == items.size() || items[i].reference != items[i + 1].reference) {
            (items[i].added ? added : removed).append(items[i].reference);
        }
    }
    return EncodeChanges({time, added, removals == Removals::Keep ? std::string_view(removed) : "", undecoded});
}
