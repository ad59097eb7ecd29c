// Columns of a batch of rows, in the layout of Arrow.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace crrecord::python::columns {

// Bytes that grow, aligned to 64 and with a capacity that is a multiple of it.
class ColumnBytes {
public:
    unsigned char const* Data() const noexcept { return bytes_.get(); }
    std::size_t Size() const noexcept { return size_; }
    // Returns: `size` new bytes at the end, which are not initialised.
    // Throws: std::bad_alloc.
    unsigned char* Extend(std::size_t size);

private:
    void Grow(std::size_t capacity);

    struct Free {
        void operator()(unsigned char* bytes) const noexcept { std::free(bytes); }
    };

    std::unique_ptr<unsigned char, Free> bytes_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

// What a column has in each row.
enum class Content : unsigned char {
    Number, // an unsigned number of `width` bytes
    Bytes,  // `width` bytes
    Text,   // a text
    List,   // a list of unsigned numbers of `width` bytes
};

// The type of a column.
struct ColumnType {
    char const* name;
    Content content;
    unsigned int width;
    bool isNullable = false;

    // The formats of the Arrow C data interface, for the column and for the elements of a list.
    char const* Format() const noexcept;
    char const* ElementFormat() const noexcept;
};

// A column under construction, and afterwards. Each call adds a row, unless stated otherwise.
class Column {
public:
    explicit Column(ColumnType const& type);

    void AddNumber(std::uint64_t value) { Store(AddRows(1), value); }
    void AddBytes(unsigned char const* bytes) { std::memcpy(AddRows(1), bytes, type_->width); }
    void AddText(std::string_view text);
    void AddNull();
    // Adds an element, and no row, to a list; EndList adds the row with the elements since the row before it.
    void AddElement(std::uint64_t value) { Store(values_.Extend(type_->width), value); }
    void EndList();
    // Adds `rows` rows, which are all null or none of which is.
    // Returns: their `rows` * width bytes, which the caller writes, for numbers and bytes.
    unsigned char* AddRows(std::size_t rows, bool areNull = false);

    ColumnType const& Type() const noexcept { return *type_; }
    std::size_t Rows() const noexcept { return rows_; }
    std::size_t Nulls() const noexcept { return nulls_; }
    // One bit for each row, 0 for a null; null if no row is null.
    unsigned char const* Validity() const noexcept { return nulls_ != 0 ? validity_.Data() : nullptr; }
    // Of texts and lists: 32-bit numbers, one more than rows; the row is from its number to the next. In bytes of
    // Values() for texts, in elements for lists.
    ColumnBytes const& Offsets() const noexcept { return offsets_; }
    ColumnBytes const& Values() const noexcept { return values_; }

private:
    void Store(unsigned char* to, std::uint64_t value) const noexcept; // cut to the width
    void MarkRows(std::size_t rows, bool areNull);
    void EndRow(); // of a text or a list

    ColumnType const* type_;
    std::size_t rows_ = 0;
    std::size_t nulls_ = 0;
    ColumnBytes validity_, offsets_, values_;
};

// Rows of a table.
struct Batch {
    explicit Batch(std::span<ColumnType const> types) : columns(types.begin(), types.end()) {}
    std::size_t Rows() const noexcept { return columns.front().Rows(); }

    std::vector<Column> columns;
};

} // namespace crrecord::python::columns
