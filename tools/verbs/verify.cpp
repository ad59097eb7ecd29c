// crrecord verify: compares the data of files with their DO records.

#include "io/record_names.h"
#include "record/record_findings.h"
#include "verbs/verify_file.h"
#include "json/name_index.h"

#include <crrecord/do_types.h>

#include <fcntl.h>

namespace crrecord::tool {

namespace {

// Writes a DO record, as it was read but for its check time.
void WriteStamped(VerifyOptions const& options, std::vector<unsigned char> bytes, Order order, Output& out) {
    reinterpret_cast<DORecordHeader*>(bytes.data())->checktime = InOrder(options.start, order);
    OutputFile to(options.out, {options.record});
    to.Write(bytes.data(), bytes.size());
    to.Commit();
    if (!options.json) {
        out.Print("{}: 1 record, check time {}\n", Printable(options.out), options.start);
    }
}

ExitCode VerifyOne(VerifyOptions const& options, Output& out) {
    RecordStream stream(options.record, options.form.Facts());
    Record const* const read = OnlyDORecord(stream);
    if (!read) {
        return ExitCode::BadRecord;
    }
    std::vector<unsigned char> original; // opening the record changes its bytes
    if (options.stamp) {
        original.assign(read->bytes, read->bytes + read->size);
    }
    std::unique_ptr<DORecord> const record = OpenDORecord(options.record, *read);
    if (IsBloom(record->GetDOType())) {
        throw Failure(options.record + ": is a bloom record, which has no segments");
    }
    Input input(options.file);
    ExitCode const result = VerifyFile(options, *record, nullptr, input, out);
    if (options.stamp && result == ExitCode::AllWell) {
        WriteStamped(options, std::move(original), read->order, out);
    }
    return result;
}

// Compares each record with the file of its name.
class NamedFiles {
public:
    NamedFiles(VerifyOptions const& options, Output& out)
        : options_(options), out_(out), names_(json::ReadNames(options.names)) {
        NameRecords(names_);
    }

    ExitCode Verify() {
        RecordStream stream(options_.record);
        std::vector<Finding> findings;
        while (Record const* const record = stream.Next()) {
            if (!CheckRecord(stream.Name(), *record, findings)) {
                Count(ExitCode::BadRecord);
                TakeName(*record);
            } else if (std::string const* const name = TakeName(*record)) {
                CompareOne(*record, *name);
            } else {
                Complain(fmt::format("{}: has no name in {}", PlaceOf(options_.record, *record), options_.names));
                Count(ExitCode::BadRecord);
            }
        }
        for (; next_ != names_.size(); ++next_) {
            ComplainOfName(names_[next_]);
        }
        PrintTotal();
        return result_;
    }

private:
    // Returns: the name of the record, which follows those before it; null if it has none.
    std::string const* TakeName(Record const& record) {
        for (; next_ != names_.size() && names_[next_].offset < record.offset; ++next_) {
            ComplainOfName(names_[next_]);
        }
        bool const isNext = next_ != names_.size() && names_[next_].offset == record.offset;
        return isNext ? &names_[next_++].name : nullptr;
    }

    void ComplainOfName(NamedRecord const& named) {
        Complain(fmt::format("{}: {} at byte {}: no record of {} starts there", options_.names, named.name,
                             named.offset, options_.record));
        Count(ExitCode::BadRecord);
    }

    void CompareOne(Record const& record, std::string const& name) {
        try {
            if (record.kind == Kind::Segment) {
                throw InputFailure(PlaceOf(options_.record, record) + ": is a segment record, expected a DO record");
            }
            std::unique_ptr<DORecord> const opened = OpenDORecord(options_.record, record);
            if (IsBloom(opened->GetDOType())) {
                throw InputFailure(PlaceOf(options_.record, record) + ": is a bloom record, which has no segments");
            }
            std::string const file = PathOf(name);
            Input input(file, Input::OpenIn(AT_FDCWD, file, 0)); // the index may name a pipe
            input.ThrowIfNotRegular();
            ++files_;
            bytes_ += opened->GetSize();
            Count(VerifyFile(options_, *opened, &record, input, out_));
        } catch (InputFailure const& failure) {
            Complain(failure.what());
            Count(ExitCode::CouldNotWork);
        }
    }

    std::string PathOf(std::string const& name) const {
        bool const isRelative = !options_.folder.empty() && name.front() != '/';
        return isRelative ? options_.folder + '/' + name : name;
    }

    void Count(ExitCode result) {
        different_ += result == ExitCode::BadRecord ? 1 : 0;
        failed_ += result == ExitCode::CouldNotWork ? 1 : 0;
        result_ = std::max(result_, result);
    }

    void PrintTotal() {
        if (options_.json) {
            out_.Print(R"({},"record_file":{},"files":{},"bytes":{},"different":{},"failed":{}}})"
                       "\n",
                       JsonStart(), JsonName("record_file", options_.record), Decimal{files_}, Decimal{bytes_},
                       Decimal{different_}, Decimal{failed_});
            return;
        }
        out_.Print("{}: {}, {}: ", Printable(options_.record), Counted(files_, "file"), Counted(bytes_, "byte"));
        if (result_ == ExitCode::AllWell) {
            out_.Write("all match their records\n");
        } else {
            out_.Print("{} different, {} failed\n", different_, failed_);
        }
    }

    VerifyOptions const& options_;
    Output& out_;
    std::vector<NamedRecord> names_;
    std::size_t next_ = 0; // of the names
    std::uint64_t files_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t different_ = 0;
    std::uint64_t failed_ = 0;
    ExitCode result_ = ExitCode::AllWell;
};

ExitCode Verify(VerifyOptions const& options, Output& out) {
    if (options.names.empty() == options.file.empty()) {
        throw Failure(options.names.empty() ? "FILE or --names is required (try: crrecord verify --help)"
                                            : "with --names each file has its name there, so there is no FILE");
    }
    if (options.names.empty()) {
        if (options.record == "-" && options.file == "-") {
            throw Failure("standard input can be either the record or the file");
        }
        RefuseToReplace({options.file}, options.out, "record");
        if (options.out != "-") {
            return VerifyOne(options, out);
        }
        Output error(STDERR_FILENO, "standard error"); // the record is on standard output
        ExitCode const result = VerifyOne(options, error);
        error.Flush();
        return result;
    }
    if (options.names == "-" && options.record == "-") {
        throw Failure("standard input can be either the records or their names");
    }
    return NamedFiles(options, out).Verify();
}

} // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "verify", "Compare the data of a file with its DO record", Verify);
    AddFile(verb, "RECORD", options.record, "The DO record, or with --names several; - is standard input")->required();
    AddFile(verb, "FILE", options.file, "The file that it describes; - is standard input");
    auto* const names =
        AddFile(verb, "--names", options.names, "Compare each record with the file that this index from build names")
            ->type_name("INDEX");
    AddFile(verb, "-C,--directory", options.folder, "The folder of the named files, without it the current one")
        ->type_name("DIR")
        ->needs(names);
    verb.add_flag("--no-crc", options.noCrc, "Do not check the record's CRC, which may be another checksum");
    verb.add_flag("--json", options.json, "One JSON object with all differences");
    AddFormOptions(verb, options.form);
    names->excludes(verb.get_option("--serialized"));
    auto* const written = AddFile(verb, "-o,--out", options.out,
                                  "The file that --stamp writes, which may be RECORD; - is standard output")
                              ->type_name("OUT");
    auto* const stamp = verb.add_flag("--stamp", options.stamp,
                                      "If FILE matches, write the record with the time of this check as checktime")
                            ->needs(written)
                            ->excludes(names)
                            ->excludes(verb.get_option("--serialized"));
    written->needs(stamp);
    verb.footer("Reads FILE once and lists each segment whose data has a fingerprint other than the recorded one, each "
                "gap that\n"
                "is not all zeros, a different size, a CRC of the record other than the CRC-32 of the data, and each "
                "container\n"
                "with other bytes in the record's list than in its segments: status 1. A CRC of 0 is none. The last "
                "line names\n"
                "what was checked. Holes of a sparse FILE, and data after the record's size, are not read.\n\n"
                "With --names only files that differ are listed, and the last line has the total. A file that cannot "
                "be read is\n"
                "reported, and the others are still compared: status 2.\n\n"
                "Example:\n  crrecord verify movie.do movie.mkv\n"
                "  crrecord verify --stamp movie.do movie.mkv -o movie.do\n"
                "  crrecord verify --names photos.idx photos.do");
}

} // namespace crrecord::tool
