#include "anatomy/value.h"

#include "io/failure.h"
#include "record/references.h"
#include "record/show_object.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/fingerprint.h>

#include <algorithm>

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

using Bytes = std::span<unsigned char const>;

std::uint64_t NumberOf(Bytes bytes, Order order) {
    switch (bytes.size()) {
    case 1: return bytes[0];
    case 2: return Load<std::uint16_t>(bytes.data(), order);
    case 4: return Load<std::uint32_t>(bytes.data(), order);
    default: return Load<std::uint64_t>(bytes.data(), order);
    }
}

void AppendNumber(fmt::memory_buffer& to, std::uint64_t number) {
    fmt::format_int const digits(number);
    to.append(digits.data(), digits.data() + digits.size());
}

void AppendNamed(fmt::memory_buffer& to, std::uint64_t number, std::string_view name) {
    fmt::format_to(std::back_inserter(to), FMT_COMPILE("{} ({})"), number, name);
}

void AppendReferenceText(fmt::memory_buffer& to, int kind, std::uint64_t id) {
    to.append(std::string_view(ReferenceText({id, static_cast<cr_reftype_t>(kind)}).Get()));
}

// Appends the stored digits of a fingerprint, which end with a NUL.
void AppendText(fmt::memory_buffer& to, Bytes bytes) {
    auto const isDigit = [](unsigned char character) {
        return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f');
    };
    for (unsigned char const character : bytes.first(bytes.size() - 1)) {
        to.push_back(isDigit(character) ? static_cast<char>(character) : '?');
    }
    if (bytes.back() != 0) {
        to.append(std::string_view(" (no NUL after it)"));
    }
}

std::string_view NameOfRecordType(std::uint64_t type) {
    return type == CR_DO_RECORD_TYPE ? "DO record" : type == CR_SO_RECORD_TYPE ? "segment record" : "unknown";
}

} // namespace

void AppendValue(fmt::memory_buffer& to, Format format, Bytes bytes, Order order) {
    auto const number = [=] { return NumberOf(bytes, order); };
    switch (format) {
    case Format::Number: AppendNumber(to, number()); break;
    case Format::Hexadecimal:
        fmt::format_to(std::back_inserter(to), FMT_COMPILE("{} (0x{:0{}x})"), number(), number(), 2 * bytes.size());
        break;
    case Format::Time: AppendNamed(to, number(), TimeText(static_cast<unsigned int>(number()))); break;
    case Format::RecordType: AppendNamed(to, number(), NameOfRecordType(number())); break;
    case Format::DOType:
        AppendNamed(to, bytes[0], CRDOTypeIsValid(bytes[0]) != 0 ? NameOfDOType(bytes[0]) : "unknown");
        break;
    case Format::FingerprintType:
        AppendNamed(to, bytes[0], CRFPTypeIsValid(bytes[0]) != 0 ? NameOfFingerprint(bytes[0]) : "unknown");
        break;
    case Format::Container:
        to.append(std::string_view("container "));
        AppendNumber(to, number());
        break;
    case Format::TaskId: AppendReferenceText(to, CR_REFTYPE_TASKID, number()); break;
    case Format::Dsid: AppendReferenceText(to, CR_REFTYPE_DSID, number()); break;
    case Format::Digits: AppendHex(to, bytes); break;
    case Format::Text: AppendText(to, bytes); break;
    case Format::Zeros: {
        bool const zeros = std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
        to.append(std::string_view(zeros ? "zeros" : "not zeros"));
        break;
    }
    case Format::References: // each has a separate row
    case Format::Opaque: to.append(Counted(bytes.size(), "byte")); break;
    }
}

std::uint64_t AppendReference(fmt::memory_buffer& to, Bytes bytes) {
    _cr_tref_t reference{};
    std::uint64_t const taken = DecodeReference(bytes.data(), bytes.size(), reference);
    if (taken == 0) {
        to.append(std::string_view("no typed reference"));
        return bytes.size();
    }
    AppendReferenceText(to, reference.kind, reference.id);
    return taken;
}

} // namespace crrecord::tool
