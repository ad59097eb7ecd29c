#include "store/lost_scan.h"

#include "analysis/container_totals.h"
#include "io/record_names.h"
#include "record/record_findings.h"
#include "store/segment_shape.h"

#include <crrecord/status.h>

namespace crrecord::tool {

void LostScan::Scan(RecordStream& stream) {
    while (Record const* const record = stream.Next()) {
        any_ = true;
        if (record->kind == Kind::DataObject) {
            ScanObject(stream, *record);
        } else if (std::string const error = SegmentRecordError(stream.Name(), *record); !error.empty()) {
            Refuse(error);
        }
    }
    totals_.gaps.Add(stream);
}

void LostScan::ScanObject(RecordStream const& stream, Record const& record) {
    try {
        DORecordView const view(record.bytes, record.size);
        Damage const damage = DamageOf(view, lost_);
        if (damage.isTooLarge || !AddClaimed(claimed, damage.bloomBytes)) {
            ++totals_.refused;
            Refuse(ClaimError(stream.Name(), record));
        } else if (damage.needed) {
            AddBytes(totals_.bytes, damage.bytes);
            AddBytes(totals_.bloomBytes, damage.bloomBytes);
            totals_.segments += damage.segments;
            ++totals_.records;
            use_(stream, record, view, damage);
        }
    } catch (Cr_ErrnoException const&) {
        Refuse(FirstErrorOf(stream.Name(), record));
    }
}

void LostScan::Refuse(std::string const& error) {
    ++totals_.bad;
    complain_(error);
}

void PrintJsonDamage(Output& out, std::string_view quotedFile, Record const& record, DORecordView const& view,
                     Damage const& damage) {
    out.Print(R"({},"file":{},"record":{},"offset":{}{},"segments":{},"bytes":{},"bloom_bytes":{},)"
              R"("object_bytes":{},"own":{}}})"
              "\n",
              JsonStart(), quotedFile, record.number, Decimal{record.offset}, JsonNameOf(record.offset),
              Decimal{damage.segments}, Decimal{damage.bytes}, Decimal{damage.bloomBytes}, Decimal{view.GetSize()},
              damage.own);
}

void PrintJsonTotal(Output& out, LostTotals const& totals) {
    out.Print(R"({},"total":{{"records":{},"segments":{},"bytes":{},"bloom_bytes":{},)"
              R"("bad_records":{},"skipped_bytes":{},"unread_bytes":{}}}}})"
              "\n",
              JsonStart(), Decimal{totals.records}, Decimal{totals.segments}, Decimal{totals.bytes},
              Decimal{totals.bloomBytes}, Decimal{totals.bad}, Decimal{totals.gaps.skipped},
              JsonNumber(totals.gaps.unread));
}

} // namespace crrecord::tool
