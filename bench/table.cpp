// The table of operations, references and targets.

#include "sides.h"

namespace bench {

namespace {

constexpr unsigned int kFileSegments = 4096;  // a file of 512 MiB
constexpr unsigned int kEntries = 10'000'000; // in a store, 520 MB

constexpr double kNone = kNotMeasured;

constexpr char kFill[] = "calloc, memset of the output";
constexpr char kCopy[] = "malloc, memcpy of the record";
constexpr char kRead[] = "strided read pass";

constexpr Operation kOperations[] = {
    {"Serialize with checksum", kFill, Serialize, 3.0, 1.7},
    {"Serialize", kFill, SerializeWithoutChecksum, 2.1, 1.5},
    {"Serialize with checksum", "Cap'n Proto flat array, encode", SerializeCapnProto, 0.8, 1.0},
    {"Serialize with checksum", "Protocol Buffers, encode", SerializeProtobuf, 0.3, 0.4},
    {"validate and parse a form", "FlatBuffers tables, verify, fill", ParseFlatBuffers, 0.8, 0.8},
    {"validate and parse a form", "Protocol Buffers, parse, fill", ParseProtobuf, 0.15, 0.25},
    {"build from segments", kCopy, Build, kNone, 1.4},
    {"Wrap", kRead, Wrap, 3, 1.4},
    {"FromBuffer, network order", kCopy, FromBuffer, kNone, 1.6},
    {"HostToNetwork, NetworkToHost", "strided read-modify-write pass", Convert, 1.2, 1.1},
    {"checkSegmentList", kRead, CheckSegmentList, 2.2, 1.2},
    {"Segments(), range-for", "plain loop", ReadSegments, 2.0, 1.3},
    {"Segments(), network order", "plain loop", ReadSegmentsInNetworkOrder, 3.0, 1.3},
    {"GetSegmentSize and so on", "plain loop", ReadByIndex, 8.0, 4.0},
    {"UniqueDCIDs(), range-for", "plain loop", ReadUniqueDcids, 2.0, kNone},
    {"References(), range-for", "plain loop", ReadReferences, 3.0, 3.0},
    {"Adler-32", "libdeflate", Adler32, 1.05, 1.05},
    {"Adler-32", "zlib", Adler32Zlib, 0.2, 0.2},
    {"fingerprint to text", "OpenSSL", FingerprintToText, 0.5, 0.5},
    {"fingerprint from text", "OpenSSL", FingerprintFromText, 0.5, 0.5},
    {"GetDigest", "one hash call, same bytes", Digest, 1.10, 1.08},
    {"AppendBloomAndUniqueDCIDList", "read pass", UniqueListOfRuns, kNone, 1.3},
    {"AppendBloomAndUniqueDCIDList, random", "std::map", UniqueListAtRandom, 0.9, 0.08},
    {"AddTaskID, random order", "std::set insert", AddTaskIds, 1.6, 2.6},
    {"AddSerializedTRefs, sorted", "std::set insert, end hint", AddSerialized, 1.6, 1.6},
    {"HasTaskID", "std::set find", LookUpTaskIds, 2.2, 2.2},
    {"GetHeader with references", "std::set walk, write", HeaderWithReferences, 2, 2},
    {"crrecord build, one core", "one hash call", CommandOnOneCore, kNone, 1.05, kMainShape, kFileSegments},
    {"crrecord build, two cores", "one hash call", CommandOnTwoCores, kNone, 0.65, kMainShape, kFileSegments},
    {"crrecord live, in memory", "strided read pass, one core", LiveInMemory, kNone, 10, kMainShape, kEntries},
    {"crrecord live, 64 MiB", "strided read pass, one core", LiveSpilled, kNone, 25, kMainShape, kEntries},
    {"crrecord live, in memory", "DuckDB, entries in a table", LiveDuckDB, kNone, 1, kMainShape, kEntries},
    {"crrecord recall", "crrecord validate", RecallInMemory, kNone, 3, kMainShape, kEntries},
    {"crrecord lost", "crrecord validate", LostContainer, kNone, 2, kMainShape, kEntries},
};

} // namespace

std::span<Operation const> Operations() {
    return kOperations;
}

} // namespace bench
