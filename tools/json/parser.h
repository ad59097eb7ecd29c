// The JSON values of the form, read from one line without a tree in memory. Every fault is an Error with its position.

#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <simdjson.h>

namespace crrecord::tool::json {

using Value = simdjson::ondemand::value;

// A line is not a record in the form.
struct Error : std::runtime_error {
    Error(std::uint64_t at, std::string member, std::string const& what)
        : std::runtime_error(what), position(at), path(std::move(member)) {}

    std::uint64_t position; // in the line
    std::string path;       // such as segments[17].dcid; empty for the line itself
};

enum class Need : unsigned char { Required, Optional };

// A member of an object. A number has bounds and is stored at `offset` of the record.
struct MemberFacts {
    std::string_view name;
    Need need = Need::Required;
    std::uint16_t offset = 0;
    std::uint16_t width = 0;
    std::uint64_t least = 0;
    std::uint64_t most = 0;
};

// And the functions of a reader that use it.
template <class Reader>
struct Member : MemberFacts {
    using Use = void (Reader::*)(Value, MemberFacts const&);

    Use read = nullptr;  // in the first pass, in any order
    Use place = nullptr; // in the second pass, after all members were read
};

class Parser {
public:
    // Finds the structure of a line. The bytes after it, up to `readable`, are ignored; if they are fewer than the
    // library's padding, the line is copied. The line must not change until it is read.
    void Start(std::string_view line, std::uint64_t readable);
    // Returns: the line's object, from its start, on each call.
    simdjson::ondemand::object Root();
    // Returns: the text of one member, which decides how to read the others; empty for a member of another type.
    std::string Find(std::string_view name);
    // Throws: Error if text follows the object.
    void End();

    // Throws: Error for a value of another type or out of bounds.
    std::uint64_t Number(Value& value, std::uint64_t least, std::uint64_t most);
    std::uint64_t Decimal(Value& value, std::uint64_t most = std::numeric_limits<std::uint64_t>::max());
    bool Bool(Value& value);
    std::string_view String(Value& value, char const* expected);
    // Twice `count` lower-case hexadecimal digits.
    void Hex(Value& value, std::uint64_t count, unsigned char* bytes);
    std::uint64_t CountElements(Value& value);

    // Calls use(element, i) for each element. Errors give the list and the index.
    template <class Use>
    void ForEachElement(Value& value, std::string_view list, Use use) {
        simdjson::ondemand::array array;
        Expect(value.get_array().get(array), value, "an array");
        list_ = list;
        index_ = 0;
        member_ = {};
        for (auto element : array) {
            Value here;
            Check(element.get(here));
            use(here, index_);
            ++index_;
        }
        list_ = {};
    }

    // The same for a list that had `count` elements before, for which memory is allocated.
    // Throws: Error if the line has another number of them now.
    template <class Use>
    void ForEachCounted(Value& value, std::string_view list, std::uint64_t count, Use use) {
        std::uint64_t used = 0;
        ForEachElement(value, list, [&](Value& element, std::uint64_t i) {
            if (i >= count) {
                Fail(element, kChanged);
            }
            use(element, i);
            ++used;
        });
        if (used != count) {
            FailMember(PositionOf(value), list, kChanged);
        }
    }

    simdjson::ondemand::object Object(Value& value) {
        simdjson::ondemand::object object;
        Expect(value.get_object().get(object), value, "an object");
        return object;
    }

    // Reads an object's members into `reader`. Returns: the rows of the members found.
    // Throws: Error for an unknown or repeated member and for a missing one that is required.
    template <class Reader, std::size_t N>
    std::bitset<N> ReadMembers(simdjson::ondemand::object object, std::array<Member<Reader>, N> const& table,
                               Reader& reader, Value* whole = nullptr) {
        std::bitset<N> seen;
        ForEachMember(object, table, "an unknown member", [&](std::size_t row, simdjson::ondemand::field& field) {
            if (seen[row]) {
                FailAt(key_, "is there twice");
            }
            seen.set(row);
            if (table[row].read) {
                (reader.*table[row].read)(field.value(), table[row]);
            }
        });
        for (std::size_t row = 0; row < N; ++row) {
            if (table[row].need == Need::Required && !seen[row]) {
                member_ = table[row].name;
                FailAt(whole ? whole->raw_json_token().data() : text_.data(), "is missing");
            }
        }
        return seen;
    }

    // The second pass, over the members that have a function for it.
    template <class Reader, std::size_t N>
    void PlaceMembers(simdjson::ondemand::object object, std::array<Member<Reader>, N> const& table, Reader& reader) {
        ForEachMember(object, table, kChanged, [&](std::size_t row, simdjson::ondemand::field& field) {
            if (table[row].place) {
                (reader.*table[row].place)(field.value(), table[row]);
            }
        });
    }

    // Returns: the offset of a value in the line.
    std::uint64_t PositionOf(Value& value) const {
        return static_cast<std::uint64_t>(value.raw_json_token().data() - text_.data());
    }
    // Reports the value found and the expected one.
    [[noreturn]] void FailExpecting(Value& value, std::string const& expected);
    [[noreturn]] void Fail(Value& value, std::string const& what);
    // Reports a member of the line itself.
    [[noreturn]] static void FailMember(std::uint64_t position, std::string_view member, std::string const& what) {
        throw Error(position, std::string(member), what);
    }

private:
    static constexpr char kChanged[] = "the line changed while it was read";

    // Calls use(row, field) for each member of the object.
    template <class Table, class Use>
    void ForEachMember(simdjson::ondemand::object object, Table const& table, char const* ifUnknown, Use use) {
        std::size_t next = 0;
        for (auto found : object) {
            simdjson::ondemand::field field;
            member_ = {};
            Check(std::move(found).get(field));
            std::size_t const row = RowOf(NameOf(field), table, next);
            if (row == table.size()) {
                FailAt(key_, ifUnknown);
            }
            member_ = table[row].name;
            use(row, field);
        }
        member_ = {};
    }

    // The row of a member, the table's size for an unknown one. Members are mostly in the table's order.
    template <class Table>
    std::size_t RowOf(std::string_view name, Table const& table, std::size_t& next) {
        for (std::size_t tried = 0; tried < table.size(); ++tried, ++next) {
            next = next < table.size() ? next : 0;
            if (table[next].name == name) {
                return next++;
            }
        }
        unknown_ = name; // the library's text is valid only until the next one is read
        member_ = unknown_;
        return table.size();
    }

    std::string_view NameOf(simdjson::ondemand::field& field);
    void Check(simdjson::error_code error) {
        if (error != simdjson::SUCCESS) {
            FailSyntax(error);
        }
    }
    // For a value that may have another type.
    void Expect(simdjson::error_code error, Value& value, char const* expected) {
        if (error != simdjson::SUCCESS) {
            FailExpecting(value, expected);
        }
    }
    // At the parser's position.
    [[noreturn]] void FailSyntax(simdjson::error_code error);
    [[noreturn]] void FailAt(void const* place, std::string const& what);
    std::string Path() const;

    simdjson::ondemand::parser parser_;
    simdjson::ondemand::document document_;
    std::vector<char> copy_; // of a line with too few bytes after it
    std::string_view text_;
    std::string_view list_;     // the list whose element is being read
    std::uint64_t index_ = 0;   // of that element
    std::string_view member_;   // the member being read
    char const* key_ = nullptr; // its name in the line
    std::string unknown_;
};

} // namespace crrecord::tool::json
