// Records from JSON: one object a line for each, as the writer writes it.

#pragma once

#include "io/record_stream.h"
#include "json/object_reader.h"
#include "json/segment_reader.h"

namespace crrecord::tool::json {

class Reader {
public:
    // The record of one line, in host order. Its bytes are the reader's and last until the next line. Throws Error
    // where the line is not in the form. What the record says is for its validator.
    //
    // Of the line up to `readable` bytes may be read, though nothing behind it counts; with 64 more than it is long it
    // is not copied. Memory: a constant times the longest line.
    Record Read(std::string_view line, std::uint64_t readable);
    Record Read(std::string_view line) { return Read(line, line.size()); }

    // The order in which that record was found, as the line says. The spare slot of a segment record stands in it.
    Order FoundIn() const { return foundIn_; }

private:
    Parser parser_;
    ObjectReader object_{parser_};
    SegmentReader segment_{parser_};
    std::vector<unsigned char> bytes_;
    Order foundIn_ = Order::Host;
};

} // namespace crrecord::tool::json
