#include "columns/column.h"

#include <algorithm>
#include <new>

namespace crrecord::python::columns {

namespace {

constexpr std::size_t kAlignment = 64;

constexpr char const* FormatOfNumber(unsigned int width) noexcept {
    switch (width) {
    case 1: return "C";
    case 2: return "S";
    case 4: return "I";
    default: return "L";
    }
}

// Sets the bits from `from` on to `value`, whose bytes exist.
void SetBits(unsigned char* bits, std::size_t from, std::size_t count, bool value) noexcept {
    for (; count != 0 && from % 8 != 0; ++from, --count) {
        auto const bit = static_cast<unsigned char>(1u << from % 8);
        bits[from / 8] = static_cast<unsigned char>(value ? bits[from / 8] | bit : bits[from / 8] & ~bit);
    }
    std::memset(bits + from / 8, value ? 0xff : 0, (count + 7) / 8);
}

} // namespace

unsigned char* ColumnBytes::Extend(std::size_t size) {
    if (size > capacity_ - size_) {
        Grow(std::max(size_ + size, 2 * capacity_));
    }
    unsigned char* const added = bytes_.get() + size_;
    size_ += size;
    return added;
}

void ColumnBytes::Grow(std::size_t capacity) {
    std::size_t const rounded = (capacity + kAlignment - 1) / kAlignment * kAlignment;
    std::unique_ptr<unsigned char, Free> larger(static_cast<unsigned char*>(std::aligned_alloc(kAlignment, rounded)));
    if (!larger) {
        throw std::bad_alloc();
    }
    if (size_ != 0) {
        std::memcpy(larger.get(), bytes_.get(), size_);
    }
    bytes_ = std::move(larger);
    capacity_ = rounded;
}

char const* ColumnType::Format() const noexcept {
    switch (content) {
    case Content::Number: return FormatOfNumber(width);
    case Content::Bytes: return width == 32 ? "w:32" : "w:33"; // fingerprints and keys
    case Content::Text: return "u";
    default: return "+l";
    }
}

char const* ColumnType::ElementFormat() const noexcept {
    return FormatOfNumber(width);
}

Column::Column(ColumnType const& type) : type_(&type) {
    if (type.content == Content::Text || type.content == Content::List) {
        EndRow(); // the first row starts at 0
    }
}

void Column::Store(unsigned char* to, std::uint64_t value) const noexcept {
    auto const storeAs = [&](auto narrowed) { std::memcpy(to, &narrowed, sizeof narrowed); };
    switch (type_->width) {
    case 1: return storeAs(static_cast<std::uint8_t>(value));
    case 2: return storeAs(static_cast<std::uint16_t>(value));
    case 4: return storeAs(static_cast<std::uint32_t>(value));
    default: return storeAs(value);
    }
}

void Column::MarkRows(std::size_t rows, bool areNull) {
    rows_ += rows;
    if (!type_->isNullable) {
        return;
    }
    std::size_t const missing = (rows_ + 7) / 8 - validity_.Size();
    unsigned char* const bits = validity_.Extend(missing) + missing - (rows_ + 7) / 8;
    SetBits(bits, rows_ - rows, rows, !areNull);
    nulls_ += areNull ? rows : 0;
}

unsigned char* Column::AddRows(std::size_t rows, bool areNull) {
    MarkRows(rows, areNull);
    unsigned char* const values = values_.Extend(rows * type_->width);
    if (areNull) {
        std::memset(values, 0, rows * type_->width);
    }
    return values;
}

void Column::EndRow() {
    std::size_t const end = values_.Size() / (type_->content == Content::List ? type_->width : 1);
    auto const narrowed = static_cast<std::int32_t>(end);
    std::memcpy(offsets_.Extend(sizeof narrowed), &narrowed, sizeof narrowed);
}

void Column::AddText(std::string_view text) {
    std::memcpy(values_.Extend(text.size()), text.data(), text.size());
    EndList();
}

void Column::EndList() {
    EndRow();
    MarkRows(1, false);
}

void Column::AddNull() {
    if (type_->content == Content::Text || type_->content == Content::List) {
        EndRow();
        MarkRows(1, true);
    } else {
        AddRows(1, true);
    }
}

} // namespace crrecord::python::columns
