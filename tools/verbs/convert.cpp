// crrecord convert: the same records in the other byte order, as exchange forms or as JSON, and back.

#include "record/do_record.h"
#include "record/record_findings.h"
#include "record/segment_record.h"
#include "verbs/verbs.h"
#include "json/reader.h"
#include "json/writer.h"

namespace crrecord::tool {

namespace {

constexpr char kSerialized[] = "serialized";
constexpr char kJson[] = "json";

struct ConvertOptions {
    std::string file;
    std::string out;
    std::string to;
    FormOptions form;
    bool json = false;
};

struct Converted {
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
    (record.kind == Kind::Segment ? ConvertSegmentRecord : ConvertDORecord)(record, order);
    to.Write(record.bytes, record.size);
    return record.size;
}

// Writes the exchange form of a valid record and returns its size.
std::uint64_t WriteForm(OutputFile& to, std::string const& file, Record const& record, bool withChecksum) {
    void* form = nullptr;
    unsigned long size = 0;
    cr_status_t status = CR_STATUS_OK;
    if (record.kind == Kind::Segment) {
        if (withChecksum) {
            throw Failure(file + ": is a segment record, whose exchange form has no checksum");
        }
        ConvertSegmentRecord(record, Order::Host);
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

// Writes a valid record as a line of JSON. Its bytes may have been turned from the order in which it was found.
void WriteLine(Output& to, std::string const& file, Record const& record, Order foundIn) {
    Record line = record;
    line.order = foundIn;
    if (record.kind == Kind::Segment) {
        ConvertSegmentRecord(record, Order::Host);
        AppendJsonStart(to.Buffer(), line);
        json::WriteSegmentRecord(to, line, true);
        return;
    }
    std::unique_ptr<DORecord> made;
    std::span<unsigned char const> bytes(record.bytes, record.size);
    if (record.kind == Kind::Form) {
        made = OpenDORecord(file, record);
        bytes = BytesOf(*made);
        line.kind = Kind::DataObject;
        line.order = Order::Host;
    }
    AppendJsonStart(to.Buffer(), line);
    json::WriteObject(to, DORecordView(bytes.data(), bytes.size()));
}

// Writes valid records to OUT.
class Converter {
public:
    explicit Converter(ConvertOptions const& options) : options_(options), to_(options.out, {options.file}) {}

    // Of a record from JSON, `foundIn` is the order that the line says.
    void Convert(Record const& record, std::optional<Order> foundIn = std::nullopt) {
        bool changed = true;
        if (options_.to == kSerialized) {
            if (tally_.records != 0) {
                throw Failure(options_.file +
                              ": holds more than one record, and exchange forms don't say where they end");
            }
            tally_.bytes += WriteForm(to_, options_.file, record, options_.form.checksum);
        } else if (options_.to == kJson) {
            WriteLine(to_.Text(), options_.file, record, foundIn.value_or(record.order));
            tally_.bytes = to_.Text().Size();
        } else {
            Order const order = options_.to == NameOf(Order::Host) ? Order::Host : Order::Network;
            changed = foundIn || record.kind == Kind::Form || record.order != order;
            tally_.bytes += WriteRecord(to_, options_.file, record, order);
        }
        ++tally_.records;
        tally_.converted += changed ? 1 : 0;
    }

    Converted const& Commit() {
        to_.Commit();
        return tally_;
    }

private:
    ConvertOptions const& options_;
    OutputFile to_;
    Converted tally_;
};

std::string ClosingLine(ConvertOptions const& options, Converted const& tally) {
    if (options.json) {
        return fmt::format(R"({},"file":{},"out":{},"order":"{}","records":"{}","converted":"{}","bytes":"{}"}})",
                           JsonStart(), JsonQuoted(options.file), JsonQuoted(options.out), options.to, tally.records,
                           tally.converted, tally.bytes);
    }
    std::string const form = options.to == kSerialized ? "as its exchange form"
                             : options.to == kJson     ? "as JSON"
                                                       : "in " + options.to + " order";
    return fmt::format("{}: {}, {}, {}; {} converted", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"), form, tally.converted);
}

ExitCode ConvertRecords(RecordStream& stream, Converter& converter) {
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        if (!Diagnose(*record, Depth::FirstError, findings)) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            return ExitCode::BadRecord;
        }
        converter.Convert(*record);
    }
    return ExitCode::AllWell;
}

// Throws json::Error where the line is no valid record.
Record ReadLine(json::Reader& reader, Line const& line) {
    Record const record = reader.Read(line.text, line.readable);
    std::vector<Finding> findings;
    if (!Diagnose(record, Depth::FirstError, findings)) {
        throw json::Error(0, findings.front().field, findings.front().message);
    }
    return record;
}

ExitCode ConvertLines(RecordStream& stream, Converter& converter) {
    json::Reader reader;
    while (Line const* const line = stream.NextLine()) {
        if (line->text.find_first_not_of(" \t\r") == std::string_view::npos) {
            continue;
        }
        try {
            Record const record = ReadLine(reader, *line);
            converter.Convert(record, reader.FoundIn());
        } catch (json::Error const& error) {
            Complain(fmt::format("{}: line {} at byte {}: {}{}{}", stream.Name(), line->number,
                                 line->offset + error.position, error.path, error.path.empty() ? "" : ": ",
                                 error.what()));
            return ExitCode::BadRecord;
        }
    }
    return ExitCode::AllWell;
}

ExitCode Convert(ConvertOptions const& options, Output& out) {
    RecordStream stream(options.file, options.form.Facts());
    Converter converter(options);
    bool const isJson = !options.form.serialized && stream.IsJson();
    ExitCode const result = (isJson ? ConvertLines : ConvertRecords)(stream, converter);
    stream.ThrowIfChanged();
    if (result == ExitCode::AllWell) {
        PrintClosing(out, options.out, options.json, ClosingLine(options, converter.Commit()));
    }
    return result;
}

} // namespace

void AddConvert(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<ConvertOptions>();
    CLI::App* const verb =
        app.add_subcommand("convert", "Write the same records in one byte order, as an exchange form or as JSON");
    AddFile(*verb, "FILE", options->file, "A file of records, in any order, or of their JSON; - is standard input")
        ->required();
    verb->add_option("--to", options->to,
                     "The byte order: this machine's own, or network (big-endian); or the exchange form; or JSON")
        ->required()
        ->check(CLI::IsMember({NameOf(Order::Host), NameOf(Order::Network), +kSerialized, +kJson}).description(""))
        ->type_name("host|network|serialized|json");
    AddFile(*verb, "-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    AddFormOptions(*verb, options->form);
    verb->get_option("--checksum")->remove_needs(verb->get_option("--serialized"));
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "An exchange form says neither where it ends nor of which types it is. So one is written of a FILE with one\n"
        "record only, and must be told of to be read. It carries no references and no list of containers (but for a\n"
        "bloom record's), and with --checksum the checksum of itself in place of the record's CRC. No verb reads that\n"
        "of a segment record.\n\n"
        "JSON is one object a line for each record, and found out by itself when it is read. Nothing is lost on the "
        "way:\n"
        "every valid record comes back byte for byte.\n\n"
        "Every record is validated before it is converted. With a bad one nothing is written to OUT, which may be\n"
        "FILE itself; standard output has the good records before it by then.\n\n"
        "Example:\n  crrecord convert movie.do --to serialized --checksum -o movie.form\n"
        "  crrecord convert movie.form --serialized --dotype 3 --fptype 3 --checksum --to network -o movie.do");
    verb->callback([options, &chosen] {
        if (options->form.checksum && !options->form.serialized && options->to != kSerialized) {
            throw CLI::RequiresError("--checksum", "--serialized or --to serialized");
        }
        chosen = [options](Output& out) { return Convert(*options, out); };
    });
}

} // namespace crrecord::tool
