// crrecord refs: the references that keep objects alive.

#include "analysis/record_diff.h"
#include "io/line_reader.h"
#include "io/record_names.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "record/references.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct RefsOptions {
    std::string file;
    std::string out;
    std::vector<std::string> add;
    std::vector<std::string> remove;
    std::string active;
    bool allowEmpty = false;
    bool dryRun = false;
    FormOptions form; // without its form
    bool json = false;

    bool Changes() const { return !add.empty() || !remove.empty() || !active.empty(); }
};

std::vector<Reference> ParseReferences(char const* option, std::vector<std::string> const& texts) {
    std::vector<Reference> references;
    for (std::string const& text : texts) {
        Reference reference = ParseReference(text);
        if (!reference) {
            throw Failure(fmt::format("{}: found \"{}\", expected {}", option, text, kReferenceForm));
        }
        references.push_back(std::move(reference));
    }
    return references;
}

// Calls use(record) for each valid record of an input, and skip(record, findings) for each bad one. Ends if skip
// returns false.
template <class Use, class Skip>
ExitCode ForEachRecord(RecordStream& stream, Use use, Skip skip) {
    ExitCode result = ExitCode::AllWell;
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        if (!CheckRecord(stream.Name(), *record, findings)) {
            result = ExitCode::BadRecord;
            if (!skip(*record, findings)) {
                break;
            }
        } else {
            use(*record);
        }
    }
    stream.ThrowIfChanged();
    return result;
}

ExitCode List(RefsOptions const& options, Output& out) {
    RecordStream stream(options.file);
    SetUp(stream, options.form, options.json ? &out : nullptr);
    std::string const quotedName = JsonName("file", options.file);
    auto const use = [&](Record const& record) {
        if (record.kind == Kind::Segment) {
            return;
        }
        bool const several = record.number != 1 || !stream.EndsHere();
        std::unique_ptr<DORecord> const opened = OpenDORecord(options.file, record);
        if (!options.json) {
            std::string const prefix = several ? LabelOf(record.number, record.offset) + ": " : "";
            ForEachReference(*opened, [&](char const* text) { out.Print("{}{}\n", prefix, text); });
            return;
        }
        AppendJsonStart(out.Buffer(), quotedName, record, true);
        out.Write(R"(,"references":[)");
        char const* separator = "";
        ForEachReference(*opened, [&](char const* text) {
            out.Print(R"({}"{}")", separator, text);
            separator = ",";
        });
        out.Write("]}\n");
    };
    return ForEachRecord(stream, use, [&](Record const& record, std::vector<Finding> const& findings) {
        if (options.json) {
            PrintJsonFindings(out, quotedName, record, false, findings);
        }
        return true;
    });
}

// The tasks that are still active, from a file with one task id on each line. Memory: 8 bytes for each id.
class ActiveTasks {
public:
    // Throws: InputFailure for a file that cannot be read and for a line that is not a task id.
    explicit ActiveTasks(std::string const& name) : ids_(ReadNumbers(name, "a task id")) {
        std::sort(ids_.begin(), ids_.end());
    }

    bool IsEmpty() const { return ids_.empty(); }

    // A callback of the library. `context` is an ActiveTasks.
    static int IsActive(unsigned long taskId, void* context) {
        auto const& ids = static_cast<ActiveTasks const*>(context)->ids_;
        return std::binary_search(ids.begin(), ids.end(), taskId) ? 1 : 0;
    }

private:
    std::vector<std::uint64_t> ids_; // ascending
};

// Suppresses the library's log while it lives: the command reports the exception.
class WithoutLog {
public:
    WithoutLog() {
        CRLogSetSink([](cr_log_level_t, cr_status_t, char const*, void*) {}, nullptr);
    }
    ~WithoutLog() { CRLogSetSink(nullptr, nullptr); }
    WithoutLog(WithoutLog const&) = delete;
    WithoutLog& operator=(WithoutLog const&) = delete;
};

// Makes the same changes to each record. References are added last, so an inactive task can be added.
class Changer {
public:
    explicit Changer(RefsOptions const& options)
        : options_(options), add_(ParseReferences("--add", options.add)),
          remove_(ParseReferences("--remove", options.remove)) {
        if (!options.active.empty()) {
            active_ = std::make_unique<ActiveTasks>(options.active);
            if (active_->IsEmpty() && !options.allowEmpty) {
                throw Failure(options.active + ": has no task ids, so every task would be dropped: --allow-empty "
                                               "permits it");
            }
        }
    }

    // Returns: the changed record in host order.
    std::unique_ptr<DORecord> Change(Record const& record) {
        try {
            WithoutLog const quiet;
            // A copy, because the record may grow.
            std::unique_ptr<DORecord> changed = DORecord::FromBuffer(record.bytes, record.size);
            if (active_) {
                dropped_ += changed->RemoveInactiveTaskIDs(ActiveTasks::IsActive, active_.get());
            }
            for (Reference const& reference : remove_) {
                removed_ += changed->DelTRef(reference.get());
            }
            for (Reference const& reference : add_) {
                added_ += changed->AddTRef(*reference) == 0 ? 1 : 0;
            }
            ++records_;
            references_ += changed->GetNTRefs();
            return changed;
        } catch (Cr_ErrnoException const& error) {
            throw Failure(PlaceOf(options_.file, record) + ": " + TextOf(error));
        }
    }

    // Counts a segment record, which has no references.
    void PassSegment() { ++segments_; }

    // Counts a bad record. Returns: true if it is omitted, false if it ends the change.
    bool Omit() {
        ++bad_;
        return options_.form.scan;
    }

    std::uint64_t Records() const { return records_ + segments_; }

    std::string ClosingLine() const {
        if (options_.json) {
            std::string const target =
                options_.dryRun ? R"("dry_run":true)" : R"("out":)" + JsonName("out", options_.out);
            return fmt::format(R"({},"file":{},{},"records":{},"added":{},"removed":{},"dropped":{},)"
                               R"("references":{},"segment_records":{}{}}})",
                               JsonStart(), JsonName("file", options_.file), target, Decimal{records_}, Decimal{added_},
                               Decimal{removed_}, Decimal{dropped_}, Decimal{references_}, Decimal{segments_},
                               OmittedMembers(options_.form, bad_));
        }
        return fmt::format("{}: {}: {} {}added, {} removed, {} dropped; {}{}{}",
                           Printable(options_.dryRun ? options_.file : options_.out), Counted(records_, "record"),
                           added_, options_.dryRun ? "would be " : "", removed_, dropped_,
                           Counted(references_, "reference"),
                           segments_ == 0 ? "" : "; " + Counted(segments_, "segment record") + " unchanged",
                           OmittedText(options_.form, bad_));
    }

private:
    RefsOptions const& options_;
    std::vector<Reference> add_;
    std::vector<Reference> remove_;
    std::unique_ptr<ActiveTasks> active_;
    std::uint64_t records_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t removed_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t references_ = 0; // of the changed records
    std::uint64_t segments_ = 0;   // segment records
    std::uint64_t bad_ = 0;
};

ExitCode ChangeAll(RefsOptions const& options, Output& out) {
    RefuseToOmitInPlace(options.form, options.file, options.out);
    Changer changer(options);
    RecordStream stream(options.file);
    SetUp(stream, options.form, nullptr);
    OutputFile to(options.out, {options.file});
    auto const write = [&](Record const& record) {
        if (record.kind == Kind::Segment) {
            to.Write(record.bytes, record.size);
            changer.PassSegment();
            return;
        }
        std::unique_ptr<DORecord> const changed = changer.Change(record);
        if (record.order == Order::Network) {
            changed->HostToNetwork(0);
        }
        auto const bytes = BytesOf(*changed);
        to.Write(bytes.data(), bytes.size());
    };
    ExitCode const result =
        ForEachRecord(stream, write, [&](Record const&, std::vector<Finding> const&) { return changer.Omit(); });
    if (IsWorthWriting(options.form, result, changer.Records())) {
        to.Commit();
        PrintClosing(out, options.out, options.json, changer.ClosingLine());
    } else {
        to.Abandon();
    }
    return result;
}

// Prints the references that each record would gain and lose, and writes no file.
ExitCode ShowChanges(RefsOptions const& options, Output& out) {
    Changer changer(options);
    RecordStream stream(options.file);
    SetUp(stream, options.form, options.json ? &out : nullptr);
    std::string const quotedName = JsonName("file", options.file);
    auto const show = [&](Record const& record) {
        if (record.kind == Kind::Segment) {
            changer.PassSegment();
            return;
        }
        bool const several = record.number != 1 || !stream.EndsHere();
        std::unique_ptr<DORecord> const after = changer.Change(record);
        std::unique_ptr<DORecord> const before = OpenDORecord(options.file, record);
        if (options.json) {
            AppendJsonStart(out.Buffer(), quotedName, record, true);
            PrintJsonReferenceDiff(out, *before, *after);
            out.Write("}\n");
            return;
        }
        std::string const prefix = several ? LabelOf(record.number, record.offset) + ": " : "";
        DiffReferences(*before, *after, [&](char const* reference, bool isAdded) {
            out.Print("{}would {} {}\n", prefix, isAdded ? "add" : "remove", reference);
        });
    };
    ExitCode const result =
        ForEachRecord(stream, show, [&](Record const&, std::vector<Finding> const&) { return changer.Omit(); });
    if (IsWorthWriting(options.form, result, changer.Records())) {
        out.Print("{}\n", changer.ClosingLine());
    }
    return result;
}

ExitCode Refs(RefsOptions const& options, Output& out) {
    if (options.Changes() == (options.out.empty() && !options.dryRun)) {
        throw Failure(options.Changes() ? "--add, --remove and --drop-inactive need --out or --dry-run"
                                        : "--out and --dry-run need --add, --remove or --drop-inactive");
    }
    if (options.file == "-" && options.active == "-") {
        throw Failure("standard input can be either the records or the active tasks");
    }
    RefuseToReplace({options.active}, options.out, "records");
    if (!options.Changes()) {
        return List(options, out);
    }
    return options.dryRun ? ShowChanges(options, out) : ChangeAll(options, out);
}

} // namespace

void AddRefs(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "refs", "List or change the references of DO records", Refs);
    AddFile(verb, "FILE", options.file, "A file of records, one after the other; - is standard input")->required();
    AddTexts(verb, "--add", options.add, "Add a reference, such as task:17, dsid:5 or ref6:9; may be repeated")
        ->type_name("REF");
    AddTexts(verb, "--remove", options.remove, "Remove a reference; may be repeated")->type_name("REF");
    auto* const dropInactive = AddFile(verb, "--drop-inactive", options.active,
                                       "Remove each task that is not in this file of task ids, one on each line")
                                   ->type_name("TASKS");
    verb.add_flag("--allow-empty", options.allowEmpty, "Accept TASKS without ids: remove every task")
        ->needs(dropInactive);
    verb.add_flag("--dry-run", options.dryRun, "Print what would change, and write no file");
    AddFile(verb, "-o,--out", options.out, "The file for the changed records, which may be FILE")->type_name("OUT");
    AddScan(verb, options.form);
    verb.add_flag("--json", options.json,
                  "One JSON object on a line for each record; with changes, the closing line as one");
    verb.footer(
        "A change is made to all DO records of FILE; with a bad record OUT is not written, or with --scan OUT, which "
        "may\n"
        "not be FILE, has the other records: status 1. Tasks are dropped first and references added last. The records "
        "keep their byte order; their legacy references become typed ones.\n\n"
        "Example:\n  crrecord refs movie.do --add task:18 --remove task:17 -o movie.do");
}

} // namespace crrecord::tool
