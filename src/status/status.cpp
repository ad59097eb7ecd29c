// Status texts, the exception, and statuses of error numbers.

#include <crrecord/status.h>

#include "status/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <type_traits>

static_assert(std::is_nothrow_copy_constructible_v<Cr_ErrnoException>);

namespace {

// Stored in the block that a thread has from its start, so that no access allocates; see last_message.cpp.
[[gnu::tls_model("initial-exec")]] constinit thread_local cr_status_t lastStatus = CR_STATUS_OK;

// Copies at most N - 1 characters of a text and a NUL. A text without data is empty.
template <std::size_t N>
void CopyCut(char (&to)[N], std::string_view text) noexcept {
    std::size_t const kept = std::min(text.size(), N - 1);
    std::memcpy(to, text.data() ? text.data() : "", kept);
    to[kept] = '\0';
}

std::string_view ViewOf(char const* text) noexcept {
    return text ? std::string_view(text) : std::string_view();
}

} // namespace

char const* CRStatusToStringA(cr_status_t status) noexcept {
    switch (status) {
    case CR_STATUS_OK: return "success";
    case CR_STATUS_INVALID: return "invalid argument";
    case CR_STATUS_NO_MEMORY: return "not enough memory";
    case CR_STATUS_CORRUPT_RECORD: return "corrupt record";
    case CR_STATUS_NULL_ARGUMENT: return "null argument";
    case CR_STATUS_NOT_SUPPORTED: return "not supported";
    case CR_STATUS_NOT_FOUND: return "not found";
    case CR_STATUS_CORRUPT_DATA: return "corrupt data";
    case CR_STATUS_INVALID_FP_TYPE: return "invalid fingerprint type";
    case CR_STATUS_INVALID_DO_TYPE: return "invalid DO type";
    }
    return "unknown status";
}

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status) noexcept : Cr_ErrnoException(status, nullptr, nullptr) {}

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, char const* text, char const* detail) noexcept
    : status_(status), hasDetail_(detail != nullptr) {
    CopyCut(text_, ViewOf(text));
    CopyCut(detail_, ViewOf(detail));
}

// view() reads the stream's own buffer, where str() would allocate a copy.
Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, std::stringstream const& text, char const* detail) noexcept
    : status_(status), hasDetail_(detail != nullptr) {
    CopyCut(text_, text.view());
    CopyCut(detail_, ViewOf(detail));
}

Cr_ErrnoException::~Cr_ErrnoException() = default;

cr_status_t Cr_ErrnoException::GetStatus() const noexcept {
    return status_;
}

char const* Cr_ErrnoException::what() const noexcept {
    return text_;
}

char const* Cr_ErrnoException::GetDetail() const noexcept {
    return hasDetail_ ? detail_ : nullptr;
}

cr_status_t* __cr_errno_location() noexcept {
    return &lastStatus;
}

// An allocator may fail and leave errno at 0 or at an older value. So every number means that memory is exhausted,
// except those that an allocation function documents for another failure.
cr_status_t _crMapError(char const* function, char const* sourceFile, int line) noexcept {
    int const error = errno;
    cr_status_t const status = error == EINVAL ? CR_STATUS_INVALID : CR_STATUS_NO_MEMORY;
    if (crrecord::TraceOn()) {
        __TraceA("%s (%s:%d): error number %d is status %d", function ? function : "", sourceFile ? sourceFile : "",
                 line, error, static_cast<int>(status));
    }
    errno = error;
    return status;
}
