#include "analysis/segment_csv.h"

#include "analysis/segment_runs.h"

namespace crrecord::tool {

void PrintObjectCsv(Output& out, Record const& record, DORecordView const& view, Range segments) {
    unsigned int const dotype = view.GetDOType();
    bool const hasOffset = DOTypeOf(dotype).offsetWidth != 0;
    std::uint64_t const end = segments.EndOf(view.Segments().size());
    ForEachSegment(view.Segments(), dotype, end, [&](auto index, auto position, DOSegment const& segment) {
        if (index >= segments.first) {
            out.Print("{},{},{},{},{},{}\n", record.number, index, TextOf(segment.fingerprint.Copy(), view.GetFPType()),
                      segment.size, hasOffset ? segment.offset : position, segment.dcid);
        }
    });
}

void PrintSegmentCsv(Output& out, Record const& record) {
    StoredSegment const segment = SegmentOf(record);
    out.Print("{},,", record.number);
    if (segment.fingerprint) {
        AppendHex(out.Buffer(), {segment.fingerprint, CRFPDigestSize(segment.fptype)});
    }
    out.Print(",{},,{}\n", segment.size, segment.inContainer ? std::to_string(segment.dcid) : "");
}

} // namespace crrecord::tool
