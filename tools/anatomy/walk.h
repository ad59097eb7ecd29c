// The rows of a record. Each byte is in one row. Memory: constant.

#pragma once

#include "anatomy/sections.h"
#include "anatomy/value.h"
#include "io/append_formatted.h"
#include "io/failure.h"

#include <algorithm>

namespace crrecord::tool {

// A field, or the part of it that is present. A row without bytes reports missing bytes. The texts are valid until the
// next row.
struct Row {
    std::string_view section;
    std::string_view field; // path, as in findings: segments[17].offset
    std::string_view value;
    std::uint64_t offset; // in the record
    std::span<unsigned char const> bytes;
};

// Calls visit(Row const&) in the order of the bytes.
template <class Visit>
class RowWalk {
public:
    RowWalk(Record const& record, Visit visit)
        : bytes_(record.bytes, record.size), order_(StoredOrder(record)), visit_(visit) {}

    void WalkSection(Section const& section) {
        name_ = section.name;
        at_ = section.offset;
        end_ = section.offset + section.size;
        for (Field const& field : section.fields) {
            path_.clear();
            path_.append(field.name);
            if (field.format == Format::References) {
                VisitReferences();
            } else {
                VisitField(field);
            }
        }
        for (std::uint64_t i = 0; at_ != end_ && !section.element.empty(); ++i) {
            StartElement(section.elements, i);
            VisitElement(section.element);
        }
        if (section.missing != 0) {
            path_.clear();
            value_.clear();
            AppendFormatted(value_, "missing {} of {}", Counted(section.missing, "byte"), name_);
            Give(0);
        }
    }

private:
    // "name[i]"
    void StartElement(std::string_view name, std::uint64_t i) {
        fmt::format_int const index(i);
        path_.clear();
        path_.append(name);
        path_.push_back('[');
        path_.append(index.data(), index.data() + index.size());
        path_.push_back(']');
    }

    void VisitElement(std::vector<Field> const& fields) {
        std::size_t const start = path_.size();
        for (Field const& field : fields) {
            path_.resize(start);
            if (!field.name.empty()) {
                path_.push_back('.');
                path_.append(field.name);
            }
            VisitField(field);
        }
    }

    void VisitField(Field const& field) {
        std::uint64_t const there = std::min(field.width, end_ - at_);
        if (there == 0) {
            return;
        }
        value_.clear();
        if (there < field.width && field.format != Format::Opaque) {
            AppendFormatted(value_, "cut off: {} of {}", there, Counted(field.width, "byte"));
        } else {
            AppendValue(value_, field.format, bytes_.subspan(at_, there), field.swapped ? order_ : Order::Host);
        }
        Give(there);
    }

    void VisitReferences() {
        std::string const name(path_.data(), path_.size());
        for (std::uint64_t i = 0; at_ != end_; ++i) {
            StartElement(name, i);
            value_.clear();
            Give(AppendReference(value_, bytes_.subspan(at_, end_ - at_)));
        }
    }

    void Give(std::uint64_t size) {
        visit_(
            Row{name_, {path_.data(), path_.size()}, {value_.data(), value_.size()}, at_, bytes_.subspan(at_, size)});
        at_ += size;
    }

    std::span<unsigned char const> bytes_;
    Order order_;
    Visit visit_;
    std::string_view name_;
    std::uint64_t at_ = 0;
    std::uint64_t end_ = 0;
    fmt::memory_buffer path_;
    fmt::memory_buffer value_;
};

template <class Visit>
void Walk(Record const& record, Visit visit) {
    RowWalk<Visit> walk(record, visit);
    for (Section const& section : Sections(record)) {
        walk.WalkSection(section);
    }
}

} // namespace crrecord::tool
