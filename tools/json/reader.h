// Records from JSON: one object on each line, as the writer writes it.

#pragma once

#include "io/record_stream.h"
#include "json/record_reader.h"

namespace crrecord::tool::json {

class Reader {
public:
    // Makes the record of one line, in host order. The record is not validated.
    // Up to `readable` bytes of the line may be read; bytes after the line are ignored. The line is not copied if
    // `readable` is at least 64 more than its size.
    // Throws: Error for a line that is not in the form.
    // Lifetime: the record's bytes belong to the reader and are valid until the next line.
    // Memory: a constant times the longest line.
    Record Read(std::string_view line, std::uint64_t readable) {
        parser_.Start(line, readable);
        bool const isSegment = parser_.Find("kind") == NameOf(Kind::Segment);
        foundIn_ = (isSegment ? ReadSegmentRecord : ReadObject)(parser_, bytes_);
        Record record{};
        record.kind = isSegment ? Kind::Segment : Kind::DataObject;
        record.order = Order::Host;
        record.size = bytes_.size();
        record.bytes = bytes_.data();
        return record;
    }
    Record Read(std::string_view line) { return Read(line, line.size()); }

    // The order of the original record that the line names. The spare slot of a segment record has this order.
    Order FoundIn() const { return foundIn_; }

private:
    Parser parser_;
    std::vector<unsigned char> bytes_;
    Order foundIn_ = Order::Host;
};

} // namespace crrecord::tool::json
