// Tests every proper prefix and every small change of every golden record.
//
//   changes FOLDER [DOCUMENT]
//
// Prints a table of the first findings and their numbers. Fails if validation and another operation disagree on a
// change, or if DOCUMENT does not contain the table.

#include "reader_agrees.h"
#include "tool_records.h"

#include <crrecord/SORecord.h>
#include <crrecord/probe.h>

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

using namespace fuzz;
using crrecord::Order;
using Span = std::span<unsigned char>;

// Step between the values tested for a byte after the header. Larger under sanitizers, which are slow.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned int kStep = 5;
#else
constexpr unsigned int kStep = 1;
#endif

constexpr char kOneAnswer[] = "operations accept exactly the bytes that validate";

enum Change { kPrefix, kByte, kBit };
constexpr int kCanonical = 0, kNoJson = -1, kJson = -2;
std::map<int, std::array<unsigned long, 3>> counts; // by finding code and change

// Returns: false if `make` throws Cr_ErrnoException.
template <class Make>
bool Makes(Make const& make) {
    try {
        make();
        return true;
    } catch (Cr_ErrnoException const&) {
        return false;
    }
}

// The probe must know kind and size unless the first finding is about these.
void AgreeWithProbe(Record const& record, bool valid, int code) {
    cr_record_probe_t const probe = CRRecordProbe(record.bytes, record.size);
    bool const known = probe.kind == (record.kind == Kind::Segment ? CR_RECORD_SEGMENT : CR_RECORD_DO) &&
                       (probe.network_order != 0) == (record.order == Order::Network);
    bool const refused = (code >= CR_FINDING_SO_LENGTH && code <= CR_FINDING_SO_RECSIZE) ||
                         (code >= CR_FINDING_DO_LENGTH && code <= CR_FINDING_DO_RECSIZE);
    Must((known && probe.recorded_size == record.size) != refused, "the probe and validation agree on kind and size");
    Must(!valid || probe.counted_size == record.size, "the counted size of a valid record is its size");
}

void AgreeOnObject(Record const& record, bool valid) {
    unsigned int const options = record.order == Order::Network ? CR_DO_NETWORK_ORDER : 0;
    auto const size = static_cast<unsigned int>(record.size);
    Must((DORecordHeaderValidate(record.bytes, size, options) == CR_STATUS_OK) == valid, kOneAnswer);
    AgreeOnDORecord({record.bytes, record.size}, options);
    Must(Makes([&] { DORecord::FromBuffer(record.bytes, size); }) == valid, kOneAnswer);
    bool legacy = false;
    Must(Makes([&] {
             DORecordView const view(record.bytes, size);
             legacy = view.GetLegacyTaskIDs() != 0 || view.GetLegacyDSIDs() != 0;
         }) == valid,
         kOneAnswer);
    Block memory(record.bytes, record.bytes + size);
    bool const wrapped = Makes([&] { DORecord::Wrap(memory.data(), size, size, true); });
    Must(wrapped == (valid && !legacy), "Wrap accepts valid records without legacy arrays only");
    Must(wrapped || std::equal(memory.begin(), memory.end(), record.bytes),
         "Wrap does not change bytes that it rejects");
}

void AgreeOnSegment(Record const& record, bool valid) {
    unsigned int const options = record.order == Order::Network ? CR_SO_NETWORK_ORDER : 0;
    auto const* const header = reinterpret_cast<_SegmentDBRecord const*>(record.bytes);
    auto const size = static_cast<unsigned int>(record.size);
    Must((SegmentRecordValidate(header, size, options) == CR_STATUS_OK) == valid, kOneAnswer);
    AgreeOnSegmentRecord({record.bytes, record.size}, options);
    bool const ofTheClass = size == CR_SO_RECORD_SIZE; // which accepts no other size
    Must(Makes([&] { SORecord::FromBuffer(record.bytes, size); }) == (valid && ofTheClass), kOneAnswer);
}

void AgreeOnForm(Record const& record, bool valid, int code) {
    FormFacts const& form = record.form;
    Must((DORecordSerializedValidate(record.bytes, record.size, form.dotype, form.fptype, form.checksum) ==
          CR_STATUS_OK) == valid,
         kOneAnswer);
    Must(Makes([&] { DORecord(form.dotype, form.fptype, nullptr, 0, record.bytes, record.size, false); }) == valid,
         kOneAnswer);
    DORecordHeader* header = nullptr;
    unsigned long capacity = 0;
    bool const parsed = DORecordHeaderDeserialize(&header, &capacity, record.bytes, record.size, form.dotype,
                                                  form.fptype) == CR_STATUS_OK;
    std::free(header);
    bool const ofSegments = code >= CR_FINDING_SEGMENT_PRODUCT && code <= CR_FINDING_SEGMENT_END;
    Must(parsed == (valid || ofSegments), "the parser rejects malformed forms only");
}

// Returns: the code of the first finding.
int CodeOf(Span bytes, Record record) {
    static std::vector<Finding> findings;
    record.bytes = bytes.data();
    record.size = bytes.size();
    bool const valid = Diagnose(record, Depth::Everything, findings);
    int const code = findings.empty() ? kCanonical : findings.front().code;
    if (record.kind == Kind::Form) {
        AgreeOnForm(record, valid, code);
        return code;
    }
    AgreeWithProbe(record, valid, code);
    (record.kind == Kind::Segment ? AgreeOnSegment : AgreeOnObject)(record, valid);
    return code;
}

int CodeOfLine(Span bytes) {
    static json::Reader reader;
    try {
        reader.Read({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
        return kJson;
    } catch (json::Error const&) {
        return kNoJson;
    }
}

// Sets each byte of the header to every value, and each byte after it to every `step`th value.
template <class Code>
void ChangeAll(Block const& good, std::size_t header, unsigned int step, Code code) {
    for (std::size_t size = 0; size < good.size(); ++size) {
        Block prefix(size + 1); // one byte more, so that the empty prefix has an address
        std::copy_n(good.begin(), size, prefix.begin() + 1);
        int const seen = code(Span(prefix).subspan(1));
        Must(seen != kCanonical && seen != kJson, "a prefix is rejected");
        ++counts[seen][kPrefix];
    }
    Block changed = good;
    for (std::size_t at = 0; at < good.size(); ++at) {
        auto const put = [&](unsigned int value, Change change) {
            changed[at] = static_cast<unsigned char>(value);
            if (changed[at] != good[at]) {
                ++counts[code(changed)][change];
            }
        };
        for (unsigned int bit = 0; bit < 8; ++bit) {
            put(good[at] ^ 1u << bit, kBit);
        }
        for (unsigned int value = 0; value < 256; value += at < header ? 1 : step) {
            put(value, kByte);
        }
        changed[at] = good[at];
    }
}

void ChangeFile(std::filesystem::path const& path) {
    std::ifstream file(path, std::ios::binary);
    Block const good{std::istreambuf_iterator<char>(file), {}};
    std::string const name = path.filename(), ending = path.extension();
    bool const object = name.find("do") != std::string::npos;
    Record record{};
    record.kind = object ? Kind::DataObject : Kind::Segment;
    record.order = ending == ".network" ? Order::Network : Order::Host;
    if (ending == ".json") {
        ChangeAll({good.begin(), good.end() - 1}, 0, 51, CodeOfLine); // without the line feed
    } else if (ending == ".host" || ending == ".network") {
        ChangeAll(good, object ? CR_DO_HEADER_SIZE : CR_SO_FIXED_SIZE, kStep,
                  [&](Span bytes) { return CodeOf(bytes, record); });
    } else if (ending == ".form" && object) {
        // The DO type and fingerprint type are in the record of the same name.
        std::ifstream host(std::filesystem::path(path).replace_extension(".host"), std::ios::binary);
        Block const header{std::istreambuf_iterator<char>(host), {}};
        record.kind = Kind::Form;
        record.form = {header[0x4d], header[0x4c], false};
        ChangeAll(good, 28, kStep, [&](Span bytes) { return CodeOf(bytes, record); });
    }
}

} // namespace

int main(int count, char** arguments) {
    BeSilent();
    for (auto const& entry : std::filesystem::directory_iterator(count > 1 ? arguments[1] : ".")) {
        ChangeFile(entry.path());
    }
    std::string table = "| First finding | Prefixes | Bytes | Bits |\n|---|---:|---:|---:|\n";
    for (auto const& [code, of] : counts) {
        std::string const name = code == kJson        ? "read as JSON"
                                 : code == kNoJson    ? "refused as JSON"
                                 : code == kCanonical ? "none: another canonical record"
                                                      : std::to_string(code) + " `" + CRFindingName(code) + "`";
        table += fmt::format("| {} | {} | {} | {} |\n", name, of[kPrefix], of[kByte], of[kBit]);
    }
    std::fputs(table.c_str(), stdout);
    if (count > 2 && kStep == 1) {
        std::ifstream file(arguments[2]);
        std::string const document{std::istreambuf_iterator<char>(file), {}};
        Must(document.find(table) != std::string::npos, "the document contains this table");
    }
    return counts.size() < 30;
}
