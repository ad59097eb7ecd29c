// crrecord diff: the differences between two DO records.

#include "analysis/record_diff.h"
#include "analysis/segment_match.h"
#include "io/record_names.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"
#include "json/name_index.h"

namespace crrecord::tool {

namespace {

struct DiffOptions {
    std::string a;
    std::string b;
    std::vector<std::string> names;
    FormOptions form;
    bool segments = false;
    bool summary = false;
    bool json = false;
};

struct Sum {
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;

    void Add(DOSegment const& segment) {
        ++segments;
        bytes += segment.size;
    }
};

constexpr char const* kFates[] = {"shared", "moved", "added", "removed"};
constexpr Colour kNew = Colour::Good;
constexpr Colour kGone = Colour::Bad;

// One of the two records.
struct Side {
    std::string const& file;
    std::string name; // empty without one
    OnlyRecord read;
    std::unique_ptr<DORecord> record;

    std::string Text() const { return Printable(file) + (name.empty() ? "" : ": " + Printable(name)); }
    // Returns: the members `member` and, for a record with a name, `member`_name.
    std::string Members(std::string const& member) const {
        std::string const own = member + "_name";
        return fmt::format(R"("{}":{}{})", member, JsonName(member, file),
                           name.empty() ? "" : fmt::format(R"(,"{}":{})", own, JsonName(own, name)));
    }
};

// Prints each difference while it compares the records.
class Differ {
public:
    Differ(DiffOptions const& options, Side const& a, Side const& b, Output& out)
        : options_(options), sideA_(a), sideB_(b), a_(*a.record), b_(*b.record), out_(out) {}

    ExitCode Run() {
        if (options_.json) {
            out_.Print("{},{},{}", JsonStart(), sideA_.Members("a"), sideB_.Members("b"));
        }
        DiffSegments();
        PrintList("header", true, [this] { DiffHeader(); });
        DiffReferenceLists();
        PrintList("containers", true, [this] { DiffContainerLists(); });
        DiffBitmaps();
        if (options_.json) {
            out_.Print(R"(,"same":{}}})"
                       "\n",
                       same_);
        } else {
            out_.Print("{} and {}: {}\n", sideA_.Text(), sideB_.Text(), same_ ? "the same" : "different");
        }
        return same_ ? ExitCode::AllWell : ExitCode::BadRecord;
    }

private:
    void DiffSegments() {
        PrintList(options_.segments ? "segments" : "runs", !options_.summary, [this] {
            MatchSegments(PlacedSegments(a_), PlacedSegments(b_),
                          [this](Fate fate, PlacedSegment const* a, PlacedSegment const* b) { Take(fate, a, b); });
            EndRun();
        });
        for (Fate const fate : {Fate::Shared, Fate::Moved, Fate::Added, Fate::Removed}) {
            PrintSum(kFates[static_cast<int>(fate)], SumOf(fate));
            same_ = same_ && (fate == Fate::Shared || SumOf(fate).segments == 0);
        }
        PrintSum("relocated", relocated_);
        same_ = same_ && relocated_.segments == 0;
    }

    void Take(Fate fate, PlacedSegment const* a, PlacedSegment const* b) {
        SumOf(fate).Add((a ? a : b)->segment);
        bool const relocated = fate == Fate::Shared && a->segment.dcid != b->segment.dcid;
        if (relocated) {
            relocated_.Add(a->segment);
        }
        if (options_.summary || (fate == Fate::Shared && !relocated)) {
            return;
        }
        if (options_.segments) {
            PrintSegment(NameOf(fate), a, b);
        } else if (!run_.Extend(fate, a, b)) {
            EndRun();
            run_ = {fate, 1, (a ? a : b)->segment.size, a ? std::optional(*a) : std::nullopt,
                    b ? std::optional(*b) : std::nullopt};
        }
    }

    // The name of the fate of a listed segment, of which the shared ones are relocated.
    static char const* NameOf(Fate fate) { return fate == Fate::Shared ? "relocated" : kFates[static_cast<int>(fate)]; }

    // Prints the run that ends here, if there is one.
    void EndRun() {
        MatchRun const run = std::exchange(run_, {});
        if (run.segments == 0) {
            return;
        }
        if (options_.json) {
            auto const place = [](std::optional<PlacedSegment> const& first) {
                return first ? fmt::format(R"({{"index":{},"offset":{},"dcid":{}}})", first->index,
                                           Decimal{first->position}, Decimal{first->segment.dcid})
                             : "null";
            };
            out_.Print(R"({}{{"what":"{}","segments":{},"bytes":{},"a":{},"b":{}}})", Separator(), NameOf(run.fate),
                       Decimal{run.segments}, Decimal{run.bytes}, place(run.a), place(run.b));
            return;
        }
        PlacedSegment const& first = run.a ? *run.a : *run.b;
        std::string const range = fmt::format("{}, {} ({} to {})", Counted(run.segments, "segment"),
                                              Counted(run.bytes, "byte"), first.index, first.index + run.segments - 1);
        switch (run.fate) {
        case Fate::Shared:
            out_.Print("relocated from container {} to {}: {}\n", run.a->segment.dcid, run.b->segment.dcid, range);
            break;
        case Fate::Moved:
            out_.Print("moved by {}: {}, offsets by {}\n", Shift(run.a->index, run.b->index), range,
                       Shift(run.a->position, run.b->position));
            break;
        case Fate::Added: out_.PaintLine(fmt::format("added: {}", range), kNew); break;
        case Fate::Removed: out_.PaintLine(fmt::format("removed: {}", range), kGone); break;
        }
    }

    // "+1", "-1".
    static std::string Shift(std::uint64_t from, std::uint64_t to) {
        return to < from ? fmt::format("-{}", from - to) : fmt::format("+{}", to - from);
    }

    void PrintSegment(char const* what, PlacedSegment const* a, PlacedSegment const* b) {
        DOSegment const& segment = (a ? a : b)->segment;
        std::string const fingerprint = TextOf(segment.fingerprint.Copy(), (a ? a_ : b_).GetFPType());
        if (!options_.json) {
            auto const place = [](PlacedSegment const* in) {
                return in ? fmt::format("byte {} in container {}", in->position, in->segment.dcid) : std::string();
            };
            PrintLine(what, fmt::format("{}, {}: {}{}{}", fingerprint, Counted(segment.size, "byte"), place(a),
                                        a && b ? " -> " : "", place(b)));
            return;
        }
        auto const place = [](PlacedSegment const* in) {
            return in ? fmt::format(R"({{"offset":{},"dcid":{}}})", Decimal{in->position}, Decimal{in->segment.dcid})
                      : "null";
        };
        out_.Print(R"({}{{"what":"{}","fingerprint":"{}","size":{},"a":{},"b":{}}})", Separator(), what, fingerprint,
                   segment.size, place(a), place(b));
    }

    void PrintSum(char const* what, Sum const& sum) {
        if (options_.json) {
            out_.Print(R"(,"{}":{{"segments":{},"bytes":{}}})", what, Decimal{sum.segments}, Decimal{sum.bytes});
        } else {
            PrintLine(what, fmt::format("{} of {}", Counted(sum.segments, "segment"), WithUnit(sum.bytes)),
                      sum.segments != 0);
        }
    }

    // Added and removed segments have a colour, unless there are none.
    void PrintLine(std::string_view what, std::string const& text, bool any = true) {
        std::string const line = fmt::format("{:<10}{}", what, text);
        bool const isNew = what == kFates[static_cast<int>(Fate::Added)];
        bool const isGone = what == kFates[static_cast<int>(Fate::Removed)];
        if (any && (isNew || isGone)) {
            out_.PaintLine(line, isNew ? kNew : kGone);
        } else {
            out_.Print("{}\n", line);
        }
    }

    void DiffHeader() {
        DiffHeaders(a_, b_, [this](char const* name, HeaderValue const& a, HeaderValue const& b) {
            same_ = false;
            PrintEither(fmt::format("header    {}: {} -> {}", name, a.text, b.text),
                        fmt::format(R"("field":"{}","a":{},"b":{})", name, Decimal{a.number}, Decimal{b.number}));
        });
    }

    void DiffReferenceLists() {
        if (!options_.json) {
            DiffReferences(a_, b_, [this](char const* reference, bool isInB) {
                same_ = false;
                if (options_.summary) {
                    return;
                }
                out_.PaintLine(fmt::format("reference {} {}", isInB ? "added" : "removed", reference),
                               isInB ? kNew : kGone);
            });
            return;
        }
        same_ = !PrintJsonReferenceDiff(out_, a_, b_) && same_;
    }

    void DiffContainerLists() {
        auto const object = [](ContainerUse const& use) {
            return fmt::format(R"({{"segments":{},"bytes":{},"listed":{}}})", Decimal{use.segments}, Decimal{use.bytes},
                               Decimal{use.listed});
        };
        auto const held = [](ContainerUse const& use) {
            return fmt::format("{} of {}", Counted(use.segments, "segment"), Counted(use.bytes, "byte"));
        };
        auto const listed = [](ContainerUse const& use) { return Counted(use.listed, "byte"); };
        // Only the values that differ.
        auto const text = [&](ContainerUse const& a, ContainerUse const& b) {
            std::string const segments = held(a) == held(b) ? "" : fmt::format("{} -> {}", held(a), held(b));
            std::string const list = a.listed == b.listed ? "" : fmt::format("listed {} -> {}", listed(a), listed(b));
            return segments + (segments.empty() || list.empty() ? "" : "; ") + list;
        };
        for (auto const& [dcid, a, b] : DiffContainers(a_, b_)) {
            same_ = false;
            PrintEither(fmt::format("container {}: {}", dcid, text(a, b)),
                        fmt::format(R"("dcid":{},"a":{},"b":{})", Decimal{dcid}, object(a), object(b)));
        }
    }

    void DiffBitmaps() {
        bool const differ = BitmapsDiffer(a_, b_);
        same_ = same_ && !differ;
        if (options_.json) {
            out_.Print(R"(,"bitmaps_differ":{})", differ);
        } else if (differ && !options_.summary) {
            out_.Write("bitmap    differs\n");
        }
    }

    // Calls list(), which prints the elements of an array of the JSON object.
    template <class List>
    void PrintList(char const* name, bool wanted, List list) {
        separator_ = "";
        if (options_.json && wanted) {
            out_.Print(R"(,"{}":[)", name);
        }
        list();
        if (options_.json && wanted) {
            out_.Write("]");
        }
    }
    // Prints a difference as a line, or as an object of the array.
    void PrintEither(std::string const& line, std::string const& members) {
        if (options_.json) {
            out_.Print("{}{{{}}}", std::exchange(separator_, ","), members);
        } else if (!options_.summary) {
            out_.Print("{}\n", line);
        }
    }
    char const* Separator() { return std::exchange(separator_, ","); }
    Sum& SumOf(Fate fate) { return sums_[static_cast<int>(fate)]; }

    DiffOptions const& options_;
    Side const& sideA_;
    Side const& sideB_;
    DORecord const& a_;
    DORecord const& b_;
    Output& out_;
    char const* separator_ = "";
    Sum sums_[std::size(kFates)];
    Sum relocated_;
    MatchRun run_; // the current one
    bool same_ = true;
};

// Throws: Failure if standard input is more than one of the inputs, or if there are too many indexes.
void CheckInputs(DiffOptions const& options) {
    std::vector<std::string> inputs = options.names;
    inputs.insert(inputs.end(), {options.a, options.b});
    if (std::count(inputs.begin(), inputs.end(), "-") > 1) {
        throw Failure("standard input can be only one of the records" +
                      std::string(options.names.empty() ? "" : " and their names"));
    }
    if (options.names.size() > 2) {
        throw Failure(fmt::format("--names: expected an index for A and one for B, found {}", options.names.size()));
    }
}

// Returns: the record of the stream, with its name from the index `number`, if there is one; std::nullopt for a bad
// record.
std::optional<Side> Open(RecordStream& stream, DiffOptions const& options, std::size_t number) {
    bool const hasNames = number < options.names.size();
    NameRecords(hasNames ? json::ReadNames(options.names[number]) : std::vector<NamedRecord>());
    std::optional<OnlyRecord> read = OnlyDORecord(stream);
    if (!read) {
        return std::nullopt;
    }
    std::string const* const name = NameAt(read->record.offset);
    Side side{stream.Name(), name ? *name : "", std::move(*read), nullptr};
    side.record = OpenDORecord(stream.Name(), side.read.record);
    return side;
}

ExitCode Diff(DiffOptions const& options, Output& out) {
    CheckInputs(options);
    RecordStream streamA(options.a, options.form.Facts());
    RecordStream streamB(options.b, options.form.Facts());
    SetUp(streamA, options.form, nullptr);
    SetUp(streamB, options.form, nullptr);
    std::optional<Side> const a = Open(streamA, options, 0);
    std::optional<Side> const b = Open(streamB, options, 1);
    if (!a || !b) {
        return ExitCode::BadRecord;
    }
    ExitCode const result = Differ(options, *a, *b, out).Run();
    return a->read.hasDamage || b->read.hasDamage ? ExitCode::BadRecord : result;
}

} // namespace

void AddDiff(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "diff", "Compare two DO records", Diff);
    AddFile(verb, "A", options.a, "A DO record; - is standard input")->required();
    AddFile(verb, "B", options.b, "The DO record to compare it with")->required();
    auto* const segments =
        verb.add_flag("--segments", options.segments, "List each segment that differs, not runs of them");
    verb.add_flag("--summary", options.summary, "Only the sums and the result; with --json all but the runs")
        ->excludes(segments);
    verb.add_flag("--json", options.json, "One JSON object");
    AddRepeatedFile(verb, "--names", options.names,
                    "Show the name of A from this index that build wrote; given twice, the second one is for B")
        ->type_name("INDEX");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    verb.footer("Times count as a difference; byte order and legacy references do not. Status 0 if the records are "
                "equal, 1 if\n"
                "they differ.\n\n"
                "Example:\n  crrecord diff yesterday.do today.do");
}

} // namespace crrecord::tool
