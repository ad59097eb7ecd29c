// crrecord refs: what keeps the objects alive.

#include "analysis/active_tasks.h"
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

// Gives each valid record of an input, which is a DO record, to use(record), and each bad one, of which was told, to
// goOn(record, findings), which says whether to.
template <class Use, class GoOn>
ExitCode ForEachDORecord(RecordStream& stream, Use use, GoOn goOn) {
    ExitCode result = ExitCode::AllWell;
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        if (!Diagnose(*record, Depth::FirstError, findings)) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            result = ExitCode::BadRecord;
            if (!goOn(*record, findings)) {
                break;
            }
            continue;
        }
        if (record->kind != Kind::DataObject) {
            throw Failure(fmt::format("{}: record {} at byte {}: is a segment record, where a DO record is needed",
                                      stream.Name(), record->number, record->offset));
        }
        use(*record);
    }
    stream.ThrowIfChanged();
    return result;
}

ExitCode List(RefsOptions const& options, Output& out) {
    RecordStream stream(options.file);
    std::string const quotedName = JsonQuoted(options.file);
    auto const use = [&](Record const& record) {
        bool const several = record.number != 1 || !stream.EndsHere();
        std::unique_ptr<DORecord> const opened = OpenDORecord(options.file, record);
        if (!options.json) {
            std::string const prefix = several ? fmt::format("record {}: ", record.number) : "";
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
    return ForEachDORecord(stream, use, [&](Record const& record, std::vector<Finding> const& findings) {
        if (options.json) {
            AppendJsonFindingsLine(out.Buffer(), quotedName, record, false, findings);
            out.FlushWhenFull();
        }
        return true;
    });
}

// The library logs what it refuses and throws it too; here the exception tells it.
class WithoutLog {
public:
    WithoutLog() {
        CRLogSetSink([](cr_log_level_t, cr_status_t, char const*, void*) {}, nullptr);
    }
    ~WithoutLog() { CRLogSetSink(nullptr, nullptr); }
    WithoutLog(WithoutLog const&) = delete;
    WithoutLog& operator=(WithoutLog const&) = delete;
};

// The same changes to many records. What is to be added is there in the end, even if it is an inactive task.
class Changer {
public:
    explicit Changer(RefsOptions const& options)
        : options_(options), add_(ParseReferences("--add", options.add)),
          remove_(ParseReferences("--remove", options.remove)) {
        if (!options.active.empty()) {
            active_.emplace(options.active);
        }
    }

    std::unique_ptr<DORecord> Change(Record const& record) {
        try {
            WithoutLog const quiet;
            // Not in place: it may grow.
            std::unique_ptr<DORecord> changed = DORecord::FromBuffer(record.bytes, record.size);
            if (active_) {
                dropped_ += changed->RemoveInactiveTaskIDs(IsActive, &*active_);
            }
            for (Reference const& reference : remove_) {
                removed_ += changed->DelTRef(reference.get());
            }
            for (Reference const& reference : add_) {
                added_ += changed->AddTRef(*reference) == 0 ? 1 : 0;
            }
            ++records_;
            references_ += changed->GetNTRefs();
            if (record.order == Order::Network) {
                changed->HostToNetwork(0);
            }
            return changed;
        } catch (Cr_ErrnoException const& error) {
            char const* const text = error.what();
            throw Failure(fmt::format("{}: record {} at byte {}: {}", options_.file, record.number, record.offset,
                                      *text != '\0' ? text : CRStatusToStringA(error.GetStatus())));
        }
    }

    std::string ClosingLine() const {
        if (options_.json) {
            return fmt::format(R"({},"file":{},"out":{},"records":"{}","added":"{}","removed":"{}","dropped":"{}",)"
                               R"("references":"{}"}})",
                               JsonStart(), JsonQuoted(options_.file), JsonQuoted(options_.out), records_, added_,
                               removed_, dropped_, references_);
        }
        return fmt::format("{}: {}: {} added, {} removed, {} dropped; {}", Printable(options_.out),
                           Counted(records_, "record"), added_, removed_, dropped_, Counted(references_, "reference"));
    }

private:
    static int IsActive(unsigned long taskId, void* context) {
        return static_cast<ActiveTasks const*>(context)->Has(taskId) ? 1 : 0;
    }

    RefsOptions const& options_;
    std::vector<Reference> add_;
    std::vector<Reference> remove_;
    std::optional<ActiveTasks> active_;
    std::uint64_t records_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t removed_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t references_ = 0; // that the records have in the end
};

ExitCode ChangeAll(RefsOptions const& options, Output& out) {
    Changer changer(options);
    RecordStream stream(options.file);
    OutputFile to(options.out, {options.file});
    auto const write = [&](Record const& record) {
        std::unique_ptr<DORecord> const changed = changer.Change(record);
        auto const bytes = BytesOf(*changed);
        to.Write(bytes.data(), bytes.size());
    };
    ExitCode const result =
        ForEachDORecord(stream, write, [](Record const&, std::vector<Finding> const&) { return false; });
    if (result == ExitCode::AllWell) {
        to.Commit();
        PrintClosing(out, options.out, options.json, changer.ClosingLine());
    }
    return result;
}

ExitCode Refs(RefsOptions const& options, Output& out) {
    if (options.Changes() == options.out.empty()) {
        throw Failure(options.out.empty() ? "--add, --remove and --drop-inactive need --out"
                                          : "--out needs --add, --remove or --drop-inactive");
    }
    if (options.file == "-" && options.active == "-") {
        throw Failure("standard input can be either the records or the active tasks");
    }
    RefuseToReplace({options.active}, options.out, "records");
    return options.Changes() ? ChangeAll(options, out) : List(options, out);
}

} // namespace

void AddRefs(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<RefsOptions>();
    CLI::App* const verb = app.add_subcommand("refs", "List or change the references of DO records");
    AddFile(*verb, "FILE", options->file, "A file of DO records, one behind the other; - is standard input")
        ->required();
    AddTexts(*verb, "--add", options->add, "Add a reference, such as task:17, dsid:5 or ref6:9; may be given again")
        ->type_name("REF");
    AddTexts(*verb, "--remove", options->remove, "Remove a reference; may be given again")->type_name("REF");
    AddFile(*verb, "--drop-inactive", options->active,
            "Remove every task that is not in this file, which has a task id on each line")
        ->type_name("TASKS");
    AddFile(*verb, "-o,--out", options->out, "The file to write the changed records to, which may be FILE itself")
        ->type_name("OUT");
    verb->add_flag("--json", options->json,
                   "One JSON object a line for each record; with changes, the closing line as one");
    verb->footer(
        "A change is made to all records of FILE; with a bad one nothing is written. Tasks are dropped first,\n"
        "references added last. The records keep their byte order; their legacy references become typed ones.\n\n"
        "Example:\n  crrecord refs movie.do --add task:18 --remove task:17 -o movie.do");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Refs(*options, out); }; });
}

} // namespace crrecord::tool
