// Records in the types of the command, without files.

#pragma once

#include "target.h"

#include "record/do_record.h"
#include "record/record_findings.h"
#include "record/segment_record.h"
#include "json/reader.h"
#include "json/writer.h"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

using namespace crrecord::tool;
using crrecord::Order;

// A named file in memory, rewritten by each call of Holding.
class NamedBytes {
public:
    NamedBytes() : file_(::memfd_create("fuzz", 0)) { Must(file_ != -1, "a file in memory"); }
    ~NamedBytes() { ::close(file_); }
    NamedBytes(NamedBytes const&) = delete;
    NamedBytes& operator=(NamedBytes const&) = delete;

    std::string Holding(void const* bytes, std::size_t size) const {
        Must(::ftruncate(file_, 0) == 0 && ::pwrite(file_, bytes, size, 0) == static_cast<ssize_t>(size), "its bytes");
        return "/proc/self/fd/" + std::to_string(file_);
    }

private:
    int file_;
};

// Returns: the bytes written and not flushed yet. These are all, if they fit into the buffer of `out`.
inline Block Written(Output& out) {
    Block bytes(out.Buffer().begin(), out.Buffer().end());
    Must(out.Size() == bytes.size(), "all that was written is there");
    return bytes;
}

// A record that owns its bytes.
struct OwnRecord {
    OwnRecord(Record const& from, Bytes itsBytes) : bytes(itsBytes.begin(), itsBytes.end()), record(from) {
        record.bytes = bytes.data();
        record.size = bytes.size();
    }
    explicit OwnRecord(Record const& from) : OwnRecord(from, {from.bytes, from.size}) {}
    OwnRecord(OwnRecord const& other) : OwnRecord(other.record) {}
    OwnRecord& operator=(OwnRecord const&) = delete;

    void Convert(Order order) {
        ConvertRecord(record, order);
        record.order = order;
    }

    Block bytes;
    Record record;
};

// The line of a valid record in host order whose source was in order `foundIn`.
inline Block JsonOf(Record record, Order foundIn) {
    Output out(-1, "line");
    record.order = foundIn;
    AppendJsonStart(out.Buffer(), record);
    if (record.kind == Kind::Segment) {
        json::WriteSegmentRecord(out, record, true);
    } else {
        json::WriteObject(out, DORecordView(record.bytes, record.size));
    }
    Block line = Written(out);
    Must(!line.empty() && line.back() == '\n', "a line");
    line.pop_back();
    return line;
}

inline std::string_view TextOf(Block const& block, std::size_t size) {
    return {reinterpret_cast<char const*>(block.data()), size};
}

} // namespace fuzz
