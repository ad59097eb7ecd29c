// Every proper prefix and every small change of every golden record: changes FOLDER prints, as a table, which finding
// told how many of them first. What validation says, and what is made of the bytes, must agree each time. With a
// document behind the folder the table has to be in it.

#include "tool_records.h"

#include <crrecord/SORecord.h>

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

using namespace fuzz;
using crrecord::Order;

enum Change { kPrefix, kByte, kBit };
constexpr int kCanonical = 0, kNoJson = -1, kJson = -2;
std::map<int, std::array<unsigned long, 3>> counts; // by code and change

// Whether what `make` makes is there.
template <class Make>
bool Makes(Make const& make) {
    try {
        make();
        return true;
    } catch (Cr_ErrnoException const&) {
        return false;
    }
}

// The first finding's code.
int CodeOf(Block& bytes, Record record) {
    static std::vector<Finding> findings;
    record.bytes = bytes.data();
    record.size = bytes.size();
    bool const valid = Diagnose(record, Depth::Everything, findings);
    FormFacts const& form = record.form;
    bool const made = Makes([&] {
        if (record.kind == Kind::Form) {
            DORecord(form.dotype, form.fptype, nullptr, 0, bytes.data(), bytes.size(), false);
        } else if (record.kind == Kind::DataObject) {
            DORecordView(bytes.data(), bytes.size());
        } else if (!valid || bytes.size() == CR_SO_RECORD_SIZE) { // the class has no larger ones
            SORecord::FromBuffer(bytes.data(), bytes.size());
        }
    });
    Must(made == valid, "what validates is made into a record, and nothing else");
    return findings.empty() ? kCanonical : findings.front().code;
}

int CodeOfLine(Block const& bytes) {
    static json::Reader reader;
    try {
        reader.Read(TextOf(bytes, bytes.size()));
        return kJson;
    } catch (json::Error const&) {
        return kNoJson;
    }
}

template <class Code>
void ChangeAll(Block const& good, std::size_t header, Code code) {
    for (std::size_t size = 1; size < good.size(); ++size) {
        Block prefix(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        int const seen = code(prefix);
        Must(seen != kCanonical && seen != kJson, "a prefix is refused");
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
        for (unsigned int value = 0; value < 256; value += at < header || value == 255 ? 1 : 51) {
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
        ChangeAll({good.begin(), good.end() - 1}, 0, CodeOfLine); // without its end
    } else if (ending == ".host" || ending == ".network") {
        ChangeAll(good, object ? CR_DO_HEADER_SIZE : CR_SO_FIXED_SIZE,
                  [&](Block& bytes) { return CodeOf(bytes, record); });
    } else if (ending == ".form" && object) {
        // Its types are those of the record beside it.
        std::ifstream host(std::filesystem::path(path).replace_extension(".host"), std::ios::binary);
        Block const header{std::istreambuf_iterator<char>(host), {}};
        record.kind = Kind::Form;
        record.form = {header[0x4d], header[0x4c], false};
        ChangeAll(good, 28, [&](Block& bytes) { return CodeOf(bytes, record); });
    }
}

} // namespace

int main(int count, char** arguments) {
    BeSilent();
    for (auto const& entry : std::filesystem::directory_iterator(count > 1 ? arguments[1] : ".")) {
        ChangeFile(entry.path());
    }
    std::string table = "| Told first | Prefixes | Bytes | Bits |\n|---|---:|---:|---:|\n";
    for (auto const& [code, of] : counts) {
        std::string const name = code == kJson        ? "read as JSON"
                                 : code == kNoJson    ? "refused as JSON"
                                 : code == kCanonical ? "nothing: another canonical record"
                                                      : std::to_string(code) + " `" + CRFindingName(code) + "`";
        table += fmt::format("| {} | {} | {} | {} |\n", name, of[kPrefix], of[kByte], of[kBit]);
    }
    std::fputs(table.c_str(), stdout);
    if (count > 2) {
        std::ifstream file(arguments[2]);
        std::string const document{std::istreambuf_iterator<char>(file), {}};
        Must(document.find(table) != std::string::npos, "the document has this table");
    }
    return counts.size() < 30;
}
