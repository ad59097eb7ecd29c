#include "json/reader.h"

namespace crrecord::tool::json {

Record Reader::Read(std::string_view line, std::uint64_t readable) {
    parser_.Start(line, readable);
    Record record{};
    if (parser_.Find("kind") == NameOf(Kind::Segment)) {
        segment_.Read(bytes_);
        record.kind = Kind::Segment;
        foundIn_ = segment_.FoundIn();
    } else {
        object_.Read(bytes_);
        record.kind = Kind::DataObject;
        foundIn_ = object_.FoundIn();
    }
    record.order = Order::Host;
    record.size = bytes_.size();
    record.bytes = bytes_.data();
    return record;
}

} // namespace crrecord::tool::json
