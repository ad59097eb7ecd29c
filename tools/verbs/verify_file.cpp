#include "verbs/verify_file.h"

#include "analysis/record_diff.h"
#include "io/progress.h"
#include "io/record_names.h"
#include "record/crc32.h"
#include "record/fingerprinter.h"
#include "record/record_findings.h"
#include "record/show_object.h"

#include <libdeflate.h>

namespace crrecord::tool {

namespace {

// What was compared, as words of the text and of the JSON array "checked".
struct Checks {
    std::vector<std::string_view> done{"fingerprints", "gaps", "size"};
    std::string notDone; // with the reasons, for the text

    void Skip(std::string_view what, std::string_view reason) {
        notDone += fmt::format("{}{} ({})", notDone.empty() ? "" : ", ", what, reason);
    }
};

// Prints each difference as a line or as an element of the JSON object's array.
class Report {
public:
    // For one of several records, `place` is its place: text for a file that matches is not printed.
    Report(VerifyOptions const& options, std::string const& file, Record const* place, Output& out)
        : options_(options), record_(Printable(options.record)), file_(Printable(file)), out_(out), isQuiet_(place) {
        if (place) {
            record_ = PlaceOf(record_, *place);
        }
        if (options_.json) {
            out_.Print(R"({},"record_file":{},{}"file":{},"differences":[)", JsonStart(),
                       JsonName("record_file", options_.record), place ? JsonPlace(*place) : "",
                       JsonName("file", file));
        }
    }

    // `found` is empty if the file ends before the segment's end.
    void BadSegment(unsigned int index, std::uint64_t position, std::uint32_t size, std::string const& expected,
                    std::string const& found) {
        ++badSegments_;
        Print(fmt::format("{}: segment {} at byte {}, {}: expected {}, found {}", file_, index, position,
                          Counted(size, "byte"), expected, found.empty() ? "the end of the file" : found),
              fmt::format(R"("segment","index":{},"offset":{},"size":{},"expected":"{}","found":{})", index,
                          Decimal{position}, size, expected, found.empty() ? "null" : '"' + found + '"'));
    }

    void BadOffset(unsigned int index, std::uint64_t position, std::uint64_t stored) {
        ++others_;
        Print(
            fmt::format("{}: segment {}: the record's offset is {}, expected {}", record_, index, stored, position),
            fmt::format(R"("offset","index":{},"expected":{},"found":{})", index, Decimal{position}, Decimal{stored}));
    }

    void BadGap(std::uint64_t position, std::uint64_t size, std::uint64_t dataAt) {
        ++others_;
        Print(fmt::format("{}: gap at byte {}, {}: expected zeros, found data at byte {}", file_, position,
                          Counted(size, "byte"), dataAt),
              fmt::format(R"("gap","offset":{},"size":{},"data_at":{})", Decimal{position}, Decimal{size},
                          Decimal{dataAt}));
    }

    void BadCrc(std::uint32_t stored, std::uint32_t computed) {
        ++others_;
        Print(fmt::format("{}: the record's CRC is {}, expected {}, the CRC-32 of the data", record_, CrcText(stored),
                          CrcText(computed)),
              fmt::format(R"("CRC","expected":{},"found":{})", computed, stored));
    }

    void BadContainer(ContainerDiff const& container) {
        ++others_;
        Print(fmt::format("{}: container {}: {} in the record's list, expected {}, those of its segments", record_,
                          container.dcid, Counted(container.a.listed, "byte"), container.a.bytes),
              fmt::format(R"("container","dcid":{},"expected":{},"found":{})", Decimal{container.dcid},
                          Decimal{container.a.bytes}, Decimal{container.a.listed}));
    }

    // Ends the report of a file that cannot be read any more.
    void Abandon() {
        if (options_.json) {
            out_.Write("],\"failed\":true}\n");
        }
    }

    // Returns: the members about the record that --stamp writes.
    std::string StampMembers() const {
        return options_.stamp
                   ? fmt::format(R"(,"out":{},"checktime":{})", JsonName("out", options_.out), options_.start)
                   : "";
    }

    ExitCode Close(std::uint64_t segments, std::uint64_t expectedSize, std::uint64_t size, Checks const& checks) {
        bool const same = badSegments_ == 0 && others_ == 0 && size == expectedSize;
        if (options_.json) {
            out_.Print(R"(],"segments":{},"bad_segments":{},"size":{},"expected_size":{},)"
                       R"("checked":["{}"],"same":{}{}}})"
                       "\n",
                       Decimal{segments}, Decimal{badSegments_}, Decimal{size}, Decimal{expectedSize},
                       fmt::join(checks.done, "\",\""), same, same ? StampMembers() : "");
            return same ? ExitCode::AllWell : ExitCode::BadRecord;
        }
        if (same && isQuiet_) {
            if (!checks.notDone.empty()) {
                out_.Print("{}: not checked: {}\n", file_, checks.notDone);
            }
            return ExitCode::AllWell;
        }
        if (size != expectedSize) {
            out_.Print("{}: size {}, expected {}\n", file_, size, expectedSize);
        }
        out_.Print("{}: {}, {}: {}\n", file_, Counted(segments, "segment"), Counted(size, "byte"),
                   same ? "matches the record" : fmt::format("differs, {} bad", Counted(badSegments_, "segment")));
        out_.Print("{}: checked: {}{}{}\n", file_, fmt::join(checks.done, ", "),
                   checks.notDone.empty() ? "" : "; not checked: ", checks.notDone);
        return same ? ExitCode::AllWell : ExitCode::BadRecord;
    }

private:
    static std::string JsonPlace(Record const& place) {
        return fmt::format(R"("record":{},"offset":{}{},)", place.number, Decimal{place.offset},
                           JsonNameOf(place.offset));
    }

    // `members` is the value of "what" and the members after it.
    void Print(std::string const& line, std::string const& members) {
        if (options_.json) {
            out_.Print(R"({}{{"what":{}}})", std::exchange(separator_, ","), members);
        } else {
            out_.Print("{}\n", line);
        }
    }

    VerifyOptions const& options_;
    std::string record_;
    std::string file_;
    Output& out_;
    bool isQuiet_;
    char const* separator_ = "";
    std::uint64_t badSegments_ = 0;
    std::uint64_t others_ = 0;
};

// Reads the file once, from its start to the end of the object. Holes are not read. Of consecutive segments of one size
// that are holes only the first is hashed.
class Verifier {
public:
    Verifier(Input& input, DORecord const& record, Report& report)
        : input_(input), fptype_(record.GetFPType()), dotype_(record.GetDOType()), report_(report),
          progress_(input.Name(), input.ExpectedSize()), block_(BlockFor(input)), fingerprinter_(fptype_) {}

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

    // Checks that the bytes up to `end`, which no segment describes, are zeros.
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

    // Returns: the CRC-32 of the bytes read so far.
    std::uint32_t Crc() const { return CrcAfterZeros(crc_, zerosAfterCrc_); }
    std::uint64_t Position() const { return position_; }

    // Returns: the file's size. Only an input of unknown size, such as a pipe, is read to its end.
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
    // Small files need no more.
    static std::uint64_t BlockFor(Input const& input) {
        return input.ExpectedSize() == 0 ? kReadBlock : std::min(kReadBlock, input.ExpectedSize());
    }

    // A hole, or bytes that were read, or neither at the end of the file.
    struct Piece {
        std::uint64_t hole = 0;
        std::span<unsigned char const> bytes;
    };

    // Reads the next bytes of the file, at most `most`.
    Piece Take(std::uint64_t most) {
        Piece piece;
        if (dataAhead_ == 0) {
            Extent const extent = input_.NextExtent(most);
            piece.hole = extent.hole;
            dataAhead_ = extent.data;
        }
        if (piece.hole == 0 && dataAhead_ != 0) {
            std::size_t const size = std::min<std::uint64_t>({block_.size(), most, dataAhead_});
            piece.bytes = std::span(block_).first(input_.Read(std::span(block_).first(size)));
            dataAhead_ -= piece.bytes.size();
        }
        zerosAfterCrc_ += piece.hole;
        if (!piece.bytes.empty()) {
            crc_ = CrcAfterZeros(crc_, std::exchange(zerosAfterCrc_, 0));
            crc_ = libdeflate_crc32(crc_, piece.bytes.data(), piece.bytes.size());
        }
        position_ += piece.hole + piece.bytes.size();
        ended_ = piece.hole == 0 && piece.bytes.empty();
        progress_.At(position_);
        return piece;
    }

    // Returns: the fingerprint of the next `size` bytes, or std::nullopt if the file ends before.
    std::optional<crfp_digest_t> DigestOf(std::uint32_t size) {
        fingerprinter_.Start();
        for (std::uint64_t left = size; left != 0;) {
            Piece const piece = Take(left);
            if (ended_) {
                return std::nullopt;
            }
            if (piece.hole == size) {
                return DigestOfZeros(size);
            }
            fingerprinter_.Append(piece.bytes);
            AppendZeros(piece.hole);
            left -= piece.hole + piece.bytes.size();
        }
        return fingerprinter_.Finish();
    }

    crfp_digest_t DigestOfZeros(std::uint32_t size) {
        if (!zeros_ || zerosSize_ != size) {
            AppendZeros(size);
            zeros_ = fingerprinter_.Finish();
            zerosSize_ = size;
        }
        return *zeros_;
    }

    void AppendZeros(std::uint64_t count) {
        static constexpr unsigned char kZeros[64UL * 1024] = {};
        for (; count != 0; count -= std::min<std::uint64_t>(count, sizeof kZeros)) {
            fingerprinter_.Append(std::span(kZeros).first(std::min<std::uint64_t>(count, sizeof kZeros)));
        }
    }

    Input& input_;
    unsigned char fptype_;
    unsigned char dotype_;
    Report& report_;
    Progress progress_;
    std::vector<unsigned char> block_;
    std::uint64_t position_ = 0;
    std::uint64_t dataAhead_ = 0; // bytes before the next possible hole
    bool ended_ = false;
    std::uint32_t crc_ = 0;           // of the bytes read but the last ones, a hole
    std::uint64_t zerosAfterCrc_ = 0; // bytes of that hole
    Fingerprinter fingerprinter_;
    std::optional<crfp_digest_t> zeros_; // the fingerprint of `zerosSize_` zeros
    std::uint32_t zerosSize_ = 0;
};

// Compares the record's CRC with that of the whole object, which was read.
void CheckCrc(VerifyOptions const& options, DORecord const& record, Verifier const& verifier, Report& report,
              Checks& checks) {
    std::uint32_t const stored = record.GetCrc();
    if (options.noCrc) {
        checks.Skip("CRC", "--no-crc");
    } else if (options.form.checksum) {
        checks.Skip("CRC", "the form has a checksum of its body instead");
    } else if (verifier.Position() < record.GetSize()) {
        checks.Skip("CRC", "the file is too short");
    } else if (stored == 0 && verifier.Crc() != 0) {
        checks.Skip("CRC", "the record has none");
    } else {
        checks.done.push_back("CRC");
        if (verifier.Crc() != stored) {
            report.BadCrc(stored, verifier.Crc());
        }
    }
}

// Compares the record's list of containers with its segments.
void CheckList(DORecord const& record, Report& report, Checks& checks) {
    if (record.GetNudcid() == 0 && record.GetNfp() != 0) {
        checks.Skip("containers", "the record has no list of them");
        return;
    }
    checks.done.push_back("containers");
    for (ContainerDiff const& container : WronglyListed(record)) {
        report.BadContainer(container);
    }
}

ExitCode Compare(VerifyOptions const& options, DORecord const& record, Input& input, Report& report) {
    Verifier verifier(input, record, report);
    DOSegmentRange const segments = record.Segments();
    ForEachSegment(
        segments, record.GetDOType(), segments.size(),
        [&](auto index, auto position, DOSegment const& segment) { verifier.CheckSegment(index, position, segment); });
    verifier.CheckGap(record.GetSize());
    Checks checks;
    CheckCrc(options, record, verifier, report, checks);
    CheckList(record, report, checks);
    std::uint64_t const size = verifier.Finish();
    input.ThrowIfChanged();
    return report.Close(segments.size(), record.GetSize(), size, checks);
}

} // namespace

ExitCode VerifyFile(VerifyOptions const& options, DORecord const& record, Record const* place, Input& input,
                    Output& out) {
    Report report(options, input.Name(), place, out);
    try {
        return Compare(options, record, input, report);
    } catch (InputFailure const&) {
        report.Abandon();
        throw;
    }
}

} // namespace crrecord::tool
