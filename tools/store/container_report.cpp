#include "store/container_report.h"

#include "record/record_findings.h"

namespace crrecord::tool {

void PrintJsonTotal(Output& out, StoreTotals const& totals, std::uint64_t conflicts, std::string const& members) {
    out.Print(
        R"({},"total":{{{},"conflicts":{},"bad_records":{},"skipped_bytes":{},"unread_bytes":{},"complete":{}}}}})"
        "\n",
        JsonStart(), members, Decimal{conflicts}, Decimal{totals.bad}, Decimal{totals.gaps.skipped},
        JsonNumber(totals.gaps.unread), totals.isComplete);
}

void LiveReport::Add(ContainerSums const& sums) {
    tool::Add(needed, sums.first);
    tool::Add(stored, sums.second);
    tool::Add(missing, sums.onlyFirst);
    ++containers;
    uses += sums.uses;
    AddBytes(bloomBytes, sums.bloomBytes);
    ContainerState const state = StateOf(sums, sparsePercent_);
    dead += state == ContainerState::Dead ? 1 : 0;
    deadBytes += state == ContainerState::Dead ? sums.second.bytes : 0;
    sparse += state == ContainerState::Sparse ? 1 : 0;
    sparseGain += state == ContainerState::Sparse ? GainOf(sums) : 0;
}

void LiveReport::PrintLine(Output& out, ContainerSums const& sums) const {
    out.Print(R"({},"dcid":{},"segments":{},"bytes":{},"uses":{},"records":{},"bloom_bytes":{},)"
              R"("own_bytes":{})",
              JsonStart(), Decimal{sums.dcid}, Decimal{sums.first.segments}, Decimal{sums.first.bytes},
              Decimal{sums.uses}, Decimal{sums.records}, Decimal{sums.bloomBytes}, Decimal{sums.ownBytes});
    if (HasStored()) {
        out.Print(R"(,"stored_segments":{},"stored_bytes":{},"missing_segments":{},"missing_bytes":{},)"
                  R"("state":"{}")",
                  Decimal{sums.second.segments}, Decimal{sums.second.bytes}, Decimal{sums.onlyFirst.segments},
                  Decimal{sums.onlyFirst.bytes}, NameOf(StateOf(sums, sparsePercent_)));
    }
    out.Write("}\n");
}

void LiveReport::PrintTotal(Output& out, std::uint64_t conflicts) const {
    std::string members = fmt::format(R"("records":{},"held":{},"segments":{},"bytes":{},"uses":{},"containers":{})",
                                      Decimal{totals_.records}, Decimal{totals_.held}, Decimal{needed.segments},
                                      Decimal{needed.bytes}, Decimal{uses}, Decimal{containers});
    if (HasStored()) {
        members += fmt::format(R"(,"dead":{},"sparse":{},"stored_segments":{},"stored_bytes":{},)"
                               R"("missing_segments":{},"missing_bytes":{})",
                               Decimal{dead}, Decimal{sparse}, Decimal{stored.segments}, Decimal{stored.bytes},
                               Decimal{missing.segments}, Decimal{missing.bytes});
    }
    PrintJsonTotal(out, totals_, conflicts, members);
}

void FreedReport::Add(ContainerSums const& sums) {
    Loss const loss(sums);
    tool::Add(needed, loss.needed);
    dead += loss.dead ? 1 : 0;
}

void FreedReport::PrintLine(Output& out, ContainerSums const& sums) const {
    Loss const loss(sums);
    if (loss.Any()) {
        out.Print(R"({},"dcid":{},"segments":{},"bytes":{},"bloom_bytes":{},"own_bytes":{},"dead":{}}})"
                  "\n",
                  JsonStart(), Decimal{sums.dcid}, Decimal{loss.needed.segments}, Decimal{loss.needed.bytes},
                  Decimal{loss.bloomBytes}, Decimal{loss.ownBytes}, loss.dead);
    }
}

void FreedReport::PrintTotal(Output& out, std::uint64_t conflicts) const {
    PrintJsonTotal(out, totals_, conflicts,
                   fmt::format(R"("records":{},"segments":{},"bytes":{},"containers":{})", Decimal{Records()},
                               Decimal{needed.segments}, Decimal{needed.bytes}, Decimal{dead}));
}

void RecallReport::Add(ContainerSums const& sums) {
    tool::Add(needed, sums.first);
    ++containers;
}

void RecallReport::PrintLine(Output& out, ContainerSums const& sums) const {
    out.Print(R"({},"dcid":{},"segments":{},"bytes":{},"bloom_bytes":{},"records":{}}})"
              "\n",
              JsonStart(), Decimal{sums.dcid}, Decimal{sums.first.segments}, Decimal{sums.first.bytes},
              Decimal{sums.bloomBytes}, Decimal{sums.records});
}

void RecallReport::PrintTotal(Output& out, std::uint64_t conflicts) const {
    PrintJsonTotal(out, totals_, conflicts,
                   fmt::format(R"("containers":{},"segments":{},"bytes":{},"records":{})", Decimal{containers},
                               Decimal{needed.segments}, Decimal{needed.bytes}, Decimal{totals_.records}) +
                       (fetches ? fmt::format(R"(,"fetches":{})", Decimal{*fetches}) : ""));
}

} // namespace crrecord::tool
