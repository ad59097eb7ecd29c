#include "analysis/record_diff.h"

#include "record/references.h"
#include "record/show_object.h"

#include <algorithm>
#include <cstring>

namespace crrecord::tool {

namespace {

std::string DecimalText(std::uint64_t value) {
    return std::to_string(value);
}

// For a field of 32 bits.
template <std::string (*Text)(unsigned int)>
std::string As(std::uint64_t value) {
    return Text(static_cast<unsigned int>(value));
}

struct ComparedField {
    char const* name;
    std::uint64_t (*get)(DORecord const&);
    std::string (*text)(std::uint64_t) = DecimalText;
};
constexpr ComparedField kComparedFields[] = {
    {"flags", [](DORecord const& record) -> std::uint64_t { return record.GetFlags(); }, As<FlagsText>},
    {"checktime", [](DORecord const& record) -> std::uint64_t { return record.GetCheckTime(); }, As<TimeText>},
    {"CID", [](DORecord const& record) -> std::uint64_t { return record.GetDCID(); }},
    {"size", [](DORecord const& record) -> std::uint64_t { return record.GetSize(); }},
    {"ssize", [](DORecord const& record) -> std::uint64_t { return record.GetSsize(); }},
    {"CRC", [](DORecord const& record) -> std::uint64_t { return record.GetCrc(); }, As<CrcText>},
    {"ctime", [](DORecord const& record) -> std::uint64_t { return record.GetCTime(); }, As<TimeText>},
    {"mtime", [](DORecord const& record) -> std::uint64_t { return record.GetMTime(); }, As<TimeText>},
    {"nfp", [](DORecord const& record) -> std::uint64_t { return record.GetNfp(); }},
    {"nudcid", [](DORecord const& record) -> std::uint64_t { return record.GetNudcid(); }},
    {"bsize", [](DORecord const& record) -> std::uint64_t { return record.GetBSize(); }},
    {"fptype", [](DORecord const& record) -> std::uint64_t { return record.GetFPType(); }},
    {"dotype", [](DORecord const& record) -> std::uint64_t { return record.GetDOType(); }},
};

void AddUses(ContainerTable<ContainerDiff>& table, DORecord const& record, ContainerUse ContainerDiff::*side) {
    for (DOSegment const segment : record.Segments()) {
        ContainerUse& use = table.Of(segment.dcid).*side;
        ++use.segments;
        use.bytes += segment.size; // at most the object's size
    }
    for (DOUniqueDCID const entry : record.UniqueDCIDs()) {
        AddBytes((table.Of(entry.dcid).*side).listed, entry.bytes);
    }
}

// Returns: the entries for which wanted(entry) is true, by id.
template <class Wanted>
std::vector<ContainerDiff> Select(ContainerTable<ContainerDiff> const& table, Wanted wanted) {
    std::vector<ContainerDiff> selected;
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (wanted(table[i])) {
            selected.push_back(table[i]);
        }
    }
    std::sort(selected.begin(), selected.end(), [](auto const& x, auto const& y) { return x.dcid < y.dcid; });
    return selected;
}

} // namespace

void DiffHeaders(DORecord const& a, DORecord const& b,
                 std::function<void(char const* name, HeaderValue const& a, HeaderValue const& b)> const& use) {
    for (ComparedField const& field : kComparedFields) {
        std::uint64_t const inA = field.get(a);
        std::uint64_t const inB = field.get(b);
        if (inA != inB) {
            use(field.name, {inA, field.text(inA)}, {inB, field.text(inB)});
        }
    }
}

void DiffReferences(DORecord const& a, DORecord const& b,
                    std::function<void(char const* reference, bool isInB)> const& use) {
    ForEachReferenceKind([&](cr_reftype_t kind) {
        auto inA = a.GetTRefTypeBegin(kind);
        auto inB = b.GetTRefTypeBegin(kind);
        auto const endA = a.GetTRefTypeEnd(kind);
        auto const endB = b.GetTRefTypeEnd(kind);
        while (inA != endA || inB != endB) {
            int const order = inA == endA ? 1 : inB == endB ? -1 : CRTRefCompare((*inA)->Get(), (*inB)->Get());
            if (order != 0) {
                use(ReferenceText((order < 0 ? *inA : *inB)->Get()).Get(), order > 0);
            }
            if (order <= 0) {
                ++inA;
            }
            if (order >= 0) {
                ++inB;
            }
        }
    });
}

bool PrintJsonReferenceDiff(Output& out, DORecord const& a, DORecord const& b) {
    bool any = false;
    out.Write(R"(,"references":{)");
    for (bool const added : {true, false}) {
        out.Print(R"({}"{}":[)", added ? "" : ",", added ? "added" : "removed");
        char const* separator = "";
        DiffReferences(a, b, [&](char const* reference, bool isInB) {
            any = true;
            if (isInB == added) {
                out.Print(R"({}"{}")", std::exchange(separator, ","), reference);
            }
        });
        out.Write("]");
    }
    out.Write("}");
    return any;
}

bool BitmapsDiffer(DORecord const& a, DORecord const& b) {
    unsigned char const* const inA = a.GetBloom();
    unsigned char const* const inB = b.GetBloom();
    return inA && inB ? a.GetBSize() != b.GetBSize() || std::memcmp(inA, inB, a.GetBSize()) != 0 : inA != inB;
}

std::vector<ContainerDiff> DiffContainers(DORecord const& a, DORecord const& b) {
    ContainerTable<ContainerDiff> table;
    AddUses(table, a, &ContainerDiff::a);
    AddUses(table, b, &ContainerDiff::b);
    return Select(table, [](ContainerDiff const& container) { return container.a != container.b; });
}

std::vector<ContainerDiff> WronglyListed(DORecord const& record) {
    ContainerTable<ContainerDiff> table;
    AddUses(table, record, &ContainerDiff::a);
    return Select(table, [](ContainerDiff const& container) { return container.a.listed != container.a.bytes; });
}

} // namespace crrecord::tool
