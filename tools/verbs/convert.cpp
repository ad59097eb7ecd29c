// crrecord convert: records in either byte order, as exchange forms or as JSON, and back.

#include "record/do_record.h"
#include "record/parallel_records.h"
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
    unsigned int jobs = Processors();
    bool json = false;
};

struct Converted {
    std::uint64_t records = 0;
    std::uint64_t converted = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bad = 0;
};

struct FreeForm {
    void operator()(void* form) const { DORecord::SerializedDORecordFree(&form); }
};

void Write(Output& to, std::span<unsigned char const> bytes) {
    to.Write({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
}

// Writes a valid record in one byte order. Returns: its size.
std::uint64_t WriteRecord(Output& to, std::string const& file, Record const& record, Order order) {
    if (record.kind == Kind::Form) {
        std::unique_ptr<DORecord> const made = OpenDORecord(file, record);
        if (order == Order::Network) {
            made->HostToNetwork(0);
        }
        auto const bytes = BytesOf(*made);
        Write(to, bytes);
        return bytes.size();
    }
    ConvertRecord(record, order);
    Write(to, {record.bytes, record.size});
    return record.size;
}

// Writes the exchange form of a valid record. Returns: its size.
std::uint64_t WriteForm(Output& to, std::string const& file, Record const& record, bool withChecksum) {
    void* form = nullptr;
    unsigned long size = 0;
    cr_status_t status = CR_STATUS_OK;
    if (record.kind == Kind::Segment) {
        if (withChecksum) {
            throw Failure(file + ": is a segment record, whose exchange form has no checksum");
        }
        ConvertRecord(record, Order::Host);
        status = SegmentRecordSerialize(&AsSegmentRecord(record), &form, &size);
    } else {
        status = OpenDORecord(file, record)->Serialize(&form, &size, withChecksum);
    }
    std::unique_ptr<void, FreeForm> const owned(form);
    if (status != CR_STATUS_OK) {
        throw Failure(file + ": " + CRStatusToStringA(status));
    }
    Write(to, {static_cast<unsigned char const*>(form), size});
    return size;
}

// Writes a valid record as a line of JSON. `foundIn` is the order of the original record.
void WriteLine(Output& to, std::string const& file, Record const& record, Order foundIn) {
    Record line = record;
    line.order = foundIn;
    if (record.kind == Kind::Segment) {
        ConvertRecord(record, Order::Host);
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

struct ConvertPart : RecordPart {
    using RecordPart::RecordPart;

    Converted tally;
};

// Writes a valid record. `foundIn` is the order that a line of JSON names.
void WriteConverted(ConvertOptions const& options, Record const& record, std::optional<Order> foundIn, Output& to,
                    Converted& tally) {
    bool changed = true;
    if (options.to == kSerialized) {
        tally.bytes += WriteForm(to, options.file, record, options.form.checksum);
    } else if (options.to == kJson) {
        std::uint64_t const before = to.Size();
        WriteLine(to, options.file, record, foundIn.value_or(record.order));
        tally.bytes += to.Size() - before;
    } else {
        Order const order = options.to == NameOf(Order::Host) ? Order::Host : Order::Network;
        changed = foundIn || record.kind == Kind::Form || record.order != order;
        tally.bytes += WriteRecord(to, options.file, record, order);
    }
    ++tally.records;
    tally.converted += changed ? 1 : 0;
}

void ThrowIfSeveral(ConvertOptions const& options, bool isFirst) {
    if (options.to == kSerialized && !isFirst) {
        throw Failure(options.file + ": has more than one record, and an exchange form does not store its length");
    }
}

std::string ClosingLine(ConvertOptions const& options, Converted const& tally) {
    if (options.json) {
        return fmt::format(R"({},"file":{},"out":{},"order":"{}","records":"{}","converted":"{}","bytes":"{}"{}}})",
                           JsonStart(), JsonName("file", options.file), JsonName("out", options.out), options.to,
                           tally.records, tally.converted, tally.bytes, OmittedMembers(options.form, tally.bad));
    }
    std::string const form = options.to == kSerialized ? "as its exchange form"
                             : options.to == kJson     ? "as JSON"
                                                       : "in " + options.to + " order";
    return fmt::format("{}: {}, {}, {}; {} converted{}", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"), form, tally.converted, OmittedText(options.form, tally.bad));
}

// Ends at a bad record, or omits it with --scan.
ExitCode ConvertRecords(RecordStream& stream, ConvertOptions const& options, Output& to, Converted& tally) {
    auto const work = [&](Record& record, ConvertPart& part) {
        if (!part.Check(stream.Name(), record)) {
            ++part.tally.bad;
            return options.form.scan;
        }
        ThrowIfSeveral(options, record.number == 1);
        WriteConverted(options, record, std::nullopt, part.out, part.tally);
        return true;
    };
    auto const use = [&tally](ConvertPart& part) {
        Converted const more = std::exchange(part.tally, {});
        tally.records += more.records;
        tally.converted += more.converted;
        tally.bytes += more.bytes;
        tally.bad += more.bad;
    };
    auto const make = [](Output::PartOf of) { return std::make_unique<ConvertPart>(of); };
    ParallelRecords<ConvertPart>::Steps steps{.make = make, .work = work, .use = use};
    if (options.to == kJson) {
        steps.largest /= 2; // the text is up to four times as long as the record
    }
    return ParallelRecords<ConvertPart>(stream, options.jobs, to, std::move(steps)).Run();
}

// Throws: json::Error for a line that is not a valid record.
Record ReadLine(json::Reader& reader, Line const& line) {
    Record const record = reader.Read(line.text, line.readable);
    std::vector<Finding> findings;
    if (!Diagnose(record, Depth::FirstError, findings)) {
        throw json::Error(0, findings.front().field, findings.front().message);
    }
    return record;
}

ExitCode ConvertLines(RecordStream& stream, ConvertOptions const& options, Output& to, Converted& tally) {
    json::Reader reader;
    while (Line const* const line = stream.NextLine()) {
        if (line->text.find_first_not_of(" \t\r") == std::string_view::npos) {
            continue;
        }
        try {
            Record const record = ReadLine(reader, *line);
            ThrowIfSeveral(options, tally.records == 0);
            WriteConverted(options, record, reader.FoundIn(), to, tally);
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
    if (options.form.checksum && !options.form.serialized && options.to != kSerialized) {
        throw Failure("--checksum requires --serialized or --to serialized (try: crrecord convert --help)");
    }
    if (options.form.scan && options.to == kSerialized) {
        throw Failure("--scan is not for --to serialized, whose file holds one record");
    }
    RefuseToOmitInPlace(options.form, options.file, options.out);
    RecordStream stream(options.file, options.form.Facts());
    SetUp(stream, options.form, nullptr);
    OutputFile to(options.out, {options.file});
    Converted tally;
    bool const isJson = !options.form.serialized && stream.IsJson();
    if (options.form.scan && isJson) {
        throw Failure(options.file + ": is JSON, in which --scan finds no records");
    }
    ExitCode const result = (isJson ? ConvertLines : ConvertRecords)(stream, options, to.Text(), tally);
    stream.ThrowIfChanged();
    if (IsWorthWriting(options.form, result, tally.records)) {
        to.Commit();
        PrintClosing(out, options.out, options.json, ClosingLine(options, tally));
    } else {
        to.Abandon();
    }
    return result;
}

} // namespace

void AddConvert(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(
        app, chosen, "convert", "Write the same records in one byte order, as an exchange form or as JSON", Convert);
    AddFile(verb, "FILE", options.file, "A file of records or of their JSON; - is standard input")->required();
    verb.add_option("--to", options.to,
                    "The byte order of this machine, network order (big-endian), the exchange form, or JSON")
        ->required()
        ->check(CLI::IsMember({NameOf(Order::Host), NameOf(Order::Network), +kSerialized, +kJson}).description(""))
        ->type_name("host|network|serialized|json");
    AddOut(verb, options.out);
    AddFormOptions(verb, options.form);
    verb.get_option("--checksum")->remove_needs(verb.get_option("--serialized"));
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    verb.add_flag("--json", options.json, "The closing line as a JSON object");
    verb.footer(
        "An exchange form stores neither its length nor its types, so a file holds one form, and --serialized, "
        "--dotype\n"
        "and --fptype are needed to read it. It has no references, no list of containers except that of a bloom "
        "record,\n"
        "and with --checksum a checksum of itself instead of the record's CRC. No verb reads the form of a segment\n"
        "record.\n\n"
        "JSON is one object on a line for each record and is detected in the input. It stores every byte of a "
        "record.\n\n"
        "Every record is validated first. With a bad record OUT, which may be FILE, is not written; standard output "
        "has\n"
        "the records before the bad one. With --scan OUT, which may not be FILE, has all valid records: status 1.\n\n"
        "Example:\n  crrecord convert movie.do --to serialized --checksum -o movie.form\n"
        "  crrecord convert movie.form --serialized --dotype 3 --fptype 3 --checksum --to network -o movie.do");
}

} // namespace crrecord::tool
