// The containers of the segments that are stored already.

#pragma once

#include "analysis/hash_table.h"

#include <crrecord/fingerprint.h>

#include <cstring>
#include <optional>

namespace crrecord::tool {

// A map from the fingerprint and the size of a segment to its container, for fingerprints of one type.
//
// Memory: 51 bytes for each different segment.
class StoredSegments {
public:
    // Returns: the container of a segment, or std::nullopt if it is not stored.
    std::optional<std::uint64_t> Find(crfp_digest_t const& fingerprint, std::uint32_t size) {
        Entry const wanted = MakeEntry(fingerprint, size, 0);
        Entry const* const found = table_.Find(HashOfEntry()(wanted), [&wanted](Entry const& other) {
            return std::memcmp(&other, &wanted, offsetof(Entry, container)) == 0;
        });
        if (!found) {
            return std::nullopt;
        }
        std::uint64_t container = 0;
        std::memcpy(&container, found->container, sizeof container);
        return container;
    }

    // Adds a segment that Find does not find. Bytes after a 16-byte fingerprint must be zeros.
    void Add(crfp_digest_t const& fingerprint, std::uint32_t size, std::uint64_t container) {
        Entry const entry = MakeEntry(fingerprint, size, container);
        table_.Add(HashOfEntry()(entry), entry);
    }

private:
    // Arrays of bytes, because alignment would cost memory.
    struct Entry {
        unsigned char fingerprint[sizeof(crfp_digest_t)];
        unsigned char size[sizeof(std::uint32_t)];
        unsigned char container[sizeof(std::uint64_t)];
    };
    struct HashOfEntry {
        std::uint64_t operator()(Entry const& entry) const {
            std::uint32_t size = 0;
            std::memcpy(&size, entry.size, sizeof size);
            return HashOfSegment(entry.fingerprint, sizeof entry.fingerprint, size);
        }
    };

    static Entry MakeEntry(crfp_digest_t const& fingerprint, std::uint32_t size, std::uint64_t container) {
        Entry entry;
        std::memcpy(entry.fingerprint, fingerprint.bytes, sizeof entry.fingerprint);
        std::memcpy(entry.size, &size, sizeof size);
        std::memcpy(entry.container, &container, sizeof container);
        return entry;
    }

    HashTable<Entry, HashOfEntry> table_;
};

} // namespace crrecord::tool
