// crrecord convert: the same records in the other byte order.

#include "findings.h"
#include "segment_record.h"
#include "verbs.h"

namespace crrecord::tool {

namespace {

struct ConvertOptions {
    std::string file;
    std::string out;
    std::string to;
    bool json = false;
};

ExitCode Convert(ConvertOptions const& options, Output& out) {
    RecordStream stream(options.file);
    Order const order = options.to == NameOf(Order::Host) ? Order::Host : Order::Network;
    OutputFile to(options.out);
    std::vector<Finding> findings;
    std::uint64_t records = 0;
    std::uint64_t converted = 0;
    std::uint64_t bytes = 0;
    while (Record const* const record = stream.Next()) {
        if (!Diagnose(*record, Extent::FirstError, findings)) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            return ExitCode::BadRecord;
        }
        TurnSegmentRecord(*record, order);
        to.Write(record->bytes, record->size);
        ++records;
        converted += record->order == order ? 0 : 1;
        bytes += record->size;
    }
    to.Commit();
    std::string const line =
        options.json
            ? fmt::format(R"({{"file":{},"out":{},"order":"{}","records":{},"converted":{},"bytes":"{}"}})",
                          JsonQuoted(options.file), JsonQuoted(options.out), options.to, records, converted, bytes)
            : fmt::format("{}: {}, {}, in {} order; {} converted", Printable(options.out), Counted(records, "record"),
                          Counted(bytes, "byte"), options.to, converted);
    PrintClosing(out, options.out, options.json, line);
    return ExitCode::AllWell;
}

} // namespace

void AddConvert(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<ConvertOptions>();
    CLI::App* const verb = app.add_subcommand("convert", "Write the same records in one byte order");
    verb->add_option("FILE", options->file, "A file of records, in any order; - is standard input")
        ->required()
        ->type_name("");
    verb->add_option("--to", options->to, "The byte order: this machine's own, or network (big-endian)")
        ->required()
        ->check(CLI::IsMember({NameOf(Order::Host), NameOf(Order::Network)}).description(""))
        ->type_name("host|network");
    verb->add_option("-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "Every record is validated before it is converted. With a bad one nothing is written to OUT, which may be\n"
        "FILE itself; standard output has the good records before it by then.\n\n"
        "Example:\n  crrecord convert movie.seg --to host -o movie.host");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Convert(*options, out); }; });
}

} // namespace crrecord::tool
