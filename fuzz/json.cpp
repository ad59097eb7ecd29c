// Any bytes as a line of JSON. The reader rejects it at a position in the line, or the writer reproduces its record.

#include "tool_records.h"

namespace {

using namespace fuzz;
using crrecord::Order;

// The record in the line, or position and message of the error.
struct Answer {
    Block record;
    std::string refusal;
    Kind kind = Kind::Unknown;
    Order foundIn = Order::Host;

    bool operator==(Answer const&) const = default;
};

Answer Read(json::Reader& reader, std::string_view line, std::size_t readable) {
    try {
        Record const record = reader.Read(line, readable);
        return {{record.bytes, record.bytes + record.size}, {}, record.kind, reader.FoundIn()};
    } catch (json::Error const& error) {
        Must(error.position <= line.size(), "the position is in the line");
        return {{}, error.path + ": " + error.what()};
    }
}

void WriteAndReadAgain(json::Reader& reader, Answer& answer) {
    Record record{};
    record.kind = answer.kind;
    record.bytes = answer.record.data();
    record.size = answer.record.size();
    std::vector<Finding> findings;
    if (Diagnose(record, Depth::FirstError, findings)) {
        Block const line = JsonOf(record, answer.foundIn);
        Must(Read(reader, TextOf(line, line.size()), line.size()) == answer, "the written line has the same record");
    }
}

} // namespace

FUZZ_TARGET(json, bytes) {
    constexpr std::size_t kMore = 64;
    Block exact(bytes.begin(), bytes.end()), roomy = exact;
    exact.shrink_to_fit();
    roomy.resize(bytes.size() + kMore, '"');
    static json::Reader reader; // reused for all lines, like in the command
    Answer answer = Read(reader, TextOf(exact, bytes.size()), bytes.size());
    Must(Read(reader, TextOf(roomy, bytes.size()), roomy.size()) == answer, "bytes after the line are ignored");
    Must(answer.record.size() <= 128 * bytes.size(), "memory in proportion to the line");
    if (answer.refusal.empty()) {
        WriteAndReadAgain(reader, answer);
    }
}
