// The references of a record as examples/store.cpp keeps them, and the changes to them, without a database.
//
// The references of a record (the value) and a change to them (the operand of a merge) have one form. So a change can
// be merged into a value and into another change. Integers are big-endian, references are serialized as in a record
// (crrecord/tref.h):
//
//   bytes  content
//   1      1, the number of this form
//   4      time of the last change in seconds since the epoch, or 0 if the record is as it was put
//   8      A, the size of the references that are added, in bytes
//   8      R, the size of the references that are removed, in bytes
//   A      the references that are added; in a value, all references, ascending and without repetition
//   R      the references that are removed; in a value, none
//   rest   the undecoded bytes: for each value or change that could not be decoded its size (4) and the bytes
//
// References are a set of pairs of kind and id. A change first removes, then adds: a reference in both lists is added.
// Adding a reference that is present and removing one that is absent change nothing but the time. The last of several
// changes to one reference counts; changes to different references commute. The time is the latest of all times.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A decoded value or change.
struct ReferenceChanges {
    std::uint32_t time = 0;
    std::string_view added;
    std::string_view removed;
    std::string_view undecoded;
};

// The first byte that could not be decoded, and what was expected there.
struct DecodingFault {
    std::size_t offset;
    char const* expected;
};

std::string EncodeChanges(ReferenceChanges const& changes);

// Decodes bytes, which may be any bytes.
// Returns: nothing if `changes` was filled; otherwise the fault.
// Lifetime: `changes` refers to `bytes`.
std::optional<DecodingFault> DecodeChanges(std::string_view bytes, ReferenceChanges& changes);

// The values and changes in the undecoded bytes of decoded changes.
std::vector<std::string_view> UndecodedParts(std::string_view undecoded);

// What a merge does with the references that are removed at its end.
enum class Removals {
    Drop, // the result is a value
    Keep, // the result is a change, to be merged into a value later
};

// Merges values and changes, oldest first, which may be any bytes. Undecoded ones are kept in the result, in order.
// Merging is associative: changes may be merged with each other before they are merged into a value.
// Returns: a value or change that can be decoded.
std::string MergeChanges(std::vector<std::string_view> const& oldestFirst, Removals removals);
