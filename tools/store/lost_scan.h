// The scan for records that are damaged if some containers are lost.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"
#include "store/damage.h"

#include <functional>

namespace crrecord::tool {

struct LostTotals {
    std::uint64_t records = 0; // damaged ones
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bloomBytes = 0;
    std::uint64_t bad = 0;
    std::uint64_t refused = 0; // of the bad ones, those whose claimed sizes would make a sum too large
    GapSums gaps;
};

// Memory: the present record.
class LostScan {
public:
    using UseDamage =
        std::function<void(RecordStream const&, Record const&, DORecordView const&, Damage const& damage)>;

    // Calls complain(line) for each bad record, and use for each damaged one, in their order.
    LostScan(std::vector<std::uint64_t> containers, std::function<void(std::string const&)> complain, UseDamage use)
        : lost_(std::move(containers)), complain_(std::move(complain)), use_(std::move(use)) {}

    // The sum of the sizes that bloom records claim. A scan that continues others starts with theirs.
    std::uint64_t claimed = 0;

    // Reads all records of an input. Throws: InputFailure; TooManyBytes.
    void Scan(RecordStream& stream);

    bool AnyRecord() const { return any_; }
    LostTotals const& Totals() const { return totals_; }

private:
    void ScanObject(RecordStream const& stream, Record const& record);
    void Refuse(std::string const& error);

    ContainerSet lost_;
    std::function<void(std::string const&)> complain_;
    UseDamage use_;
    bool any_ = false;
    LostTotals totals_;
};

// Print JSON lines: for a damaged record and for the totals. `quotedFile` is from JsonName("file", ...).
void PrintJsonDamage(Output& out, std::string_view quotedFile, Record const& record, DORecordView const& view,
                     Damage const& damage);
void PrintJsonTotal(Output& out, LostTotals const& totals);

} // namespace crrecord::tool
