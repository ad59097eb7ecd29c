// crrecord lost: the records of a store that are damaged if some containers are lost.

#include "io/record_names.h"
#include "record/record_findings.h"
#include "store/damage.h"
#include "store/segment_shape.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct LostOptions : StoreOptions {
    std::vector<std::uint64_t> containers;
};

class LostRecords {
public:
    LostRecords(LostOptions const& options, Output& out) : json_(options.json), lost_(options.containers), out_(out) {}

    void Visit(RecordStream& stream) {
        std::string const name = json_ ? JsonName("file", stream.Name()) : Printable(stream.Name());
        while (Record const* const record = stream.Next()) {
            any_ = true;
            if (record->kind != Kind::DataObject) {
                CheckSegmentRecord(stream.Name(), *record);
                continue;
            }
            try {
                DORecordView const view(record->bytes, record->size);
                Damage const damage = DamageOf(view, lost_);
                if (damage.isTooLarge || !AddClaimed(bloomBytes_, damage.bloomBytes)) {
                    Refuse(ClaimError(stream.Name(), *record));
                } else if (damage.needed) {
                    Print(name, *record, view, damage);
                }
            } catch (Cr_ErrnoException const&) {
                ++bad_;
                CheckRecord(stream.Name(), *record, findings_);
            }
        }
        gaps_.Add(stream);
    }

    ExitCode PrintTotal() {
        if (any_ && json_) {
            out_.Print(R"({},"total":{{"records":{},"segments":{},"bytes":{},"bloom_bytes":{},)"
                       R"("bad_records":{},"skipped_bytes":{},"unread_bytes":{}}}}})"
                       "\n",
                       JsonStart(), Decimal{records_}, Decimal{segments_}, Decimal{bytes_}, Decimal{bloomBytes_},
                       Decimal{bad_}, Decimal{gaps_.skipped}, JsonNumber(gaps_.unread));
        } else if (any_) {
            out_.Print("{} damaged: {} of {}\n", Counted(records_, "record"), Counted(segments_, "segment"),
                       WithUnit(bytes_));
            PrintGaps(out_, gaps_);
        }
        return bad_ == 0 ? ExitCode::AllWell : ExitCode::BadRecord;
    }

private:
    void CheckSegmentRecord(std::string const& name, Record const& record) {
        std::string const error = SegmentRecordError(name, record);
        if (!error.empty()) {
            Refuse(error);
        }
    }

    void Refuse(std::string const& error) {
        Complain(error);
        ++bad_;
    }

    void Print(std::string const& name, Record const& record, DORecordView const& view, Damage const& damage) {
        AddBytes(bytes_, damage.bytes);
        segments_ += damage.segments;
        ++records_;
        if (json_) {
            out_.Print(R"({},"file":{},"record":{},"offset":{}{},"segments":{},"bytes":{},"bloom_bytes":{},)"
                       R"("object_bytes":{},"own":{}}})"
                       "\n",
                       JsonStart(), name, record.number, Decimal{record.offset}, JsonNameOf(record.offset),
                       Decimal{damage.segments}, Decimal{damage.bytes}, Decimal{damage.bloomBytes},
                       Decimal{view.GetSize()}, damage.own);
            return;
        }
        out_.Print("{}: {} of {} lost of an object of {}{}{}\n", PlaceOf(name, record),
                   Counted(damage.segments, "segment"), WithUnit(damage.bytes), WithUnit(view.GetSize()),
                   damage.bloomBytes == 0 ? "" : "; by its list " + WithUnit(damage.bloomBytes),
                   damage.own ? "; the record itself is lost" : "");
    }

    bool json_;
    ContainerSet lost_;
    Output& out_;
    std::vector<Finding> findings_;
    bool any_ = false; // true: a record was read
    std::uint64_t bad_ = 0;
    GapSums gaps_;
    std::uint64_t records_ = 0;
    std::uint64_t segments_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t bloomBytes_ = 0;
};

ExitCode Lost(LostOptions const& options, Output& out) {
    LostRecords lost(options, out);
    ExitCode const result = ForEachInput(options.files, options.form, nullptr, [&](RecordStream& stream) {
        lost.Visit(stream);
        return ExitCode::AllWell;
    });
    return std::max(result, lost.PrintTotal());
}

} // namespace

void AddLost(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "lost", "List the records that are damaged if some containers are lost", Lost);
    AddStoreOptions(verb, options);
    verb.add_option("--container", options.containers, "A lost container; may be repeated")
        ->check(WholeNumber(std::numeric_limits<std::uint64_t>::max()))
        ->required()
        ->type_name("DCID")
        ->allow_extra_args(false);
    verb.footer("Entries count as often as an object has them. A record whose own container is lost is lost, too.\n"
                "Only the present record needs memory: --memory and --temp have no effect.\n\n"
                "Example:\n  crrecord lost --container 1042 objects.do");
}

} // namespace crrecord::tool
