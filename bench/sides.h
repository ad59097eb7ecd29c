// Functions that prepare an operation and its reference. table.cpp lists all of them.

#pragma once

#include "input.h"

#include <string>

namespace bench {

Comparison Serialize(Shape shape, unsigned int n);
Comparison SerializeWithoutChecksum(Shape shape, unsigned int n);
Comparison Parse(Shape shape, unsigned int n);
Comparison Build(Shape shape, unsigned int n);
Comparison Wrap(Shape shape, unsigned int n);
Comparison FromBuffer(Shape shape, unsigned int n);
Comparison Convert(Shape shape, unsigned int n);
Comparison CheckSegmentList(Shape shape, unsigned int n);

Comparison ReadSegments(Shape shape, unsigned int n);
Comparison ReadSegmentsInNetworkOrder(Shape shape, unsigned int n);
Comparison ReadByIndex(Shape shape, unsigned int n);
Comparison ReadUniqueDcids(Shape shape, unsigned int n);
Comparison ReadReferences(Shape shape, unsigned int n);

Comparison Adler32(Shape shape, unsigned int n);
Comparison Adler32Zlib(Shape shape, unsigned int n);
Comparison FingerprintToText(Shape shape, unsigned int n);
Comparison FingerprintFromText(Shape shape, unsigned int n);
Comparison Digest(Shape shape, unsigned int n);

Comparison UniqueListOfRuns(Shape shape, unsigned int n);
Comparison UniqueListAtRandom(Shape shape, unsigned int n);

Comparison AddTaskIds(Shape shape, unsigned int n);
Comparison AddSerialized(Shape shape, unsigned int n);
Comparison LookUpTaskIds(Shape shape, unsigned int n);
Comparison HeaderWithReferences(Shape shape, unsigned int n);

// Comparisons with peers: other formats that encode or parse the same object of kMainShape.
Comparison SerializeCapnProto(Shape shape, unsigned int n);
Comparison SerializeProtobuf(Shape shape, unsigned int n);
Comparison ParseFlatBuffers(Shape shape, unsigned int n);
Comparison ParseProtobuf(Shape shape, unsigned int n);

// n is the size of the file in segments of 128 KiB.
Comparison CommandOnOneCore(Shape shape, unsigned int n);
Comparison CommandOnTwoCores(Shape shape, unsigned int n);

// n is the number of entries in a store of records of 1,000.
Comparison LiveInMemory(Shape shape, unsigned int n);
Comparison LiveSpilled(Shape shape, unsigned int n);
Comparison LiveDuckDB(Shape shape, unsigned int n);
Comparison RecallInMemory(Shape shape, unsigned int n);
Comparison LostContainer(Shape shape, unsigned int n);

// Runs the command with these arguments. Returns: its peak memory in bytes.
long RunCommand(std::vector<std::string> const& arguments);

// Single sides, also for the growth plot.
Side OurSerialize(InputPtr const& input, bool withChecksum);
Side OurParse(InputPtr const& input);
Side OurUniqueList(InputPtr const& input);
Side CopyInto(std::shared_ptr<std::vector<unsigned char>> const& source);

} // namespace bench
