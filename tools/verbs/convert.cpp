// crrecord convert: the same records in the other byte order, or as exchange forms, and back.

#include "record/do_record.h"
#include "record/findings.h"
#include "record/segment_record.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

constexpr char kSerialized[] = "serialized";

struct ConvertOptions {
    std::string file;
    std::string out;
    std::string to;
    FormOptions form;
    bool json = false;
};

struct Tally {
    std::uint64_t records = 0;
    std::uint64_t converted = 0;
    std::uint64_t bytes = 0;
};

struct FreeForm {
    void operator()(void* form) const { DORecord::SerializedDORecordFree(&form); }
};

// Writes a valid record in one byte order and returns its size.
std::uint64_t WriteRecord(OutputFile& to, std::string const& file, Record const& record, Order order) {
    if (record.kind == Kind::Form) {
        std::unique_ptr<DORecord> const made = OpenDORecord(file, record);
        if (order == Order::Network) {
            made->HostToNetwork(0);
        }
        auto const bytes = BytesOf(*made);
        to.Write(bytes.data(), bytes.size());
        return bytes.size();
    }
    (record.kind == Kind::Segment ? TurnSegmentRecord : TurnDORecord)(record, order);
    to.Write(record.bytes, record.size);
    return record.size;
}

// Writes the exchange form of a valid record and returns its size.
std::uint64_t WriteForm(OutputFile& to, std::string const& file, Record const& record, bool withChecksum) {
    void* form = nullptr;
    unsigned long size = 0;
    cr_status_t status = CR_STATUS_OK;
    if (record.kind == Kind::Segment) {
        TurnSegmentRecord(record, Order::Host);
        status = SegmentRecordSerialize(&AsSegmentRecord(record), &form, &size);
    } else {
        status = OpenDORecord(file, record)->Serialize(&form, &size, withChecksum);
    }
    std::unique_ptr<void, FreeForm> const owned(form);
    if (status != CR_STATUS_OK) {
        throw Failure(file + ": " + CRStatusToStringA(status));
    }
    to.Write(form, size);
    return size;
}

void ConvertRecord(OutputFile& to, ConvertOptions const& options, Record const& record, Tally& tally) {
    if (options.to == kSerialized) {
        if (tally.records != 0) {
            throw Failure(options.file + ": holds more than one record, and exchange forms don't say where they end");
        }
        tally.bytes += WriteForm(to, options.file, record, options.form.checksum);
        ++tally.converted;
    } else {
        Order const order = options.to == NameOf(Order::Host) ? Order::Host : Order::Network;
        tally.converted += record.kind != Kind::Form && record.order == order ? 0 : 1;
        tally.bytes += WriteRecord(to, options.file, record, order);
    }
    ++tally.records;
}

std::string ClosingLine(ConvertOptions const& options, Tally const& tally) {
    if (options.json) {
        return fmt::format(R"({{"file":{},"out":{},"order":"{}","records":{},"converted":{},"bytes":"{}"}})",
                           JsonQuoted(options.file), JsonQuoted(options.out), options.to, tally.records,
                           tally.converted, tally.bytes);
    }
    std::string const form = options.to == kSerialized ? "as its exchange form" : "in " + options.to + " order";
    return fmt::format("{}: {}, {}, {}; {} converted", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"), form, tally.converted);
}

ExitCode Convert(ConvertOptions const& options, Output& out) {
    RecordStream stream(options.file, options.form.Facts());
    OutputFile to(options.out);
    std::vector<Finding> findings;
    Tally tally;
    while (Record const* const record = stream.Next()) {
        if (!Diagnose(*record, Depth::FirstError, findings)) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            return ExitCode::BadRecord;
        }
        ConvertRecord(to, options, *record, tally);
    }
    to.Commit();
    PrintClosing(out, options.out, options.json, ClosingLine(options, tally));
    return ExitCode::AllWell;
}

} // namespace

void AddConvert(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<ConvertOptions>();
    CLI::App* const verb =
        app.add_subcommand("convert", "Write the same records in one byte order or as an exchange form");
    verb->add_option("FILE", options->file, "A file of records, in any order; - is standard input")
        ->required()
        ->type_name("");
    verb->add_option("--to", options->to,
                     "The byte order: this machine's own, or network (big-endian); or the exchange form")
        ->required()
        ->check(CLI::IsMember({NameOf(Order::Host), NameOf(Order::Network), static_cast<char const*>(kSerialized)})
                    .description(""))
        ->type_name("host|network|serialized");
    verb->add_option("-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    AddFormOptions(*verb, options->form);
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "An exchange form says neither where it ends nor of which types it is. So one is written of a FILE with one\n"
        "record only, and must be told of to be read. It carries no references and no list of containers (but for a\n"
        "bloom record's), and with --checksum the checksum of itself in place of the record's CRC.\n\n"
        "Every record is validated before it is converted. With a bad one nothing is written to OUT, which may be\n"
        "FILE itself; standard output has the good records before it by then.\n\n"
        "Example:\n  crrecord convert movie.do --to serialized --checksum -o movie.form\n"
        "  crrecord convert movie.form --serialized --dotype 3 --fptype 3 --checksum --to network -o movie.do");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Convert(*options, out); }; });
}

} // namespace crrecord::tool
