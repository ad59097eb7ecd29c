#include "json/parser.h"

#include "base/hex.h"
#include "io/text.h"

#include <charconv>
#include <cstring>
#include <new>

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

// Bytes of a value that a message shows.
constexpr std::size_t kShown = 40;

std::string Shortened(std::string_view token) {
    std::string_view const text = token.substr(0, token.find_last_not_of(" \t\r\n") + 1);
    return Printable(text.substr(0, kShown)) + (text.size() <= kShown ? "" : "...");
}

// The meaning of the library's errors for a line of a file.
std::string_view Explain(simdjson::error_code error) {
    switch (error) {
    case simdjson::CAPACITY: return "the line is longer than 4 GiB - 1";
    case simdjson::UTF8_ERROR: return "the line is not UTF-8";
    case simdjson::UNCLOSED_STRING: return "a string does not end";
    case simdjson::UNESCAPED_CHARS: return "a control character in a string";
    case simdjson::STRING_ERROR: return "a string with a wrong escape";
    case simdjson::EMPTY: return "no JSON";
    default: return "not well-formed JSON, expected one record a line";
    }
}

} // namespace

void Parser::Start(std::string_view line, std::uint64_t readable) {
    list_ = {};
    member_ = {};
    text_ = line;
    if (readable - line.size() < simdjson::SIMDJSON_PADDING) {
        copy_.assign(line.size() + simdjson::SIMDJSON_PADDING, ' ');
        line.copy(copy_.data(), line.size());
        text_ = {copy_.data(), line.size()};
    }
    simdjson::error_code const error =
        parser_.iterate(text_.data(), text_.size(), text_.size() + simdjson::SIMDJSON_PADDING).get(document_);
    if (error == simdjson::MEMALLOC) {
        throw std::bad_alloc();
    }
    if (error != simdjson::SUCCESS) {
        FailAt(text_.data(), std::string(Explain(error)));
    }
}

simdjson::ondemand::object Parser::Root() {
    document_.rewind();
    simdjson::ondemand::object object;
    simdjson::error_code const error = document_.get_object().get(object);
    if (error == simdjson::INCORRECT_TYPE) {
        FailAt(text_.data(), "expected an object");
    }
    if (error != simdjson::SUCCESS) {
        FailAt(text_.data() + text_.size(), std::string(Explain(error)));
    }
    return object;
}

std::string Parser::Find(std::string_view name) {
    std::string_view text;
    simdjson::ondemand::object root = Root();
    simdjson::error_code const error = root.find_field_unordered(name).get_string().get(text);
    if (error == simdjson::NO_SUCH_FIELD) {
        member_ = name;
        FailAt(text_.data(), "is missing");
    }
    // A member of another type is reported when it is read. After a syntax error the parser cannot start again.
    if (error != simdjson::SUCCESS && error != simdjson::INCORRECT_TYPE) {
        FailSyntax(error);
    }
    return std::string(text);
}

void Parser::End() {
    char const* rest = nullptr;
    if (document_.current_location().get(rest) == simdjson::SUCCESS) {
        FailAt(rest, "expected the line's end after the object");
    }
}

std::uint64_t Parser::Number(Value& value, std::uint64_t least, std::uint64_t most) {
    std::uint64_t number = 0;
    if (value.get_uint64().get(number) != simdjson::SUCCESS || number < least || number > most) {
        FailExpecting(value,
                      least == most ? fmt::format("{}", most) : fmt::format("a number of {} to {}", least, most));
    }
    return number;
}

std::uint64_t Parser::Decimal(Value& value, std::uint64_t most) {
    std::string_view text;
    std::uint64_t number = 0;
    if (value.get_string().get(text) == simdjson::SUCCESS) {
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        bool const canonical = text.size() == 1 || text.substr(0, 1) != "0";
        if (error == std::errc() && end == text.data() + text.size() && canonical && number <= most) {
            return number;
        }
    }
    FailExpecting(value, fmt::format("a string with a decimal number of 0 to {}", most));
}

bool Parser::Bool(Value& value) {
    bool is = false;
    Expect(value.get_bool().get(is), value, "true or false");
    return is;
}

std::string_view Parser::String(Value& value, char const* expected) {
    std::string_view text;
    Expect(value.get_string().get(text), value, expected);
    return text;
}

void Parser::Hex(Value& value, std::uint64_t count, unsigned char* bytes) {
    constexpr unsigned int kBlock = 16;
    std::string_view text;
    bool good = value.get_string().get(text) == simdjson::SUCCESS && text.size() == 2 * count;
    for (; good && text.size() >= 2UL * kBlock; text.remove_prefix(2UL * kBlock), bytes += kBlock) {
        good = HexDecode(text.data(), kBlock, bytes);
    }
    if (good && !text.empty()) {
        char rest[2 * kBlock];
        unsigned char decoded[kBlock];
        std::memset(rest, '0', sizeof rest);
        text.copy(rest, sizeof rest);
        good = HexDecode(rest, kBlock, decoded);
        std::memcpy(bytes, decoded, text.size() / 2);
    }
    if (!good) {
        FailExpecting(value, fmt::format("a string of {} lower-case hexadecimal digits", 2 * count));
    }
}

std::uint64_t Parser::CountElements(Value& value) {
    std::size_t count = 0;
    simdjson::error_code const error = value.count_elements().get(count);
    Expect(error == simdjson::INCORRECT_TYPE ? error : simdjson::SUCCESS, value, "an array");
    Check(error);
    return count;
}

std::string_view Parser::NameOf(simdjson::ondemand::field& field) {
    char const* const raw = field.key().raw();
    key_ = raw - 1;
    std::size_t size = 0;
    while (raw[size] != '"' && raw[size] != '\\') {
        ++size;
    }
    std::string_view name(raw, size);
    if (raw[size] == '\\') {
        Check(field.unescaped_key().get(name));
    }
    return name;
}

void Parser::FailExpecting(Value& value, std::string const& expected) {
    Fail(value, fmt::format("found {}, expected {}", Shortened(value.raw_json_token()), expected));
}

void Parser::Fail(Value& value, std::string const& what) {
    throw Error(PositionOf(value), Path(), what);
}

void Parser::FailAt(void const* place, std::string const& what) {
    auto const position = static_cast<char const*>(place) - text_.data();
    throw Error(static_cast<std::uint64_t>(position), Path(), what);
}

void Parser::FailSyntax(simdjson::error_code error) {
    char const* place = text_.data() + text_.size();
    [[maybe_unused]] simdjson::error_code const ended = document_.current_location().get(place);
    FailAt(place, std::string(Explain(error)));
}

std::string Parser::Path() const {
    if (list_.empty()) {
        return std::string(member_);
    }
    return fmt::format("{}[{}]{}{}", list_, index_, member_.empty() ? "" : ".", member_);
}

} // namespace crrecord::tool::json
