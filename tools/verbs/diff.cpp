// crrecord diff: the differences between two DO records.

#include "analysis/record_diff.h"
#include "analysis/segment_match.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct DiffOptions {
    std::string a;
    std::string b;
    FormOptions form;
    bool segments = false;
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

// Prints each difference while it compares the records.
class Differ {
public:
    Differ(DiffOptions const& options, DORecord const& a, DORecord const& b, Output& out)
        : options_(options), a_(a), b_(b), out_(out) {}

    ExitCode Run() {
        if (options_.json) {
            out_.Print(R"({},"a":{},"b":{})", JsonStart(), JsonQuoted(options_.a), JsonQuoted(options_.b));
        }
        DiffSegments();
        PrintList("header", true, [this] { PrintHeader(); });
        DiffReferenceLists();
        PrintList("containers", true, [this] { PrintContainers(); });
        DiffBitmaps();
        if (options_.json) {
            out_.Print(R"(,"same":{}}})"
                       "\n",
                       same_);
        } else {
            out_.Print("{} and {}: {}\n", Printable(options_.a), Printable(options_.b),
                       same_ ? "the same" : "different");
        }
        return same_ ? ExitCode::AllWell : ExitCode::BadRecord;
    }

private:
    void DiffSegments() {
        PrintList("segments", options_.segments, [this] {
            MatchSegments(PlacedSegments(a_), PlacedSegments(b_),
                          [this](Fate fate, PlacedSegment const* a, PlacedSegment const* b) { Take(fate, a, b); });
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
        if (options_.segments && (relocated || fate != Fate::Shared)) {
            PrintSegment(relocated ? "relocated" : kFates[static_cast<int>(fate)], a, b);
        }
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
            return in ? fmt::format(R"({{"offset":"{}","dcid":"{}"}})", in->position, in->segment.dcid) : "null";
        };
        out_.Print(R"({}{{"what":"{}","fingerprint":"{}","size":{},"a":{},"b":{}}})", Separator(), what, fingerprint,
                   segment.size, place(a), place(b));
    }

    void PrintSum(char const* what, Sum const& sum) {
        if (options_.json) {
            out_.Print(R"(,"{}":{{"segments":"{}","bytes":"{}"}})", what, sum.segments, sum.bytes);
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

    void PrintHeader() {
        DiffHeaders(a_, b_, [this](char const* name, HeaderValue const& a, HeaderValue const& b) {
            same_ = false;
            PrintEither(fmt::format("header    {}: {} -> {}", name, a.text, b.text),
                        fmt::format(R"("field":"{}","a":"{}","b":"{}")", name, a.number, b.number));
        });
    }

    void DiffReferenceLists() {
        if (!options_.json) {
            DiffReferences(a_, b_, [this](char const* reference, bool isInB) {
                same_ = false;
                out_.PaintLine(fmt::format("reference {} {}", isInB ? "added" : "removed", reference),
                               isInB ? kNew : kGone);
            });
            return;
        }
        same_ = !PrintJsonReferenceDiff(out_, a_, b_) && same_;
    }

    void PrintContainers() {
        auto const object = [](ContainerUse const& use) {
            return fmt::format(R"({{"segments":"{}","bytes":"{}","listed":"{}"}})", use.segments, use.bytes,
                               use.listed);
        };
        auto const text = [](ContainerUse const& use) {
            return fmt::format("{} of {}, {} listed", Counted(use.segments, "segment"), Counted(use.bytes, "byte"),
                               Counted(use.listed, "byte"));
        };
        for (auto const& [dcid, a, b] : DiffContainers(a_, b_)) {
            same_ = false;
            PrintEither(fmt::format("container {}: {} -> {}", dcid, text(a), text(b)),
                        fmt::format(R"("dcid":"{}","a":{},"b":{})", dcid, object(a), object(b)));
        }
    }

    void DiffBitmaps() {
        bool const differ = BitmapsDiffer(a_, b_);
        same_ = same_ && !differ;
        if (options_.json) {
            out_.Print(R"(,"bitmaps_differ":{})", differ);
        } else if (differ) {
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
        } else {
            out_.Print("{}\n", line);
        }
    }
    char const* Separator() { return std::exchange(separator_, ","); }
    Sum& SumOf(Fate fate) { return sums_[static_cast<int>(fate)]; }

    DiffOptions const& options_;
    DORecord const& a_;
    DORecord const& b_;
    Output& out_;
    char const* separator_ = "";
    Sum sums_[std::size(kFates)];
    Sum relocated_;
    bool same_ = true;
};

ExitCode Diff(DiffOptions const& options, Output& out) {
    if (options.a == "-" && options.b == "-") {
        throw Failure("standard input can be only one of the records");
    }
    RecordStream streamA(options.a, options.form.Facts());
    RecordStream streamB(options.b, options.form.Facts());
    std::unique_ptr<DORecord> const a = OpenOnlyDORecord(streamA);
    std::unique_ptr<DORecord> const b = OpenOnlyDORecord(streamB);
    return a && b ? Differ(options, *a, *b, out).Run() : ExitCode::BadRecord;
}

} // namespace

void AddDiff(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "diff", "Compare two DO records", Diff);
    AddFile(verb, "A", options.a, "A DO record; - is standard input")->required();
    AddFile(verb, "B", options.b, "The DO record to compare it with")->required();
    verb.add_flag("--segments", options.segments, "List each segment that differs");
    verb.add_flag("--json", options.json, "One JSON object");
    AddFormOptions(verb, options.form);
    verb.footer("Times count as a difference; byte order and legacy references do not. Status 0 if the records are "
                "equal, 1 if\n"
                "they differ.\n\n"
                "Example:\n  crrecord diff yesterday.do today.do");
}

} // namespace crrecord::tool
