// crrecord lost: the records of a store that are damaged if some containers are lost.

#include "record/record_findings.h"
#include "store/lost_scan.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct LostOptions : StoreOptions {
    std::vector<std::uint64_t> containers;
};

void PrintDamage(Output& out, std::string_view name, Record const& record, DORecordView const& view,
                 Damage const& damage) {
    out.Print("{}: {} of {} lost of an object of {}{}{}\n", PlaceOf(name, record), Counted(damage.segments, "segment"),
              WithUnit(damage.bytes), WithUnit(view.GetSize()),
              damage.bloomBytes == 0 ? "" : "; by its list " + WithUnit(damage.bloomBytes),
              damage.own ? "; the record itself is lost" : "");
}

ExitCode Lost(LostOptions const& options, Output& out) {
    std::string name; // of the input, as the lines have it
    LostScan scan(options.containers, Complain,
                  [&](RecordStream const&, Record const& record, DORecordView const& view, Damage const& damage) {
                      (options.json ? PrintJsonDamage : PrintDamage)(out, name, record, view, damage);
                  });
    ExitCode const result = ForEachInput(options.files, options.form, nullptr, [&](RecordStream& stream) {
        name = options.json ? JsonName("file", stream.Name()) : Printable(stream.Name());
        scan.Scan(stream);
        return ExitCode::AllWell;
    });
    LostTotals const& totals = scan.Totals();
    if (scan.AnyRecord() && options.json) {
        PrintJsonTotal(out, totals);
    } else if (scan.AnyRecord()) {
        out.Print("{} damaged: {} of {}\n", Counted(totals.records, "record"), Counted(totals.segments, "segment"),
                  WithUnit(totals.bytes));
        PrintGaps(out, totals.gaps);
    }
    return std::max(result, totals.bad == 0 ? ExitCode::AllWell : ExitCode::BadRecord);
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
