// crrecord verify: the data of a file against its DO record.

#include "io/progress.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

#include <crrecord/do_types.h>

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

// Goes through the file once, from its beginning to the end of what the record describes. Holes are not read. Bytes
// that are hashed: at most those of the record's segments, and of holes that are whole segments of one size in a row
// only those of the first.
class Verifier {
public:
    Verifier(Input& input, DORecord const& record, Report& report)
        : input_(input), fptype_(record.GetFPType()), dotype_(record.GetDOType()), report_(report),
          progress_(input.Name(), input.ExpectedSize()), block_(kReadBlock) {}

    void CheckSegment(unsigned int index, std::uint64_t position, DOSegment const& segment) {
        CheckGap(position);
        if (dotype_ == CR_DO_TYPE_4_BYTE_OFFSET && segment.offset != position) {
            report_.BadOffset(index, position, segment.offset);
        }
        std::optional<crfp_digest_t> const found = DigestOf(segment.size);
        if (!found || std::memcmp(found->bytes, segment.fingerprint.data, segment.fingerprint.size) != 0) {
            report_.BadSegment(index, position, segment.size, TextOf(segment.fingerprint.Copy(), fptype_),
                               found ? TextOf(*found, fptype_) : "");
        }
    }

    // No segment has bytes from here to `end`, so that they must be zeros.
    void CheckGap(std::uint64_t end) {
        std::uint64_t const begin = position_;
        std::optional<std::uint64_t> data;
        while (position_ < end && !ended_) {
            std::uint64_t const at = position_;
            auto const bytes = Take(end - position_).bytes;
            auto const found = std::find_if(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte != 0; });
            if (found != bytes.end() && !data) {
                data = at + static_cast<std::uint64_t>(found - bytes.begin());
            }
        }
        if (data) {
            report_.BadGap(begin, end - begin, *data);
        }
    }

    // Returns: the file's size. Only what has no size of its own, such as a pipe, is read to its end for that.
    std::uint64_t Finish() {
        if (input_.Name() != "-" && !ended_ && position_ < input_.ExpectedSize()) {
            return input_.ExpectedSize();
        }
        while (!ended_) {
            Take(std::numeric_limits<std::uint64_t>::max());
        }
        return position_;
    }

private:
    // Bytes of a hole, or bytes that were read; neither at the file's end.
    struct Piece {
        std::uint64_t hole = 0;
        std::span<unsigned char const> bytes;
    };

    // Takes the next bytes of the file, `most` of them or fewer.
    Piece Take(std::uint64_t most) {
        Piece piece;
        if (dataAhead_ == 0) {
            Extent const extent = input_.NextExtent(most);
            piece.hole = extent.hole;
            dataAhead_ = extent.data;
        }
        if (piece.hole == 0 && dataAhead_ != 0) {
            std::size_t const room = std::min<std::uint64_t>({block_.size(), most, dataAhead_});
            piece.bytes = std::span(block_).first(input_.Read(std::span(block_).first(room)));
            dataAhead_ -= piece.bytes.size();
        }
        position_ += piece.hole + piece.bytes.size();
        ended_ = piece.hole == 0 && piece.bytes.empty();
        progress_.At(position_);
        return piece;
    }

    // The fingerprint of the next `size` bytes; none if the file ends before.
    std::optional<crfp_digest_t> DigestOf(std::uint32_t size) {
        Check(CRFPInitialize(&context_, fptype_) == 0);
        for (std::uint64_t left = size; left != 0;) {
            Piece const piece = Take(left);
            if (ended_) {
                return std::nullopt;
            }
            if (piece.hole == size) {
                return DigestOfZeros(size);
            }
            Append(piece.bytes);
            AppendZeros(piece.hole);
            left -= piece.hole + piece.bytes.size();
        }
        return Finalized();
    }

    crfp_digest_t DigestOfZeros(std::uint32_t size) {
        if (!zeros_ || zerosSize_ != size) {
            AppendZeros(size);
            zeros_ = Finalized();
            zerosSize_ = size;
        }
        return *zeros_;
    }

    void Append(std::span<unsigned char const> bytes) { Check(CRFPAppend(&context_, bytes.data(), bytes.size()) == 0); }

    void AppendZeros(std::uint64_t count) {
        static constexpr unsigned char kZeros[64UL * 1024] = {};
        for (; count != 0; count -= std::min<std::uint64_t>(count, sizeof kZeros)) {
            Append(std::span(kZeros).first(std::min<std::uint64_t>(count, sizeof kZeros)));
        }
    }

    crfp_digest_t Finalized() {
        crfp_digest_t digest{};
        Check(CRFPFinalize(&context_) == 0 && CRFPGetDigest_r(&context_, &digest));
        return digest;
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
    std::uint64_t dataAhead_ = 0; // bytes from here on before the next hole may begin
    bool ended_ = false;
    crfp_context_t context_;
    std::optional<crfp_digest_t> zeros_; // of so many zeros
    std::uint32_t zerosSize_ = 0;
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
    std::uint64_t const size = verifier.Finish();
    input.ThrowIfChanged();
    return report.Close(segments.size(), record->GetSize(), size);
}

} // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<VerifyOptions>();
    CLI::App* const verb = app.add_subcommand("verify", "Compare the data of a file with its DO record");
    AddFile(*verb, "RECORD", options->record, "The DO record; - is standard input")->required();
    AddFile(*verb, "FILE", options->file, "The file that it should describe; - is standard input")->required();
    verb->add_flag("--json", options->json, "One JSON object with all differences");
    AddFormOptions(*verb, options->form);
    verb->footer(
        "Reads FILE once and names each segment whose data has another fingerprint than the record says, each gap\n"
        "that is not all zeros, and another size: status 1. Holes of a sparse FILE, and what it has after the\n"
        "record's size, are not read.\n\n"
        "Example:\n  crrecord verify movie.do movie.mkv");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Verify(*options, out); }; });
}

} // namespace crrecord::tool
