// Any bytes as a line of JSON: read, or refused at a place of the line; and what was read is written as it was read.

#include "tool_records.h"

namespace {

using namespace fuzz;
using crrecord::Order;

// What the line holds, or the place and the words of the refusal.
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
        Must(error.position <= line.size(), "a place in the line");
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
        Must(Read(reader, TextOf(line, line.size()), line.size()) == answer, "a line is read as it was written");
    }
}

} // namespace

FUZZ_TARGET(json, bytes) {
    constexpr std::size_t kBehind = 64;
    Block exact(bytes.begin(), bytes.end()), roomy = exact;
    exact.shrink_to_fit();
    roomy.resize(bytes.size() + kBehind, '"');
    static json::Reader reader; // as it is used: for one line behind the other
    Answer answer = Read(reader, TextOf(exact, bytes.size()), bytes.size());
    Must(Read(reader, TextOf(roomy, bytes.size()), roomy.size()) == answer, "what is behind a line does not count");
    Must(answer.record.size() <= 128 * bytes.size(), "memory in proportion to the line");
    if (answer.refusal.empty()) {
        WriteAndReadAgain(reader, answer);
    }
}
