// Formats of buffers, as in the struct module and PEP 3118.

#include "format.h"

#include <bit>
#include <charconv>

namespace crrecord::python {

namespace {

struct NumberType {
    char code;
    unsigned char nativeWidth;
    unsigned char standardWidth; // 0 if the type is native only
    bool isUnsigned;
};

constexpr NumberType kNumbers[] = {
    {'h', 2, 2, false},
    {'H', 2, 2, true},
    {'i', 4, 4, false},
    {'I', 4, 4, true},
    {'l', sizeof(long), 4, false},
    {'L', sizeof(long), 4, true},
    {'q', 8, 8, false},
    {'Q', 8, 8, true},
    {'n', sizeof(long), 0, false},
    {'N', sizeof(long), 0, true},
    {'e', 2, 2, false},
    {'f', 4, 4, false},
    {'d', 8, 8, false},
};

class FormatParser {
public:
    explicit FormatParser(std::string_view format) : rest_(format) {}

    std::optional<std::vector<FormatField>> Parse() {
        bool const isStructure = take("T{");
        while (!rest_.empty() && rest_ != "}") {
            if (!item()) {
                return std::nullopt;
            }
        }
        if (isStructure != (rest_ == "}")) {
            return std::nullopt;
        }
        return std::move(fields_);
    }

private:
    bool take(std::string_view text) {
        bool const found = rest_.starts_with(text);
        rest_.remove_prefix(found ? text.size() : 0);
        return found;
    }

    bool number(unsigned long& value) {
        auto const [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        constexpr unsigned long kMost = 1 << 20;
        bool const good = error == std::errc() && value <= kMost;
        rest_.remove_prefix(good ? static_cast<std::size_t>(end - rest_.data()) : 0);
        return good;
    }

    void order() {
        for (; !rest_.empty() && std::string_view("@=<>!^ ").find(rest_[0]) != std::string_view::npos;
             rest_.remove_prefix(1)) {
            order_ = rest_[0] == ' ' ? order_ : rest_[0];
        }
    }

    // A shape such as (16), a count, a type and a name, of which all but the type may be missing.
    bool item() {
        order();
        unsigned long count = 1;
        if (take("(") && (!number(count) || !take(")"))) {
            return false;
        }
        order();
        if (unsigned long repeat = 1; number(repeat)) {
            count *= repeat;
        }
        if (rest_.empty() || !add(rest_[0], count)) {
            return false;
        }
        rest_.remove_prefix(1);
        if (take(":")) {
            std::size_t const end = rest_.find(':');
            if (end == std::string_view::npos) {
                return false;
            }
            fields_.back().name = rest_.substr(0, end);
            rest_.remove_prefix(end + 1);
        }
        return true;
    }

    bool add(char code, unsigned long count) {
        constexpr std::size_t kMostFields = 16; // more than any buffer has that is accepted
        if (std::string_view("?bBcsx").find(code) != std::string_view::npos) {
            bool const joins = !fields_.empty() && fields_.back().isBytes && fields_.back().name.empty();
            if (joins) {
                fields_.back().width += count;
            } else {
                fields_.push_back({true, position_, count, false, false, ""});
            }
            position_ += count;
            return true;
        }
        for (NumberType const& type : kNumbers) {
            bool const isNative = order_ == '@' || order_ == '^';
            unsigned long const width = isNative ? type.nativeWidth : type.standardWidth;
            if (type.code != code || width == 0) {
                continue;
            }
            if (count == 0 || fields_.size() + count > kMostFields) {
                return false;
            }
            if (order_ == '@') {
                position_ = (position_ + width - 1) / width * width;
            }
            bool const isNetworkOrder =
                order_ == '>' || order_ == '!' || (order_ != '<' && std::endian::native == std::endian::big);
            for (unsigned long i = 0; i < count; ++i, position_ += width) {
                fields_.push_back({false, position_, width, type.isUnsigned, isNetworkOrder, ""});
            }
            return true;
        }
        return false;
    }

    std::string_view rest_;
    char order_ = '@';
    unsigned long position_ = 0;
    std::vector<FormatField> fields_;
};

} // namespace

std::optional<std::vector<FormatField>> ParseFormat(std::string_view format) {
    return FormatParser(format).Parse();
}

} // namespace crrecord::python
