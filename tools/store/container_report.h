// The sums of live, freed and recall over all containers, and their output as JSON: a line for each container and a
// closing one with the total. The sums are the same whether one machine computed them or many.

#pragma once

#include "io/output.h"
#include "store/liveness.h"
#include "store/scan.h"

namespace crrecord::tool {

// Prints the last line: the total with these members, and those that each total ends with.
void PrintJsonTotal(Output& out, StoreTotals const& totals, std::uint64_t conflicts, std::string const& members);

// Of these classes, Add adds a container, PrintLine prints it, and PrintTotal prints the sums after the last one.

class LiveReport {
public:
    // `totals` are complete.
    LiveReport(StoreTotals const& totals, unsigned int sparsePercent)
        : totals_(totals), sparsePercent_(sparsePercent) {}

    // Throws: TooManyBytes.
    void Add(ContainerSums const& sums);
    void PrintLine(Output& out, ContainerSums const& sums) const;
    void PrintTotal(Output& out, std::uint64_t conflicts) const;

    // Without segment records nothing is known about stored segments.
    bool HasStored() const { return totals_.segmentRecords != 0; }
    bool IsMissing() const { return HasStored() && missing.segments != 0; }

    SegmentSums needed;
    SegmentSums stored;
    SegmentSums missing;
    std::uint64_t containers = 0;
    std::uint64_t uses = 0;
    std::uint64_t bloomBytes = 0;
    std::uint64_t dead = 0;
    std::uint64_t sparse = 0;
    std::uint64_t deadBytes = 0;
    std::uint64_t sparseGain = 0;

private:
    StoreTotals const& totals_;
    unsigned int sparsePercent_;
};

// The loss of a container.
struct Loss {
    explicit Loss(ContainerSums const& sums)
        : needed{sums.first.segments - sums.second.segments, sums.first.bytes - sums.second.bytes},
          bloomBytes(sums.bloomBytes), ownBytes(sums.ownBytes), dead(sums.records == 0) {}

    bool Any() const { return needed.segments != 0 || needed.bytes != 0 || bloomBytes != 0 || ownBytes != 0 || dead; }

    SegmentSums needed;
    std::uint64_t bloomBytes;
    std::uint64_t ownBytes;
    bool dead; // no record that is held afterwards needs it
};

class FreedReport {
public:
    explicit FreedReport(StoreTotals const& totals) : totals_(totals) {}

    // Throws: TooManyBytes.
    void Add(ContainerSums const& sums);
    // Prints nothing for a container without a loss.
    void PrintLine(Output& out, ContainerSums const& sums) const;
    void PrintTotal(Output& out, std::uint64_t conflicts) const;
    // Returns: the records that would lose their last reference.
    std::uint64_t Records() const { return totals_.inFirst - totals_.inSecond; }

    SegmentSums needed;
    std::uint64_t dead = 0;

private:
    StoreTotals const& totals_;
};

class RecallReport {
public:
    explicit RecallReport(StoreTotals const& totals) : totals_(totals) {}

    // Throws: TooManyBytes.
    void Add(ContainerSums const& sums);
    void PrintLine(Output& out, ContainerSums const& sums) const;
    void PrintTotal(Output& out, std::uint64_t conflicts) const;

    SegmentSums needed;
    std::uint64_t containers = 0;
    std::optional<std::uint64_t> fetches; // if they were counted

private:
    StoreTotals const& totals_;
};

} // namespace crrecord::tool
