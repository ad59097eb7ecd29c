#include "cluster/kernels.h"
#include "cluster/piece.h"
#include "store/container_cache.h"
#include "store/container_report.h"

#include <queue>

namespace crrecord::tool {

namespace {

// The rows of a partition in their order. Only one block of each partition is in memory, and no file is open.
class PartitionRows {
public:
    explicit PartitionRows(WorkName name) : name_(std::move(name)) {
        WorkFile const file(name_);
        conflicts = OnlyItem<std::uint64_t>(file, partition_stream::kConflicts);
        blocks_ = file.Blocks(partition_stream::kRows);
        Refill();
    }

    std::uint64_t conflicts;

    bool AtEnd() const { return at_ == rows_.size(); }
    ContainerRow const& Row() const { return rows_[at_]; }
    void Advance() {
        if (++at_ == rows_.size()) {
            Refill();
        }
    }

private:
    void Refill() {
        if (next_ != blocks_.size()) {
            WorkFile const file(name_);
            file.Read(blocks_[next_], rows_);
            ++next_;
            at_ = 0;
        }
    }

    WorkName name_;
    std::vector<WorkBlock> blocks_;
    std::size_t next_ = 0; // block
    std::vector<ContainerRow> rows_;
    std::size_t at_ = 0;
};

// Calls use(ContainerSums) for the containers of all partitions in the order of the rows. Returns: the conflicts.
template <class Use>
std::uint64_t ForEachContainer(ReportTask const& task, Use use) {
    std::vector<PartitionRows> partitions;
    auto const isLater = [&partitions](std::size_t a, std::size_t b) {
        return partitions[a].Row().order > partitions[b].Row().order;
    };
    std::priority_queue<std::size_t, std::vector<std::size_t>, decltype(isLater)> queue(isLater);
    std::uint64_t conflicts = 0;
    for (std::string const& name : task.partitions) {
        partitions.emplace_back(WorkName{task.folder, name});
        conflicts += partitions.back().conflicts;
    }
    for (std::size_t i = 0; i < partitions.size(); ++i) {
        if (!partitions[i].AtEnd()) {
            queue.push(i);
        }
    }
    while (!queue.empty()) {
        std::size_t const i = queue.top();
        queue.pop();
        use(partitions[i].Row().sums);
        partitions[i].Advance();
        if (!partitions[i].AtEnd()) {
            queue.push(i);
        }
    }
    return conflicts;
}

// Returns: the sums of the pieces' counts. Prints their messages.
PieceCounts PrintMessages(ReportTask const& task) {
    Output error(task.error, "standard error");
    PieceCounts sums;
    for (std::string const& name : task.pieces) {
        WorkFile const piece({task.folder, name});
        sums.Add(OnlyItem<PieceCounts>(piece, piece_stream::kCounts));
        piece.ForEachBlock<char>(piece_stream::kMessages, [&](std::span<char const> items) {
            std::string_view texts(items.data(), items.size());
            while (!texts.empty()) {
                std::string_view const text = texts.substr(0, texts.find('\0'));
                error.Print("crrecord: {}\n", Printable(text));
                texts.remove_prefix(std::min(text.size() + 1, texts.size()));
            }
        });
    }
    error.Flush();
    return sums;
}

void PrintLines(ReportTask const& task, Output& out) {
    for (std::string const& name : task.pieces) {
        WorkFile const piece({task.folder, name});
        piece.ForEachBlock<char>(piece_stream::kLines, [&](std::span<char const> lines) {
            out.Write({lines.data(), lines.size()});
        });
    }
}

ExitCode StatusOf(bool isFaulty) {
    return isFaulty ? ExitCode::BadRecord : ExitCode::AllWell;
}

// Adds all containers to the report and prints it.
template <class Report>
ExitCode Print(ReportTask const& task, StoreTotals const& totals, Report& report) {
    Output out(task.out, "standard output");
    std::uint64_t const conflicts = ForEachContainer(task, [&](ContainerSums const& sums) {
        report.Add(sums);
        report.PrintLine(out, sums);
    });
    report.PrintTotal(out, conflicts);
    out.Flush();
    return StatusOf(totals.bad != 0 || conflicts != 0);
}

std::vector<std::uint64_t> NumbersOf(WorkFile const& file, std::uint32_t stream) {
    std::vector<std::uint64_t> numbers;
    file.ForEachBlock<std::uint64_t>(
        stream, [&](std::span<std::uint64_t const> some) { numbers.insert(numbers.end(), some.begin(), some.end()); });
    return numbers;
}

std::uint64_t FetchesOf(ReportTask const& task, std::uint64_t most) {
    ContainerCache cache(most);
    for (std::string const& name : task.pieces) {
        WorkFile const piece({task.folder, name});
        auto const counts = OnlyItem<PieceCounts>(piece, piece_stream::kCounts);
        auto const firstUses = NumbersOf(piece, piece_stream::kFirstUses);
        if (counts[PieceCounts::kFetches] < firstUses.size()) {
            piece.ThrowDamaged();
        }
        cache.Continue(firstUses, NumbersOf(piece, piece_stream::kLastUses), counts[PieceCounts::kFetches]);
    }
    return cache.Fetches();
}

} // namespace

ExitCode ReportLive(ReportTask const& task, unsigned int sparsePercent) {
    StoreTotals const totals = PrintMessages(task).ForStore();
    LiveReport report(totals, sparsePercent);
    ExitCode const result = Print(task, totals, report);
    return std::max(result, StatusOf(report.IsMissing()));
}

ExitCode ReportFreed(ReportTask const& task) {
    StoreTotals const totals = PrintMessages(task).ForStore();
    FreedReport report(totals);
    return Print(task, totals, report);
}

ExitCode ReportRecall(ReportTask const& task, std::uint64_t cache) {
    StoreTotals const totals = PrintMessages(task).ForStore();
    RecallReport report(totals);
    if (cache != 0) {
        report.fetches = FetchesOf(task, cache);
    }
    return Print(task, totals, report);
}

ExitCode ReportLost(ReportTask const& task) {
    LostTotals const totals = PrintMessages(task).ForLost();
    Output out(task.out, "standard output");
    PrintLines(task, out);
    PrintJsonTotal(out, totals);
    out.Flush();
    return StatusOf(totals.bad != 0);
}

ExitCode ReportValidation(ReportTask const& task, std::uint64_t files) {
    ValidationTally const tally = PrintMessages(task).ForValidation();
    Output out(task.out, "standard output");
    PrintLines(task, out);
    tally.PrintJson(out, files);
    out.Flush();
    return StatusOf(tally.bad != 0);
}

} // namespace crrecord::tool
