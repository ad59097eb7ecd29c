// Operations of typed references.

#include "tref/pool.h"
#include "tref/value.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <string_view>

namespace crrecord {

namespace {

_cr_tref_t* Fail(cr_status_t status) noexcept {
    *__cr_errno_location() = status;
    return nullptr;
}

_cr_tref_t* Make(_cr_tref_t const& value) noexcept {
    void* const chunk = TakeChunk();
    return chunk ? new (chunk) _cr_tref_t(value) : Fail(CR_STATUS_NO_MEMORY);
}

// The text form of a reference, with its buffer.
class ReferenceText {
public:
    explicit ReferenceText(_cr_tref_t const& reference) noexcept {
        switch (reference.kind) {
        case CR_REFTYPE_TASKID: Append("task"); break;
        case CR_REFTYPE_DSID: Append("dsid"); break;
        default: Append("ref"); Append(static_cast<unsigned long>(reference.kind));
        }
        Append(":");
        Append(reference.id);
    }

    std::string_view View() const noexcept { return {text_, static_cast<std::size_t>(end_ - text_)}; }

private:
    void Append(std::string_view text) noexcept { end_ = std::copy(text.begin(), text.end(), end_); }
    void Append(unsigned long number) noexcept { end_ = std::to_chars(end_, text_ + sizeof text_, number).ptr; }

    char text_[48]; // "ref", two numbers of at most 20 digits, and a colon
    char* end_ = text_;
};

// Reads decimal digits without leading zeros, sign or blanks, so that each value has one text.
bool ParseNumber(std::string_view text, unsigned long& number) noexcept {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && (text.size() == 1 || text[0] != '0');
}

bool ParseKind(std::string_view name, int& kind) noexcept {
    unsigned long number = 0;
    if (name == "task") {
        kind = CR_REFTYPE_TASKID;
    } else if (name == "dsid") {
        kind = CR_REFTYPE_DSID;
    } else if (name.starts_with("ref") && ParseNumber(name.substr(3), number) && number < kReferenceKinds &&
               number != CR_REFTYPE_TASKID && number != CR_REFTYPE_DSID) {
        kind = static_cast<int>(number);
    } else {
        return false;
    }
    return true;
}

unsigned long ParseReference(char const* text, unsigned long available, _cr_tref_t& reference) noexcept {
    std::string_view const whole(text, strnlen(text, available));
    std::size_t const colon = whole.find(':');
    int kind = 0;
    if (colon == whole.npos || !ParseKind(whole.substr(0, colon), kind) ||
        !ParseNumber(whole.substr(colon + 1), reference.id) || !ReferenceIdIsValid(kind, reference.id)) {
        return 0;
    }
    reference.kind = static_cast<cr_reftype_t>(kind);
    return whole.size();
}

} // namespace

} // namespace crrecord

_cr_tref_t* CRTRefNew(cr_reftype_t kind, unsigned long id) noexcept {
    if (!crrecord::ReferenceKindIsValid(kind) || !crrecord::ReferenceIdIsValid(kind, id)) {
        return crrecord::Fail(CR_STATUS_INVALID);
    }
    return crrecord::Make({id, kind});
}

_cr_tref_t* CRTRefNewDeserialize(void const* source, unsigned long available, int form,
                                 unsigned long* consumed) noexcept {
    _cr_tref_t value{};
    unsigned long taken = 0;
    if (source) {
        taken = form == CR_TREF_TEXT
                    ? crrecord::ParseReference(static_cast<char const*>(source), available, value)
                    : crrecord::DecodeReference(static_cast<unsigned char const*>(source), available, value);
    }
    _cr_tref_t* const reference = taken != 0 ? crrecord::Make(value) : crrecord::Fail(CR_STATUS_CORRUPT_RECORD);
    if (consumed) {
        *consumed = reference ? taken : 0;
    }
    return reference;
}

void CRTRefDelete(_cr_tref_t** reference) noexcept {
    if (reference && *reference) {
        crrecord::ReturnChunk(*reference);
        *reference = nullptr;
    }
}

cr_reftype_t CRTRefGetType(_cr_tref_t const* reference) noexcept {
    return reference->kind;
}

unsigned long CRTRefGetID(_cr_tref_t const* reference) noexcept {
    return reference->id;
}

unsigned long CRTRefGetTaskID(_cr_tref_t const* reference) noexcept {
    return reference->id;
}

int CRTRefCompare(_cr_tref_t const* a, _cr_tref_t const* b) noexcept {
    return crrecord::CompareReferences(*a, *b);
}

int CRTRefEqual(_cr_tref_t const* a, _cr_tref_t const* b) noexcept {
    return crrecord::CompareReferences(*a, *b) == 0;
}

unsigned long CRTRefSerializedSize(_cr_tref_t const* reference, int form) noexcept {
    return form == CR_TREF_TEXT ? crrecord::ReferenceText(*reference).View().size() + 1
                                : crrecord::ReferenceSize(reference->kind);
}

unsigned long CRTRefSerialize(void* destination, unsigned long available, _cr_tref_t const* reference,
                              int form) noexcept {
    using namespace crrecord;
    if (form == CR_TREF_TEXT) {
        unsigned long const length = ReferenceText(*reference).View().size();
        if (available <= length) {
            return 0;
        }
        CRTRefToString(static_cast<char*>(destination), available, reference);
        return length;
    }
    return EncodeReference(static_cast<unsigned char*>(destination), available, *reference);
}

char* CRTRefToString(char* text, unsigned long size, _cr_tref_t const* reference) noexcept {
    if (text && size != 0) {
        std::size_t const kept = reference ? crrecord::ReferenceText(*reference).View().copy(text, size - 1)
                                           : std::string_view("null").copy(text, size - 1);
        text[kept] = '\0';
    }
    return text;
}
