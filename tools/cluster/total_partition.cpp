#include "cluster/kernels.h"
#include "cluster/piece.h"

namespace crrecord::tool {

namespace {

// The sums of a partition's containers, in the order of their first use.
class PartitionSums {
public:
    explicit PartitionSums(PartitionTask const& task) : task_(task) {}

    void AddRows() {
        for (std::size_t i = 0; i < task_.pieces.size(); ++i) {
            WorkFile const file({task_.folder, task_.pieces[i]});
            file.ForEachBlock<ContainerRow>(piece_stream::RowsOf(task_.partition),
                                            [&](std::span<ContainerRow const> rows) {
                                                for (ContainerRow const& row : rows) {
                                                    AddRow(row, i);
                                                }
                                            });
        }
    }

    void AddTuples() {
        Partitions partitions(task_.options);
        for (std::string const& piece : task_.pieces) {
            WorkFile const file({task_.folder, piece});
            file.ForEachBlock<SegmentTuple>(
                piece_stream::TuplesOf(task_.partition), [&](std::span<SegmentTuple const> tuples) {
                    if (!std::all_of(tuples.begin(), tuples.end(),
                                     [](auto const& tuple) { return tuple.IsWellFormed(); })) {
                        file.ThrowDamaged();
                    }
                    partitions.AddAll(tuples);
                });
        }
        partitions.Total([this](TupleBlock const& segments) { containers_.AddSegments(segments); });
    }

    void Write() {
        WorkFileWriter file(task_.output, partition_stream::kCount, 64UL * 1024);
        file.AppendItem(partition_stream::kConflicts, containers_.Conflicts());
        auto const append = [&file](std::uint64_t order, ContainerSums const& sums) {
            file.AppendItem(partition_stream::kRows, ContainerRow{order, sums});
        };
        if (task_.isByFirstUse) {
            for (std::uint64_t i = 0; i < containers_.size(); ++i) {
                append(firstUses_[i], containers_[i]);
            }
        } else {
            containers_.ForEach([&](ContainerSums const& sums) { append(sums.dcid, sums); });
        }
        file.Commit();
    }

private:
    void AddRow(ContainerRow const& row, std::uint64_t piece) {
        ContainerSums& sums = containers_.Of(row.sums.dcid);
        sums.uses += row.sums.uses;
        sums.records += row.sums.records;
        sums.isInBloom |= row.sums.isInBloom;
        AddBytes(sums.bloomBytes, row.sums.bloomBytes);
        AddBytes(sums.ownBytes, row.sums.ownBytes);
        if (task_.isByFirstUse && firstUses_.size() < containers_.size()) {
            firstUses_.push_back(piece << 32 | row.order); // a table of containers has less than 2^32
        }
    }

    PartitionTask const& task_;
    StoreContainers containers_;
    std::vector<std::uint64_t> firstUses_; // of each container, for the order of the rows
};

} // namespace

void TotalPartition(PartitionTask const& task) {
    PartitionSums sums(task);
    sums.AddRows();
    sums.AddTuples();
    sums.Write();
}

} // namespace crrecord::tool
