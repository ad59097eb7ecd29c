// crrecord verify: compares the data of files with their DO records.

#include "io/record_names.h"
#include "record/record_findings.h"
#include "verbs/verify_file.h"
#include "json/name_index.h"

#include <crrecord/do_types.h>

#include <fcntl.h>

namespace crrecord::tool {

namespace {

// Sets the check time in the bytes of a DO record.
void Stamp(VerifyOptions const& options, std::vector<unsigned char>& bytes, Order order) {
    reinterpret_cast<DORecordHeader*>(bytes.data())->checktime = InOrder(options.start, order);
}

// Writes a DO record, as it was read but for its check time.
void WriteStamped(VerifyOptions const& options, std::vector<unsigned char> bytes, Order order, Output& out) {
    Stamp(options, bytes, order);
    OutputFile to(options.out, {options.record});
    to.Write(bytes.data(), bytes.size());
    to.Commit();
    if (!options.json) {
        out.Print("{}: 1 record, check time {}\n", Printable(options.out), options.start);
    }
}

ExitCode VerifyOne(VerifyOptions const& options, Output& out) {
    RefuseToOmitInPlace(options.form, options.record, options.out);
    RecordStream stream(options.record, options.form.Facts());
    SetUp(stream, options.form, options.json ? &out : nullptr);
    std::optional<OnlyRecord> const only = OnlyDORecord(stream);
    if (!only) {
        return ExitCode::BadRecord;
    }
    Record const& read = only->record;
    std::vector<unsigned char> original; // opening the record changes its bytes
    if (options.stamp) {
        original.assign(read.bytes, read.bytes + read.size);
    }
    std::unique_ptr<DORecord> const record = OpenDORecord(options.record, read);
    if (IsBloom(record->GetDOType())) {
        throw Failure(options.record + ": is a bloom record, which has no segments");
    }
    Input input(options.file);
    ExitCode const result = VerifyFile(options, *record, nullptr, input, out);
    if (options.stamp && result == ExitCode::AllWell) {
        WriteStamped(options, std::move(original), read.order, out);
    }
    return only->hasDamage ? std::max(result, ExitCode::BadRecord) : result;
}

// Compares each record with the file of its name. With --stamp writes all bytes of the records, and the check time in
// those whose files match.
class NamedFiles {
public:
    NamedFiles(VerifyOptions const& options, Output& out)
        : options_(options), out_(out), names_(json::ReadNames(options.names)) {
        NameRecords(names_);
        if (options.stamp) {
            stamped_.emplace(options.out, std::vector<std::string>{options.record});
        }
    }

    ExitCode Verify() {
        RecordStream stream(options_.record);
        SetUp(stream, options_.form, options_.json ? &out_ : nullptr);
        std::vector<Finding> findings;
        while (Record const* const record = stream.Next()) {
            if (!CheckRecord(stream.Name(), *record, findings)) {
                Count(ExitCode::BadRecord);
                TakeName(*record);
                CopyBad(stream, *record);
                continue;
            }
            std::vector<unsigned char> original; // opening the record changes its bytes
            if (stamped_) {
                original.assign(record->bytes, record->bytes + record->size);
            }
            bool matches = false;
            if (std::string const* const name = TakeName(*record)) {
                matches = CompareOne(*record, *name);
            } else {
                Complain(fmt::format("{}: has no name in {}", PlaceOf(options_.record, *record), options_.names));
                Count(ExitCode::BadRecord);
            }
            Copy(*record, std::move(original), matches);
        }
        for (; next_ != names_.size(); ++next_) {
            ComplainOfName(names_[next_]);
        }
        bool const isWritten = Commit(stream);
        PrintTotal(isWritten);
        return result_;
    }

private:
    void CopyBad(RecordStream& stream, Record const& record) {
        if (stamped_) {
            do {
                stamped_->Write(record.bytes, record.size);
            } while (stream.NextBlock());
        }
    }

    void Copy(Record const& record, std::vector<unsigned char> original, bool matches) {
        if (matches && stamped_) {
            Stamp(options_, original, record.order);
            ++stampedRecords_;
        }
        if (stamped_) {
            stamped_->Write(original.data(), original.size());
        }
    }

    // Writes the records, if at least one has a new check time and no bytes would be lost. Returns: true if so.
    bool Commit(RecordStream const& stream) {
        if (!stamped_) {
            return false;
        }
        stream.ThrowIfChanged();
        bool const hasAll = stream.UnreadBytes() == 0U;
        if (!hasAll) {
            Complain(fmt::format("{}: is not written: {} was not read to its end (try --scan)", options_.out,
                                 options_.record));
        }
        if (!hasAll || stampedRecords_ == 0) {
            stamped_->Abandon();
            return false;
        }
        stamped_->Commit();
        return true;
    }

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

    // Returns: true if the file matches.
    bool CompareOne(Record const& record, std::string const& name) {
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
            if (stamped_ && stamped_->IsFile(input.Facts())) {
                throw Failure(file + ": is an input itself, which the records would replace");
            }
            ++files_;
            bytes_ += opened->GetSize();
            ExitCode const result = VerifyFile(options_, *opened, &record, input, out_);
            Count(result);
            return result == ExitCode::AllWell;
        } catch (InputFailure const& failure) {
            Complain(failure.what());
            Count(ExitCode::CouldNotWork);
            return false;
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

    void PrintTotal(bool isWritten) {
        if (options_.json) {
            std::string const written =
                isWritten ? fmt::format(R"(,"out":{},"checktime":{},"stamped":{})", JsonName("out", options_.out),
                                        options_.start, Decimal{stampedRecords_})
                          : "";
            out_.Print(R"({},"record_file":{},"files":{},"bytes":{},"different":{},"failed":{}{}}})"
                       "\n",
                       JsonStart(), JsonName("record_file", options_.record), Decimal{files_}, Decimal{bytes_},
                       Decimal{different_}, Decimal{failed_}, written);
            return;
        }
        out_.Print("{}: {}, {}: ", Printable(options_.record), Counted(files_, "file"), Counted(bytes_, "byte"));
        if (result_ == ExitCode::AllWell) {
            out_.Write("all match their records\n");
        } else {
            out_.Print("{} different, {} failed\n", different_, failed_);
        }
        if (isWritten) {
            out_.Print("{}: {}, check time {}\n", Printable(options_.out), Counted(stampedRecords_, "record"),
                       options_.start);
        }
    }

    VerifyOptions const& options_;
    Output& out_;
    std::optional<OutputFile> stamped_;
    std::uint64_t stampedRecords_ = 0;
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
    if (options.record == "-" && (options.file == "-" || options.names == "-")) {
        throw Failure(options.names.empty() ? "standard input can be either the record or the file"
                                            : "standard input can be either the records or their names");
    }
    RefuseToReplace({options.file, options.names}, options.out, "record");
    auto const verify = [&options](Output& to) {
        return options.names.empty() ? VerifyOne(options, to) : NamedFiles(options, to).Verify();
    };
    if (options.out != "-") {
        return verify(out);
    }
    Output error(STDERR_FILENO, "standard error"); // the records are on standard output
    ExitCode const result = verify(error);
    error.Flush();
    return result;
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
    AddScan(verb, options.form);
    auto* const written = AddFile(verb, "-o,--out", options.out,
                                  "The file that --stamp writes, which may be RECORD; - is standard output")
                              ->type_name("OUT");
    auto* const stamp =
        verb.add_flag("--stamp", options.stamp,
                      "Write the record, or with --names all records; those whose files match have the time of "
                      "this check as checktime")
            ->needs(written)
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
