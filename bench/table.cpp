// The table of operations, references and targets.

#include "sides.h"

namespace bench {

namespace {

constexpr Shape kShort{3, 2};    // 16-byte fingerprints
constexpr Shape kOriginal{0, 2}; // without sizes and offsets

constexpr unsigned int kFileSegments = 4096;  // a file of 512 MiB
constexpr unsigned int kEntries = 10'000'000; // in a store, 520 MB

constexpr double kAny = kNoTarget, kNone = kNotMeasured;

constexpr char kFill[] = "calloc, memset of the output";
constexpr char kCopy[] = "malloc, memcpy of the record";
constexpr char kRead[] = "strided read pass";

constexpr Operation kOperations[] = {
    {"Serialize with checksum", kFill, Serialize, 3.0, 1.7, 0.30},
    {"Serialize", kFill, SerializeWithoutChecksum, 2.1, 1.5, 0.25},
    {"Serialize with checksum", "FlatBuffers structs, encode", SerializeFlatBuffers, 1.0, 1.4, kNone},
    {"Serialize with checksum", "FlatBuffers, tutorial's way", SerializeFlatBuffersVector, kAny, kAny, kNone},
    {"Serialize with checksum", "Cap'n Proto flat array, encode", SerializeCapnProto, 0.8, 0.8, kNone},
    {"Serialize with checksum", "Protocol Buffers, encode", SerializeProtobuf, 0.3, 0.4, kNone},
    {"validate and parse a form", kCopy, Parse, 5.0, 2.0, 0.5},
    {"the same, with its checksum", kCopy, ParseWithChecksum, kAny, kAny, kAny},
    {"validate and parse a form", "FlatBuffers tables, verify, fill", ParseFlatBuffers, 0.45, 0.65, kNone},
    {"validate and parse a form", "Protocol Buffers, parse, fill", ParseProtobuf, 0.15, 0.25, kNone},
    {"build from segments", kCopy, Build, 2.4, 1.3, kNone},
    {"Wrap", kRead, Wrap, 3, 1.4, kNone},
    {"FromBuffer, network order", kCopy, FromBuffer, 3, 1.6, kNone},
    {"HostToNetwork, NetworkToHost", "strided read-modify-write pass", Convert, 1.1, 1.1, kNone},
    {"checkSegmentList", kRead, CheckSegmentList, 2.2, 1.2, kNone},
    {"Segments(), range-for", "plain loop", ReadSegments, 2.0, 1.3, kNone},
    {"Segments(), network order", "plain loop", ReadSegmentsInNetworkOrder, 3.0, 1.3, kNone},
    {"GetSegmentSize and so on, by index", "plain loop", ReadByIndex, 8.0, 4.0, kNone},
    {"Adler-32", "libdeflate", Adler32, 1.0, 1.0, kNone},
    {"Adler-32", "zlib", Adler32Zlib, kAny, kAny, kNone},
    {"fingerprint to text", "OpenSSL", FingerprintToText, 0.5, 0.5, kNone},
    {"fingerprint from text", "OpenSSL", FingerprintFromText, 0.5, 0.5, kNone},
    {"GetDigest", "one hash call, same bytes", Digest, 1.10, 1.08, kNone},
    {"AppendBloomAndUniqueDCIDList, runs", "read pass", UniqueListOfRuns, 1.3, 1.3, kNone},
    {"AppendBloomAndUniqueDCIDList, random", "std::map", UniqueListAtRandom, 0.9, 0.08, kNone},
    {"AddTaskID, random order", "std::set insert", AddTaskIds, 2.2, 3.0, kNone},
    {"AddSerializedTRefs, sorted", "std::set insert, end hint", AddSerialized, 1.6, 1.6, kNone},
    {"HasTaskID", "std::set find", LookUpTaskIds, 2.2, 2.2, kNone},
    {"AppendBloomAndUniqueDCIDList, random", "absl::btree_map", UniqueListAtRandomBTree, kAny, kAny, kNone},
    {"AddTaskID, random order", "absl::btree_set insert", AddTaskIdsBTree, kAny, kAny, kNone},
    {"HasTaskID", "absl::btree_set find", LookUpTaskIdsBTree, kAny, kAny, kNone},
    {"GetHeader with references", "std::set walk, write", HeaderWithReferences, 2, 2, kNone},
    {"crrecord build, one core", "one hash call", CommandOnOneCore, kNone, 1.05, kNone, kMainShape, kFileSegments},
    {"crrecord build, two cores", "one hash call", CommandOnTwoCores, kNone, 0.65, kNone, kMainShape, kFileSegments},
    {"crrecord live, in memory", "strided read pass, one core", LiveInMemory, kNone, 10, kNone, kMainShape, kEntries},
    {"crrecord live, 64 MiB", "strided read pass, one core", LiveSpilled, kNone, 25, kNone, kMainShape, kEntries},
    {"crrecord live, in memory", "DuckDB, entries in a table", LiveDuckDB, kNone, 1, kNone, kMainShape, kEntries},
    {"crrecord recall", "crrecord validate", RecallInMemory, kNone, 2, kNone, kMainShape, kEntries},
    {"crrecord lost", "crrecord validate", LostContainer, kNone, 2, kNone, kMainShape, kEntries},

    {"Serialize with checksum, 16 B", kFill, Serialize, kAny, kAny, kAny, kShort},
    {"validate and parse a form, 16 B", kCopy, Parse, kAny, kAny, kAny, kShort},
    {"build from segments, 16 B", kCopy, Build, kAny, kAny, kNone, kShort},
    {"Serialize with checksum, type 0", kFill, Serialize, kAny, kAny, kAny, kOriginal},
    {"validate and parse a form, type 0", kCopy, Parse, kAny, kAny, kAny, kOriginal},
    {"build from segments, type 0", kCopy, Build, kAny, kAny, kNone, kOriginal},
};

} // namespace

std::span<Operation const> Operations() {
    return kOperations;
}

} // namespace bench
