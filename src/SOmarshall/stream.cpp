// Output of segment records to streams, and the container test.

#include "SOmarshall/layout.h"
#include "base/text_writer.h"

#include <ostream>

namespace crrecord::segment {

namespace {

constexpr unsigned int kTextFormatVersion = 1;

void WriteBytes(std::ostream& stream, _SegmentDBRecord const& networkRecord) {
    stream.write(reinterpret_cast<char const*>(&networkRecord),
                 static_cast<std::streamsize>(InOrder(networkRecord.recsize, Order::Network)));
}

void WriteTaskIds(TextWriter& text, _SegmentDBRecord const& record) {
    unsigned char const* const ids = BytesOf(&record) + CR_SO_FIXED_SIZE;
    text.Character('[');
    for (std::uint64_t i = 0; i < record.ntaskids; ++i) {
        text.Text(i == 0 ? "" : ",").Number(Load<std::uint64_t>(ids + i * kTaskIdSize));
    }
    text.Character(']');
}

// Writes the first byte of each fingerprint as a raw character.
void WriteFingerprints(TextWriter& text, _SegmentDBRecord const& record) {
    unsigned char const* const fingerprints = BytesOf(&record) + FingerprintOffset(record.ntaskids);
    std::uint64_t const width = CRFPDigestSize(record.fptype);
    text.Character('[');
    for (std::uint64_t i = 0; i < record.nfp; ++i) {
        text.Text(i == 0 ? "" : ",").Character(static_cast<char>(fingerprints[i * width]));
    }
    text.Character(']');
}

void WriteText(std::ostream& stream, _SegmentDBRecord const& record) {
    TextWriter text(stream);
    for (unsigned long const value :
         {std::uint64_t{record.type}, std::uint64_t{kTextFormatVersion}, std::uint64_t{record.flags},
          std::uint64_t{record.pathid}, std::uint64_t{record.fileid}, std::uint64_t{record.size},
          std::uint64_t{record.CRC}, std::uint64_t{record.fptype}}) {
        text.Number(value).Character(',');
    }
    text.Character(','); // the empty field
    text.Number(record.ntaskids).Character(',').Number(record.nfp).Character(',');
    WriteTaskIds(text, record);
    text.Character(',');
    WriteFingerprints(text, record);
    text.Flush();
}

} // namespace

} // namespace crrecord::segment

bool RecordInContainer(unsigned long fileid) noexcept {
    return fileid == 0;
}

std::ostream& SegmentRecordToStream(std::ostream& stream, _SegmentDBRecord& record, bool binary) {
    using namespace crrecord;
    bool const wasInNetworkOrder = segment::OrderOf(&record) == Order::Network;
    if (!binary) {
        if (wasInNetworkOrder) {
            SegmentRecordNtoh(&record, &record, 0);
        }
        segment::WriteText(stream, record);
        if (wasInNetworkOrder) {
            SegmentRecordHton(&record, &record, 0);
        }
        return stream;
    }
    if (wasInNetworkOrder) {
        segment::WriteBytes(stream, record);
        return stream;
    }
    SegmentRecordHton(&record, &record, 0);
    try {
        segment::WriteBytes(stream, record);
    } catch (...) {
        SegmentRecordNtoh(&record, &record, 0);
        throw;
    }
    SegmentRecordNtoh(&record, &record, 0);
    return stream;
}
