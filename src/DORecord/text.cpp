// A record on an output stream: one line of text, or its bytes.

#include "DORecord/record.h"
#include "base/hex.h"
#include "base/text_writer.h"

using namespace crrecord;

// What callers are told of the text form. The list of DCIDs behind the segments is not in it, and stays so.
std::string const DORecord::TEXT_STREAM_FORMAT_DESCRIPTION =
    "type,formatversion,flags,CID,size,ssize,CRC,ctime,mtime,fptype,dotype,nfp,"
    "[[segmentFP,{segmentSize{,segmentOffset}?}?]*],[TRefs*]";

namespace {

constexpr unsigned int kTextFormatVersion = 1;
constexpr unsigned long kReferenceRoom = 98;

void WriteHeaderFields(TextWriter& text, DORecordHeader const& header) {
    for (unsigned long const value :
         {std::uint64_t{header.type}, std::uint64_t{kTextFormatVersion}, std::uint64_t{header.flags},
          std::uint64_t{header.CID}, std::uint64_t{header.size}, std::uint64_t{header.ssize}, std::uint64_t{header.CRC},
          std::uint64_t{header.ctime}, std::uint64_t{header.mtime}, std::uint64_t{header.fptype},
          std::uint64_t{header.dotype}, std::uint64_t{header.nfp}}) {
        text.Number(value).Character(',');
    }
}

// Above type 2 the 64 bits at an offset's place are written, also for the types that don't have so many.
void WriteSegments(TextWriter& text, unsigned char const* record, RecordLayout const& layout, unsigned int dotype) {
    char fingerprint[CRFPTextSize(CR_FP_TYPE_SHA256)];
    for (std::uint64_t i = 0; i < layout.segments; ++i) {
        unsigned char const* const entry = record + layout.Entry(i);
        HexEncode(entry, layout.fingerprint, fingerprint);
        text.Text(i == 0 ? "[" : ",[").Text({fingerprint, 2 * std::size_t{layout.fingerprint}});
        if (dotype > CR_DO_TYPE_NO_SIZE) {
            text.Character(',').Number(Load<std::uint32_t>(entry + layout.fingerprint));
        }
        if (dotype > CR_DO_TYPE_NO_OFFSET) {
            text.Character(',').Number(Load<std::uint64_t>(entry + layout.offset));
        }
        text.Character(']');
    }
}

void WriteDcids(TextWriter& text, unsigned char const* record, RecordLayout const& layout) {
    text.Character('[');
    for (std::uint64_t i = 0; i < layout.segments; ++i) {
        text.Text(i == 0 ? "" : ",").Number(Load<std::uint64_t>(record + layout.Dcid(i)));
    }
    text.Character(']');
}

void WriteReferences(TextWriter& text, DORecord const& record) {
    text.Character('[');
    auto const begin = record.GetTRefBegin();
    for (auto reference = begin; reference != record.GetTRefEnd(); ++reference) {
        char buffer[kReferenceRoom];
        unsigned long const length = CRTRefSerialize(buffer, sizeof buffer, (*reference)->Get(), CR_TREF_TEXT);
        text.Text(reference == begin ? "" : ",").Text({buffer, length});
    }
    text.Character(']');
}

} // namespace

void DORecord::writeText(std::ostream& stream) const {
    if (networkOrder) {
        Refuse("cannot write DO record to stream in text form because it is in network order");
    }
    if (!header) {
        Refuse(kInvalidRecordSize);
    }
    // The fields that an unknown DO type does not have may lie in the tail.
    bool const known = CRDOTypeIsValid(GetDOType()) != 0;
    RecordLayout const layout = checkedLayout(known ? &RecordLayout::udcids : &RecordLayout::total);
    TextWriter text(stream);
    WriteHeaderFields(text, *header);
    text.Character('[');
    WriteSegments(text, BytesOf(header), layout, GetDOType());
    WriteDcids(text, BytesOf(header), layout);
    text.Text("],");
    WriteReferences(text, *this);
    text.Flush();
}

// The bytes are written in host order. Bytes and order are as before afterwards, also if the stream throws.
void DORecord::writeBytes(std::ostream& stream) const {
    // Turning there and back walks the record by what it finds in either order.
    SectionEnd const end = networkOrder       ? &RecordLayout::total
                           : GetNTRefs() == 0 ? &RecordLayout::udcids
                                              : &RecordLayout::tail;
    RecordLayout const layout = checkedLayout(end);
    if (!orderMatchesHeader() || getRecSize() > bufferSize) {
        Refuse(kInvalidRecordSize);
    }
    unsigned int const size = getRecSize();
    writeReferences(layout);
    bool const wasInNetworkOrder = networkOrder;
    auto const restore = [&]() noexcept {
        if (wasInNetworkOrder) {
            networkOrder = true;
            DORecordHeaderHton(header);
        }
    };
    if (wasInNetworkOrder) {
        // Flag and bytes together: the stream's buffer may be code that reads the record.
        networkOrder = false;
        DORecordHeaderNtoh(header);
    }
    try {
        stream.write(reinterpret_cast<char const*>(header), size);
    } catch (...) {
        restore();
        throw;
    }
    restore();
}

std::ostream& DORecord::ToStream(std::ostream& stream, bool binary) const {
    if (binary) {
        writeBytes(stream);
    } else {
        writeText(stream);
    }
    return stream;
}
