// The tasks of crrecord.cluster, without the GIL. Names of files are bytes, since they need not be UTF-8.

#include "bindings.h"

#include "cluster/kernels.h"
#include "io/progress.h"
#include "io/record_index.h"
#include "io/text.h"

#include <pybind11/stl.h>

namespace crrecord::python {

namespace {

using Unlocked = py::call_guard<py::gil_scoped_release>;

// Name, path, offset, number and end of the part; size and time of modification of the file.
using PartTuple =
    std::tuple<std::string, std::string, std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, std::int64_t>;
// Folder and name of a work file.
using NameTuple = std::tuple<std::string, std::string>;
// Claimed bytes, and whether a record is refused.
using OutcomeTuple = std::tuple<std::uint64_t, bool>;

tool::WorkName NameOf(NameTuple const& name) {
    return {std::get<0>(name), std::get<1>(name)};
}

OutcomeTuple TupleOf(tool::PieceOutcome const& outcome) {
    return {outcome.claimed, outcome.isRefused};
}

tool::PieceTask TaskOf(std::vector<PartTuple> const& parts, bool isScan, std::uint64_t claimed,
                       NameTuple const& output) {
    tool::PieceTask task;
    for (auto const& [name, path, offset, number, end, size, modified] : parts) {
        task.parts.push_back({name, path, offset, number, end, size, modified});
    }
    task.isScan = isScan;
    task.claimed = claimed;
    task.output = NameOf(output);
    return task;
}

using References = std::vector<std::tuple<int, std::uint64_t>>;

void BindScans(py::module_& module) {
    module.def(
        "_scan_store",
        [](std::vector<PartTuple> const& parts, bool isScan, std::uint64_t claimed, NameTuple const& output,
           bool heldOnly, bool stored, References const& dropped, bool ownContainers, std::uint64_t cache,
           std::uint32_t partitions, std::uint64_t key) {
            tool::Question question{.heldOnly = heldOnly, .stored = stored, .dropped = {}};
            question.ownContainers = ownContainers;
            for (auto const& [kind, id] : dropped) {
                question.dropped.push_back({static_cast<cr_reftype_t>(kind), id});
            }
            return TupleOf(
                tool::ScanStorePiece(TaskOf(parts, isScan, claimed, output), question, cache, {partitions, key}));
        },
        py::arg("parts"), py::arg("scan"), py::arg("claimed"), py::arg("output"), py::kw_only(), py::arg("held"),
        py::arg("stored"), py::arg("dropped"), py::arg("own"), py::arg("cache"), py::arg("partitions"), py::arg("key"),
        Unlocked());
    module.def(
        "_scan_lost",
        [](std::vector<PartTuple> const& parts, bool isScan, std::uint64_t claimed, NameTuple const& output,
           std::vector<std::uint64_t> const& containers) {
            return TupleOf(tool::ScanLostPiece(TaskOf(parts, isScan, claimed, output), containers));
        },
        py::arg("parts"), py::arg("scan"), py::arg("claimed"), py::arg("output"), py::kw_only(), py::arg("containers"),
        Unlocked());
    module.def(
        "_validate",
        [](std::vector<PartTuple> const& parts, bool isScan, std::uint64_t claimed, NameTuple const& output,
           bool firstOnly, bool badOnly) {
            return TupleOf(tool::ValidatePiece(TaskOf(parts, isScan, claimed, output), firstOnly, badOnly));
        },
        py::arg("parts"), py::arg("scan"), py::arg("claimed"), py::arg("output"), py::kw_only(), py::arg("first"),
        py::arg("bad_only"), Unlocked());
}

using Names = std::vector<std::string>;

template <auto report, class... More>
int Report(std::string const& folder, Names const& pieces, Names const& partitions, int out, int error, More... more) {
    return static_cast<int>(report({folder, pieces, partitions, out, error}, more...));
}

template <auto report, class... More>
void BindReport(py::module_& module, char const* name) {
    module.def(name, &Report<report, More...>, Unlocked());
}

} // namespace

void BindCluster(py::module_& module) {
    tool::Progress::Disable();
    module.attr("_MOST_CLAIMED") = tool::kMostClaimed;
    module.def(
        "_index",
        [](std::string const& name, std::string const& path, std::uint64_t step) {
            std::vector<std::tuple<std::uint64_t, std::uint64_t>> result;
            for (tool::RecordPosition const& position : tool::IndexOf(name, path, step)) {
                result.emplace_back(position.offset, position.number);
            }
            return result;
        },
        Unlocked());
    module.def("_printable", [](std::string const& text) { return py::bytes(tool::Printable(text)); });
    BindScans(module);
    module.def(
        "_outcome", [](NameTuple const& piece) { return TupleOf(tool::OutcomeOf(NameOf(piece))); }, Unlocked());
    module.def(
        "_check", [](NameTuple const& name) { tool::WorkFile const file(NameOf(name)); }, Unlocked());
    module.def(
        "_total",
        [](std::string const& folder, Names const& pieces, std::uint32_t partition, bool isByFirstUse,
           std::uint64_t memory, std::string const& temporaryFolder, NameTuple const& output) {
            tool::TotalPartition(
                {folder, pieces, partition, isByFirstUse, {memory, 1, temporaryFolder}, NameOf(output)});
        },
        Unlocked());
    BindReport<tool::ReportLive, unsigned int>(module, "_report_live");
    BindReport<tool::ReportFreed>(module, "_report_freed");
    BindReport<tool::ReportRecall, std::uint64_t>(module, "_report_recall");
    BindReport<tool::ReportLost>(module, "_report_lost");
    BindReport<tool::ReportValidation, std::uint64_t>(module, "_report_validate");
}

} // namespace crrecord::python
