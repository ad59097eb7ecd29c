// Any bytes as an index of names. The reader rejects it, or returns names in the order of offsets, which the writer
// reproduces.

#include "tool_records.h"

#include "io/failure.h"
#include "json/name_index.h"

namespace {

using namespace fuzz;

std::vector<NamedRecord> ReadFrom(NamedBytes const& file, Bytes bytes) {
    return json::ReadNames(file.Holding(bytes.data(), bytes.size()));
}

} // namespace

FUZZ_TARGET(index, bytes) {
    static NamedBytes const file;
    std::vector<NamedRecord> names;
    try {
        names = ReadFrom(file, bytes);
    } catch (InputFailure const& failure) {
        Must(std::string_view(failure.what()).find(": line ") != std::string_view::npos, "the line of the first fault");
        return;
    }
    Output lines(-1, "lines");
    std::uint64_t end = 0;
    for (NamedRecord const& named : names) {
        Must(named.offset >= end && named.bytes != 0 && named.offset + named.bytes > named.offset, "records in order");
        Must(!named.name.empty() && named.name.find('\0') == std::string::npos, "a file name");
        end = named.offset + named.bytes;
        json::WriteName(lines, named);
    }
    if (bytes.size() <= 4096) { // the lines are in the buffer of Output
        Must(std::ranges::equal(ReadFrom(file, Written(lines)), names), "the written index has the same names");
    }
}
