#include "io/record_names.h"

#include "io/text.h"

#include <algorithm>

namespace crrecord::tool {

namespace {

std::vector<NamedRecord> named;

} // namespace

std::string const* NameAt(std::uint64_t offset) {
    auto const found = std::ranges::lower_bound(named, offset, {}, &NamedRecord::offset);
    return found == named.end() || found->offset != offset ? nullptr : &found->name;
}

void NameRecords(std::vector<NamedRecord> records) {
    named = std::move(records);
}

std::string LabelOf(std::uint64_t number, std::uint64_t offset, char const* noun) {
    std::string const* const name = NameAt(offset);
    return name ? Printable(*name) : std::string(noun) + " " + std::to_string(number);
}

std::string JsonNameOf(std::uint64_t offset) {
    std::string const* const name = NameAt(offset);
    return name ? ",\"name\":" + JsonName("name", *name) : "";
}

} // namespace crrecord::tool
