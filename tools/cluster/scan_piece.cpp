#include "cluster/kernels.h"
#include "cluster/piece.h"
#include "record/record_findings.h"
#include "store/container_cache.h"

namespace crrecord::tool {

namespace {

constexpr std::size_t kTextBlock = 256UL * 1024;

// The size of blocks, so that the buffers of all partitions need at most 256 MiB.
std::size_t BlockSizeFor(std::uint32_t partitions) {
    constexpr std::size_t kBuffers = 256UL * 1024 * 1024;
    return std::clamp<std::size_t>(kBuffers / partitions, 32UL * 1024, 1024UL * 1024);
}

std::uint32_t PartitionOf(std::uint64_t dcid, Partitioning const& partitioning) {
    __extension__ using Product = unsigned __int128;
    constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
    std::uint64_t const hash = MixOf(MixOf(dcid ^ partitioning.key, kOdd) ^ partitioning.key, kOdd);
    return static_cast<std::uint32_t>(Product{hash} * partitioning.partitions >> 64);
}

// Appends tuples to the streams of their partitions.
class TupleRouter final : public TupleSink {
public:
    TupleRouter(WorkFileWriter& file, Partitioning const& partitioning) : file_(file), partitioning_(partitioning) {}

    unsigned int Threads() const override { return 1; }
    std::uint64_t BatchTuples() const override { return 1UL << 15; }
    bool HasSpace(std::uint64_t) override { return true; }
    void FreeMemory() override {}

    void Add(std::span<SegmentTuple const> tuples) override {
        while (!tuples.empty()) {
            std::uint64_t const dcid = tuples.front().dcid;
            auto const end =
                std::find_if(tuples.begin(), tuples.end(), [dcid](auto const& t) { return t.dcid != dcid; });
            auto const some = tuples.first(static_cast<std::size_t>(end - tuples.begin()));
            file_.Append(piece_stream::TuplesOf(PartitionOf(dcid, partitioning_)),
                         {reinterpret_cast<unsigned char const*>(some.data()), some.size_bytes()});
            tuples = tuples.subspan(some.size());
        }
    }

private:
    WorkFileWriter& file_;
    Partitioning partitioning_;
};

// Calls visit(RecordStream&) for each part.
template <class Visit>
void ForEachPart(PieceTask const& task, Visit visit) {
    for (FilePart const& part : task.parts) {
        RecordStream stream(part);
        if (task.isScan) {
            stream.ScanWith(IsValid);
        }
        visit(stream);
        stream.ThrowIfChanged();
    }
}

auto MessagesTo(WorkFileWriter& file) {
    return [&file](std::string const& message) {
        file.AppendText(piece_stream::kMessages, {message.c_str(), message.size() + 1});
    };
}

// Appends what was printed to `out`, which has no file, and empties it.
void MoveLines(Output& out, WorkFileWriter& file) {
    file.AppendText(piece_stream::kLines, {out.Buffer().data(), out.Buffer().size()});
    out.Buffer().clear();
}

PieceOutcome Outcome(PieceCounts const& counts) {
    return {counts[PieceCounts::kClaimed], counts[PieceCounts::kRefused] != 0};
}

PieceOutcome Commit(WorkFileWriter& file, PieceCounts const& counts) {
    file.AppendItem(piece_stream::kCounts, counts);
    file.Commit();
    return Outcome(counts);
}

} // namespace

PieceOutcome ScanStorePiece(PieceTask const& task, Question const& question, std::uint64_t cache,
                            Partitioning const& partitioning) {
    WorkFileWriter file(task.output, piece_stream::kFixed + 2 * partitioning.partitions,
                        BlockSizeFor(partitioning.partitions));
    TupleRouter router(file, partitioning);
    StoreScan scan(question, router, MessagesTo(file));
    scan.claimed = task.claimed;
    ContainerCache fetched(cache);
    if (cache != 0) {
        scan.useFragment = [&](std::uint64_t dcid) { fetched.Use(dcid); };
    }
    ForEachPart(task, [&](RecordStream& stream) { scan.Scan(stream); });
    scan.Total();
    StoreContainers const& containers = scan.Containers();
    for (std::uint64_t i = 0; i < containers.size(); ++i) {
        std::uint64_t const dcid = containers[i].dcid;
        file.AppendItem(piece_stream::RowsOf(PartitionOf(dcid, partitioning)), ContainerRow{i, containers[i]});
        if (cache != 0) {
            file.AppendItem(piece_stream::kFirstUses, dcid);
        }
    }
    fetched.ForEach([&](std::uint64_t dcid) { file.AppendItem(piece_stream::kLastUses, dcid); });
    PieceCounts counts(scan.Totals());
    counts[PieceCounts::kClaimed] = scan.claimed - task.claimed;
    counts[PieceCounts::kFetches] = fetched.Fetches();
    return Commit(file, counts);
}

PieceOutcome ScanLostPiece(PieceTask const& task, std::vector<std::uint64_t> const& containers) {
    WorkFileWriter file(task.output, piece_stream::kFixed, kTextBlock);
    Output whole(-1, task.output.Path());
    Output lines({whole, false});
    std::string name;
    LostScan scan(containers, MessagesTo(file),
                  [&](RecordStream const&, Record const& record, DORecordView const& view, Damage const& damage) {
                      PrintJsonDamage(lines, name, record, view, damage);
                      MoveLines(lines, file);
                  });
    scan.claimed = task.claimed;
    ForEachPart(task, [&](RecordStream& stream) {
        name = JsonName("file", stream.Name());
        stream.ReportGapsTo([&](Gap const& gap) { MessagesTo(file)(stream.Name() + ": " + Describe(gap)); });
        scan.Scan(stream);
    });
    PieceCounts counts(scan.Totals());
    counts[PieceCounts::kClaimed] = scan.claimed - task.claimed;
    return Commit(file, counts);
}

PieceOutcome ValidatePiece(PieceTask const& task, bool firstOnly, bool badOnly) {
    WorkFileWriter file(task.output, piece_stream::kFixed, kTextBlock);
    Output whole(-1, task.output.Path());
    Output lines({whole, false});
    ValidationTally tally;
    std::vector<Finding> findings;
    ForEachPart(task, [&](RecordStream& stream) {
        std::string const name = JsonName("file", stream.Name());
        stream.ReportGapsTo([&](Gap const& gap) {
            MessagesTo(file)(stream.Name() + ": " + Describe(gap));
            PrintJsonGap(lines, name, gap);
            MoveLines(lines, file);
        });
        while (Record const* const record = stream.Next()) {
            bool const valid = Diagnose(*record, firstOnly ? Depth::FirstError : Depth::Everything, findings);
            tally.Add(valid, findings.size());
            if (!badOnly || !valid) {
                PrintJsonFindings(lines, name, *record, valid, findings);
                MoveLines(lines, file);
            }
        }
        tally.AddSizes(stream);
    });
    return Commit(file, PieceCounts(tally));
}

PieceOutcome OutcomeOf(WorkName const& piece) {
    return Outcome(CountsOf(piece));
}

} // namespace crrecord::tool
