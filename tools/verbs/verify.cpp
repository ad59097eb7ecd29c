// crrecord verify: the data of a file against its DO record.

#include "io/progress.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

#include "support/layout/do_types.h"

namespace crrecord::tool {

namespace {

struct VerifyOptions {
    std::string record;
    std::string file;
    FormOptions form;
    bool json = false;
};

// Tells of each difference, as a line or as an element of the JSON object's array.
class Report {
public:
    Report(VerifyOptions const& options, Output& out) : options_(options), out_(out) {
        if (options_.json) {
            out_.Print(R"({},"record":{},"file":{},"differences":[)", JsonStart(), JsonQuoted(options_.record),
                       JsonQuoted(options_.file));
        }
    }

    // `found` is empty where the file ends within the segment or before it.
    void BadSegment(unsigned int index, std::uint64_t position, std::uint32_t size, std::string const& expected,
                    std::string const& found) {
        ++badSegments_;
        if (options_.json) {
            out_.Print(R"({}{{"what":"segment","index":{},"offset":"{}","size":{},"expected":"{}","found":{}}})",
                       Separator(), index, position, size, expected, found.empty() ? "null" : '"' + found + '"');
            return;
        }
        out_.Print("{}: segment {} at byte {}, {}: expected {}, found {}\n", File(), index, position,
                   Counted(size, "byte"), expected, found.empty() ? "the end of the file" : found);
    }

    void BadOffset(unsigned int index, std::uint64_t position, std::uint64_t stored) {
        ++others_;
        if (options_.json) {
            out_.Print(R"({}{{"what":"offset","index":{},"expected":"{}","found":"{}"}})", Separator(), index, position,
                       stored);
            return;
        }
        out_.Print("{}: segment {}: the record's offset is {}, expected {}\n", Printable(options_.record), index,
                   stored, position);
    }

    void BadGap(std::uint64_t position, std::uint64_t size, std::uint64_t dataAt) {
        ++others_;
        if (options_.json) {
            out_.Print(R"({}{{"what":"gap","offset":"{}","size":"{}","data_at":"{}"}})", Separator(), position, size,
                       dataAt);
            return;
        }
        out_.Print("{}: gap at byte {}, {}: expected zeros, found data at byte {}\n", File(), position,
                   Counted(size, "byte"), dataAt);
    }

    ExitCode Close(std::uint64_t segments, std::uint64_t expectedSize, std::uint64_t size) {
        bool const same = badSegments_ == 0 && others_ == 0 && size == expectedSize;
        if (options_.json) {
            out_.Print(R"(],"segments":"{}","bad_segments":"{}","size":"{}","expected_size":"{}","same":{}}})"
                       "\n",
                       segments, badSegments_, size, expectedSize, same);
            return same ? ExitCode::AllWell : ExitCode::BadRecord;
        }
        if (size != expectedSize) {
            out_.Print("{}: size {}, expected {}\n", File(), size, expectedSize);
        }
        out_.Print("{}: {}, {}: {}\n", File(), Counted(segments, "segment"), Counted(size, "byte"),
                   same ? "all as the record says" : fmt::format("differs, {} bad", Counted(badSegments_, "segment")));
        return same ? ExitCode::AllWell : ExitCode::BadRecord;
    }

private:
    std::string File() const { return Printable(options_.file); }
    char const* Separator() { return std::exchange(separator_, ","); }

    VerifyOptions const& options_;
    Output& out_;
    char const* separator_ = "";
    std::uint64_t badSegments_ = 0;
    std::uint64_t others_ = 0;
};

// Reads the file once, from its beginning to its end.
class Verifier {
public:
    Verifier(Input& input, DORecord const& record, Report& report)
        : input_(input), fptype_(record.GetFPType()), dotype_(record.GetDOType()), report_(report),
          progress_(input.Name(), input.ExpectedSize()), block_(1024UL * 1024) {}

    void CheckSegment(unsigned int index, std::uint64_t position, DOSegment const& segment) {
        CheckGap(position);
        if (dotype_ == CR_DO_TYPE_4_BYTE_OFFSET && segment.offset != position) {
            report_.BadOffset(index, position, segment.offset);
        }
        crfp_context_t context;
        crfp_digest_t found{};
        Check(CRFPInitialize(&context, fptype_) == 0);
        bool const whole = Read(segment.size, [&](std::span<unsigned char const> bytes) {
            Check(CRFPAppend(&context, bytes.data(), bytes.size()) == 0);
        });
        Check(CRFPFinalize(&context) == 0 && CRFPGetDigest_r(&context, &found));
        if (!whole || std::memcmp(&found, &segment.fingerprint, sizeof found) != 0) {
            report_.BadSegment(index, position, segment.size, TextOf(segment.fingerprint, fptype_),
                               whole ? TextOf(found, fptype_) : "");
        }
    }

    // From here to `end` no segment holds anything, so that there are zeros.
    void CheckGap(std::uint64_t end) {
        std::uint64_t const begin = position_;
        std::optional<std::uint64_t> data;
        while (position_ < end) {
            Extent const extent = input_.NextExtent(end - position_);
            position_ += extent.hole;
            bool const goesOn = Read(std::min(extent.data, end - position_), [&](std::span<unsigned char const> bytes) {
                auto const at = std::find_if(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte != 0; });
                if (at != bytes.end() && !data) {
                    data = position_ + static_cast<std::uint64_t>(at - bytes.begin());
                }
            });
            if (!goesOn || (extent.hole == 0 && extent.data == 0)) {
                break;
            }
        }
        if (data) {
            report_.BadGap(begin, end - begin, *data);
        }
    }

    // The file's size, read to its end.
    std::uint64_t Finish() {
        Read(std::numeric_limits<std::uint64_t>::max(), [](auto const&) {});
        return position_;
    }

private:
    // Whether there were so many bytes.
    template <class Use>
    bool Read(std::uint64_t count, Use use) {
        while (count != 0) {
            std::size_t const got = input_.Read(std::span(block_).first(std::min(block_.size(), count)));
            if (got == 0) {
                return false;
            }
            use(std::span<unsigned char const>(block_).first(got));
            position_ += got;
            count -= got;
            progress_.At(position_);
        }
        return true;
    }

    static void Check(bool done) {
        if (!done) {
            throw Failure(std::string("fingerprint: ") + CRStatusToStringA(*__cr_errno_location()));
        }
    }

    Input& input_;
    unsigned char fptype_;
    unsigned char dotype_;
    Report& report_;
    Progress progress_;
    std::vector<unsigned char> block_;
    std::uint64_t position_ = 0;
};

ExitCode Verify(VerifyOptions const& options, Output& out) {
    if (options.record == "-" && options.file == "-") {
        throw Failure("standard input can be either the record or the file");
    }
    RecordStream stream(options.record, options.form.Facts());
    std::unique_ptr<DORecord> const record = OpenOnlyDORecord(stream);
    if (!record) {
        return ExitCode::BadRecord;
    }
    if (IsBloom(record->GetDOType())) {
        throw Failure(options.record + ": is a bloom record, which says nothing of its object's segments");
    }
    Input input(options.file);
    Report report(options, out);
    Verifier verifier(input, *record, report);
    DOSegmentRange const segments = record->Segments();
    ForEachSegment(
        segments, record->GetDOType(), segments.size(),
        [&](auto index, auto position, DOSegment const& segment) { verifier.CheckSegment(index, position, segment); });
    verifier.CheckGap(record->GetSize());
    return report.Close(segments.size(), record->GetSize(), verifier.Finish());
}

} // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<VerifyOptions>();
    CLI::App* const verb = app.add_subcommand("verify", "Compare the data of a file with its DO record");
    verb->add_option("RECORD", options->record, "The DO record; - is standard input")->required()->type_name("");
    verb->add_option("FILE", options->file, "The file that it should describe; - is standard input")
        ->required()
        ->type_name("");
    verb->add_flag("--json", options->json, "One JSON object with all differences");
    AddFormOptions(*verb, options->form);
    verb->footer(
        "Reads FILE once and names each segment whose data has another fingerprint than the record says, each gap\n"
        "that is not all zeros, and another size: status 1.\n\n"
        "Example:\n  crrecord verify movie.do movie.mkv");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Verify(*options, out); }; });
}

} // namespace crrecord::tool
