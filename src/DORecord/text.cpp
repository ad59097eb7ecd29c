// Output of a record to a stream: one line of text, or its bytes.

#include "DORecord/record.h"
#include "base/hex.h"
#include "base/text_writer.h"

using namespace crrecord;

// The text form as documented for callers. It intentionally omits the list of DCIDs after the segments.
std::string const DORecord::TEXT_STREAM_FORMAT_DESCRIPTION =
    "type,formatversion,flags,CID,size,ssize,CRC,ctime,mtime,fptype,dotype,nfp,"
    "[[segmentFP,{segmentSize{,segmentOffset}?}?]*],[TRefs*]";

namespace {

constexpr unsigned int kTextFormatVersion = 1;
constexpr unsigned long kReferenceTextSize = 98;

void WriteHeaderFields(TextWriter& text, DORecordHeader const& header) {
    for (unsigned long const value :
         {std::uint64_t{header.type}, std::uint64_t{kTextFormatVersion}, std::uint64_t{header.flags},
          std::uint64_t{header.CID}, std::uint64_t{header.size}, std::uint64_t{header.ssize}, std::uint64_t{header.CRC},
          std::uint64_t{header.ctime}, std::uint64_t{header.mtime}, std::uint64_t{header.fptype},
          std::uint64_t{header.dotype}, std::uint64_t{header.nfp}}) {
        text.Number(value).Character(',');
    }
}

// For DO types above CR_DO_TYPE_NO_OFFSET, writes the 64 bits at the position of the offset, even if the type stores
// fewer or none.
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

void WriteReferenceTexts(TextWriter& text, DORecord const& record) {
    char const* separator = "";
    text.Character('[');
    for (DORecord::tref_ptr_t const& reference : record.References()) {
        char buffer[kReferenceTextSize];
        unsigned long const length = CRTRefSerialize(buffer, sizeof buffer, reference->Get(), CR_TREF_TEXT);
        text.Text(separator).Text({buffer, length});
        separator = ",";
    }
    text.Character(']');
}

} // namespace

void RecordInternals::WriteText(DORecord const& record, std::ostream& stream) {
    if (record.networkOrder) {
        Refuse("cannot write DO record to stream in text form because it is in network order");
    }
    if (!record.header) {
        Refuse(kInvalidRecordSize);
    }
    // An unknown DO type may store no size or offset. The bytes at their positions may then be in the tail.
    bool const known = CRDOTypeIsValid(record.GetDOType()) != 0;
    RecordLayout const layout = ChangeableLayout(record, known ? &RecordLayout::udcids : &RecordLayout::total);
    TextWriter text(stream);
    WriteHeaderFields(text, *record.header);
    text.Character('[');
    WriteSegments(text, BytesOf(record.header), layout, record.GetDOType());
    WriteDcids(text, BytesOf(record.header), layout);
    text.Text("],");
    WriteReferenceTexts(text, record);
    text.Flush();
}

// Writes the bytes in host order. The record is unchanged afterwards, even if the stream throws.
void RecordInternals::WriteBytes(DORecord const& record, std::ostream& stream) {
    // The record is converted to host order and back, so all sections that a conversion accesses must be inside the
    // buffer.
    SectionEnd const end = record.networkOrder       ? &RecordLayout::total
                           : record.GetNTRefs() == 0 ? &RecordLayout::udcids
                                                     : &RecordLayout::tail;
    RecordLayout const layout = CheckedLayout(record, end);
    if (!OrderMatchesHeader(record) || record.getRecSize() > record.bufferSize) {
        Refuse(kInvalidRecordSize);
    }
    unsigned int const size = record.getRecSize();
    WriteReferences(record, layout);
    bool const wasInNetworkOrder = record.networkOrder;
    auto const restore = [&]() noexcept {
        if (wasInNetworkOrder) {
            record.networkOrder = true;
            DORecordHeaderHton(record.header);
        }
    };
    if (wasInNetworkOrder) {
        // Flag and bytes change together, because the stream may call user code that reads the record.
        record.networkOrder = false;
        DORecordHeaderNtoh(record.header);
    }
    try {
        stream.write(reinterpret_cast<char const*>(record.header), size);
    } catch (...) {
        restore();
        throw;
    }
    restore();
}

std::ostream& DORecord::ToStream(std::ostream& stream, bool binary) const {
    if (binary) {
        RecordInternals::WriteBytes(*this, stream);
    } else {
        RecordInternals::WriteText(*this, stream);
    }
    return stream;
}
