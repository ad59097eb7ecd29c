// Measures the processor time per byte of expensive input, in two sizes, and prints a table. Fails if the time per byte
// grows as with a quadratic algorithm.

#include "tool_records.h"

#include <cstring>
#include <ctime>

namespace {

using namespace fuzz;

constexpr std::size_t kTail = 24; // zeros that end a DO record

void Put(Block& to, unsigned long value, std::size_t width) {
    for (; width != 0; --width) {
        to.push_back(static_cast<unsigned char>(value >> 8 * (width - 1)));
    }
}

// A record of DO type 2 in network order. Each segment has one byte and is in container `dcid(i)`.
template <class Dcid>
Block Segments(unsigned int count, Dcid dcid) {
    Block entries;
    std::vector<unsigned long> dcids;
    for (unsigned int i = 0; i < count; ++i) {
        entries.insert(entries.end(), 16, static_cast<unsigned char>(i));
        unsigned int const size = 1;
        entries.insert(entries.end(), reinterpret_cast<unsigned char const*>(&size),
                       reinterpret_cast<unsigned char const*>(&size + 1));
        dcids.push_back(dcid(i));
    }
    DORecord record(64, count, 0, 0, 1, 1, entries.data(), count, dcids.data(), nullptr, 0, 2);
    record.HostToNetwork(0);
    auto const* const bytes = reinterpret_cast<unsigned char const*>(record.GetHeader());
    return {bytes, bytes + record.GetHeaderSize()};
}

// A record of one segment with `count` task ids, the i-th of which is `id(i)`.
template <class Id>
Block References(unsigned int count, Id id) {
    Block section, bytes = Segments(1, [](unsigned int) { return 64ul; });
    for (unsigned int i = 0; i < count; ++i) {
        Put(section, CR_REFTYPE_TASKID << 8 | 8, 2);
        Put(section, id(i), 8);
    }
    bytes.insert(bytes.end() - kTail, section.begin(), section.end());
    Block sizes;
    Put(sizes, bytes.size(), 4);
    Put(sizes, section.size(), 4);
    std::memcpy(bytes.data() + offsetof(DORecordHeader, recsize), sizes.data(), 4);
    std::memcpy(bytes.data() + offsetof(DORecordHeader, trefssize), sizes.data() + 4, 4);
    return bytes;
}

Block Text(std::string const& text) {
    return {text.begin(), text.end()};
}

void Load(Block const& bytes) {
    DORecord::FromBuffer(bytes.data(), bytes.size());
}

void ListContainers(Block const& bytes) {
    Must(DORecord::FromBuffer(bytes.data(), bytes.size())->AppendBloomAndUniqueDCIDList() == 0, "a list");
}

void Explain(Block const& bytes) {
    unsigned long found = 0;
    auto const count = [](cr_finding_t const*, void* to) { return ++*static_cast<unsigned long*>(to), true; };
    DORecordDiagnose(bytes.data(), bytes.size(), CR_DO_NETWORK_ORDER, count, &found);
    Must(found != 0, "a finding");
}

void ReadJson(Block const& bytes) {
    json::Reader reader;
    try {
        reader.Read(TextOf(bytes, bytes.size()));
    } catch (json::Error const&) {}
}

struct Shape {
    char const* name;
    Block (*make)(unsigned int n);
    void (*use)(Block const& bytes);
};

constexpr Shape kShapes[] = {
    {"references, descending", [](unsigned int n) { return References(n, [=](unsigned int i) { return n - i; }); },
     Load},
    {"references, all the same", [](unsigned int n) { return References(n, [](unsigned int) { return 1u; }); }, Load},
    {"containers in one row of the table",
     // The factor is the inverse of the factor of the hash, so all products select the same row.
     [](unsigned int n) { return Segments(n, [](unsigned int i) { return (1ul << 40 | i) * 0xf1de83e19937733d; }); },
     ListContainers},
    {"containers, alternating and descending",
     [](unsigned int n) { return Segments(n, [=](unsigned int i) { return 64ul + (i & 1 ? n - i : 0); }); },
     ListContainers},
    {"references, and a last one that is none",
     [](unsigned int n) {
         Block bytes = References(n, [](unsigned int i) { return i; });
         bytes[bytes.size() - kTail - 10] = 0xff; // the kind of the last reference
         return bytes;
     },
     Explain},
    {"JSON, nested", [](unsigned int n) { return Text(std::string(8 * n, '[')); }, ReadJson},
    {"JSON, a member again and again",
     [](unsigned int n) {
         std::string text = "{";
         for (unsigned int i = 0; i < n; ++i) {
             text += "\"member" + std::to_string(i) + "\":0,";
         }
         return Text(text + "\"end\":0}");
     },
     ReadJson},
};

// Returns: nanoseconds per byte, the best of three rounds.
double Cost(Shape const& shape, unsigned int n, std::size_t& size) {
    Block const bytes = shape.make(n);
    size = bytes.size();
    double best = 1e30;
    for (int round = 0; round < 3; ++round) {
        std::clock_t const start = std::clock();
        shape.use(bytes);
        best = std::min(best, 1e9 / CLOCKS_PER_SEC * static_cast<double>(std::clock() - start));
    }
    return best / static_cast<double>(size);
}

} // namespace

int main() {
    constexpr unsigned int kSmall = 4000, kFactor = 64;
    constexpr double kMost = 8; // allows for caches and a logarithm; a quadratic algorithm has a factor of 64
    // Nanoseconds. Smaller values are noise of a clock with microseconds, so they count as this one. A quadratic
    // algorithm still exceeds kMost times this.
    constexpr double kLeast = 0.1;
    BeSilent();
    bool grows = false;
    std::printf("| Shape | KiB | ns a byte | KiB | ns a byte |\n|---|---:|---:|---:|---:|\n");
    for (Shape const& shape : kShapes) {
        std::size_t small = 0, large = 0;
        double const first = Cost(shape, kSmall, small), second = Cost(shape, kSmall * kFactor, large);
        std::printf("| %s | %zu | %.1f | %zu | %.1f |\n", shape.name, small / 1024, first, large / 1024, second);
        grows |= second > kMost * std::max(first, kLeast);
    }
    return grows;
}
