#include "record/cut_options.h"

#include "io/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

// Replaces the text by the number. Returns: the message if it is none.
std::string ReadSize(std::string& text, std::uint64_t least, std::uint64_t most) {
    constexpr std::array<std::string_view, 7> kUnits{"", "k", "m", "g", "t", "p", "e"};
    std::uint64_t number = 0;
    auto const digits = std::min(text.find_first_not_of("0123456789"), text.size());
    std::from_chars(text.data(), text.data() + digits, number);
    std::string unit = text.substr(digits);
    std::transform(unit.begin(), unit.end(), unit.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    unit.resize(unit.size() - (unit.ends_with("ib") ? 2 : unit.ends_with("b") ? 1 : 0));
    auto const power = static_cast<std::size_t>(std::find(kUnits.begin(), kUnits.end(), unit) - kUnits.begin());
    if (power == kUnits.size() || number > most >> 10 * power || number << 10 * power < least) {
        return fmt::format("found \"{}\", expected a number of bytes of {} to {}, such as 65536 or 64K",
                           Printable(text), least, most);
    }
    text = std::to_string(number << 10 * power);
    return std::string();
}

constexpr std::uint32_t kLargestContentCut = 4 * 1024 * 1024; // several are in memory

// Reads "fixed" or "content", with or without the least, usual and greatest size.
std::string ReadCut(std::string const& text, std::optional<ContentCut>& content) {
    constexpr char kExpected[] = "expected fixed, content or content:MIN:AVG:MAX with 64 <= MIN <= AVG <= MAX <= 4M";
    std::vector<std::string> parts = CLI::detail::split(text, ':');
    content.reset();
    if (text == "fixed") {
        return "";
    }
    std::array<std::uint32_t, 3> sizes{ContentCut().least, ContentCut().average, ContentCut().most};
    bool good = parts[0] == "content" && (parts.size() == 1 || parts.size() == 4) && !text.ends_with(':');
    for (std::size_t i = 1; good && i < parts.size(); ++i) {
        good = ReadSize(parts[i], 1, kLargestContentCut).empty();
        sizes[i - 1] = good ? static_cast<std::uint32_t>(std::stoul(parts[i])) : 0;
    }
    auto const [least, average, most] = sizes;
    if (!good || least < 64 || least > average || average > most) {
        return fmt::format("found \"{}\", {}", Printable(text), kExpected);
    }
    content = {least, average, most};
    return "";
}

} // namespace

CLI::Validator NumberOfBytes(std::uint64_t least, std::uint64_t most) {
    return {[least, most](std::string& text) { return ReadSize(text, least, most); }, ""};
}

void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes) {
    // Without their descriptions, which the help would show instead of the value's name.
    auto const range = [](unsigned int least, unsigned int most) { return CLI::Range(least, most).description(""); };
    verb.add_option("--segment-size", options.segmentSize, "Bytes of each segment but the last, such as 64K")
        ->transform(NumberOfBytes(1, mostBytes))
        ->type_name("BYTES")
        ->capture_default_str();
    auto* const cut = verb.add_option_function<std::string>(
        "--cut", [](std::string const&) {},
        "Where segments end: fixed, by their content (content), or by their content with sizes "
        "(content:MIN:AVG:MAX, such as content:16K:64K:256K), both without --segment-size");
    cut->check(CLI::Validator(
                   [&options, cut](std::string& text) {
                       std::string error = ReadCut(text, options.content);
                       if (options.content) {
                           cut->excludes("--segment-size");
                       }
                       return error;
                   },
                   ""))
        ->type_name("RULE")
        ->default_str("fixed");
    verb.add_option("--container-size", options.containerSize, "Bytes that a container holds, such as 64M")
        ->transform(NumberOfBytes(1, std::numeric_limits<std::uint64_t>::max()))
        ->type_name("BYTES")
        ->capture_default_str();
    verb.add_option("--fptype", options.fptype, "Fingerprint: 0 MD5, 1 SHA-1/128, 2 SHA-256/128, 3 SHA-256")
        ->check(range(CR_FP_TYPE_MD5, CR_FP_TYPE_LAST))
        ->type_name("N")
        ->capture_default_str();
    verb.add_option("--first-container", options.firstContainer, "Id of the first container, at most 4294967295")
        ->check(range(CutOptions::kLeastContainer, CutOptions::kMost32))
        ->type_name("ID")
        ->capture_default_str();
}

} // namespace crrecord::tool
