// JSON values as the form has them, read from one line without a tree in memory. Whatever is wrong ends in an Error
// that says where.

#pragma once

#include <array>
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

// A line is no record in the form.
struct Error : std::runtime_error {
    Error(std::uint64_t at, std::string member, std::string const& what)
        : std::runtime_error(what), position(at), path(std::move(member)) {}

    std::uint64_t position; // in the line
    std::string path;       // such as segments[17].dcid; empty where it is the line itself
};

// How a member is missed.
enum class Need : unsigned char { Required, Optional };

// A member of an object. Where it is a number, it has bounds and goes to `offset` of the record.
struct MemberFacts {
    std::string_view name;
    Need need = Need::Required;
    std::uint16_t offset = 0;
    std::uint16_t width = 0;
    std::uint64_t least = 0;
    std::uint64_t most = 0;
};

// And what a reader does with it.
template <class Reader>
struct Member : MemberFacts {
    using Use = void (Reader::*)(Value, MemberFacts const&);

    Use read = nullptr;  // the first time, in any order
    Use place = nullptr; // the second time, when everything in front of it is known
};

// The members of an object that were there.
template <std::size_t N>
class Seen {
public:
    static_assert(N <= 64);

    bool Has(std::size_t row) const { return (bits_ >> row & 1) != 0; }
    void Add(std::size_t row) { bits_ |= std::uint64_t{1} << row; }

private:
    std::uint64_t bits_ = 0;
};

class Parser {
public:
    // Finds the structure of a line. Of what follows it, up to `readable` bytes, nothing is looked at; where these are
    // too few for a look beyond the end, the line is copied. It stays as it is while it is read.
    void Start(std::string_view line, std::uint64_t readable);
    // The line's object, from its beginning, as often as it is asked for.
    simdjson::ondemand::object Root();
    // The text of one of its members, for whoever must know it before the others.
    std::string Find(std::string_view name);
    // Nothing may be behind the object.
    void End();

    // Each throws Error where the value is something else, or not within the bounds.
    std::uint64_t Number(Value& value, std::uint64_t least, std::uint64_t most);
    std::uint64_t Decimal(Value& value, std::uint64_t most = std::numeric_limits<std::uint64_t>::max());
    bool Bool(Value& value);
    std::string_view String(Value& value, char const* expected);
    // Twice `count` lower-case hexadecimal digits.
    void Hex(Value& value, std::uint64_t count, unsigned char* bytes);
    std::uint64_t CountElements(Value& value);

    // Calls use(element, i) for each element. Errors name the list and the index.
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

    // The same for a list whose elements were counted before, for which there is room for `count` and no more. Throws
    // Error where the line has another number of them now.
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

    // Reads an object's members into `reader`: each at most once, none that isn't in the table, all that are required.
    template <class Reader, std::size_t N>
    Seen<N> ReadMembers(simdjson::ondemand::object object, std::array<Member<Reader>, N> const& table, Reader& reader,
                        Value* whole = nullptr) {
        Seen<N> seen;
        std::size_t next = 0;
        for (auto found : object) {
            simdjson::ondemand::field field;
            std::size_t const row = NextMember(std::move(found), field, table, next);
            if (row == N) {
                FailAt(key_, "an unknown member");
            }
            member_ = table[row].name;
            if (seen.Has(row)) {
                FailAt(key_, "is there twice");
            }
            seen.Add(row);
            if (table[row].read) {
                (reader.*table[row].read)(field.value(), table[row]);
            }
        }
        for (std::size_t row = 0; row < N; ++row) {
            if (table[row].need == Need::Required && !seen.Has(row)) {
                member_ = table[row].name;
                FailAt(whole ? whole->raw_json_token().data() : text_.data(), "is missing");
            }
        }
        member_ = {};
        return seen;
    }

    // The second time, for those members that have a place by now.
    template <class Reader, std::size_t N>
    void PlaceMembers(simdjson::ondemand::object object, std::array<Member<Reader>, N> const& table, Reader& reader) {
        std::size_t next = 0;
        for (auto found : object) {
            simdjson::ondemand::field field;
            std::size_t const row = NextMember(std::move(found), field, table, next);
            if (row == N) {
                FailAt(key_, kChanged);
            }
            if (table[row].place) {
                member_ = table[row].name;
                (reader.*table[row].place)(field.value(), table[row]);
            }
        }
        member_ = {};
    }

    // Where a value begins in the line.
    std::uint64_t PositionOf(Value& value) const {
        return static_cast<std::uint64_t>(value.raw_json_token().data() - text_.data());
    }
    // Says what was found where `expected` should have been.
    [[noreturn]] void FailExpecting(Value& value, std::string const& expected);
    [[noreturn]] void Fail(Value& value, std::string const& what);
    // About a member of the line itself.
    [[noreturn]] static void FailMember(std::uint64_t position, std::string_view member, std::string const& what) {
        throw Error(position, std::string(member), what);
    }

private:
    static constexpr char kChanged[] = "the line changed while it was read";

    // The row of the member that comes next, N for an unknown one. Members mostly come in the table's order.
    template <class Found, class Table>
    std::size_t NextMember(Found&& found, simdjson::ondemand::field& field, Table const& table, std::size_t& next) {
        member_ = {};
        Check(std::forward<Found>(found).get(field));
        std::string_view const name = NameOf(field); // ends where the next text is read
        for (std::size_t tried = 0; tried < table.size(); ++tried, ++next) {
            next = next < table.size() ? next : 0;
            if (table[next].name == name) {
                return next++;
            }
        }
        unknown_ = name;
        member_ = unknown_;
        return table.size();
    }

    std::string_view NameOf(simdjson::ondemand::field& field);
    void Check(simdjson::error_code error) {
        if (error != simdjson::SUCCESS) {
            FailSyntax(error);
        }
    }
    // Of a value that may as well be of another type.
    void Expect(simdjson::error_code error, Value& value, char const* expected) {
        if (error != simdjson::SUCCESS) {
            FailExpecting(value, expected);
        }
    }
    // Where the parser stands.
    [[noreturn]] void FailSyntax(simdjson::error_code error);
    [[noreturn]] void FailAt(void const* place, std::string const& what);
    std::string Path() const;

    simdjson::ondemand::parser parser_;
    simdjson::ondemand::document document_;
    std::vector<char> copy_; // of a line that has too little behind it
    std::string_view text_;
    std::string_view list_;     // the list whose element is read, if one is
    std::uint64_t index_ = 0;   // of that element
    std::string_view member_;   // that is read
    char const* key_ = nullptr; // its name in the line
    std::string unknown_;
};

} // namespace crrecord::tool::json
