// Typed references: the sets, and their section in the buffer.

#include "DORecord/record.h"

#include "status/trace.h"
#include "tref/pool.h"

#include <cassert>
#include <functional>

using namespace crrecord;

namespace {

constexpr char kNullReference[] = "NULL reference";

class TextOf {
public:
    explicit TextOf(_cr_tref_t const* reference) noexcept { CRTRefToString(text_, sizeof text_, reference); }
    char const* Get() const noexcept { return text_; }

private:
    char text_[CR_TREF_TEXT_SIZE];
};

_cr_tref_t const* NotNull(DORecord::tref_ptr_t const& reference) {
    if (!reference || !reference->Get()) {
        Refuse(kNullReference);
    }
    return reference->Get();
}

// Throws: CR_STATUS_INVALID with the last logged message.
[[noreturn]] void RefuseAsLogged() {
    Refuse(zebLogLastMessageA());
}

[[noreturn]] void RefuseKind(_cr_tref_t const* reference) {
    ErrorA(CR_STATUS_INVALID, "The type of reference %s is unsupported for a DO", TextOf(reference).Get());
    RefuseAsLogged();
}

constexpr bool CanAdd(int kind) noexcept {
    return kind == CR_REFTYPE_TASKID || kind == CR_REFTYPE_DSID || kind == 6 || kind == 9;
}

// Kind 8 can be deleted although it can never be added.
constexpr bool CanDelete(int kind) noexcept {
    return CanAdd(kind) || kind == 8;
}

// Takes ownership of `value`, also on failure.
// Returns: a handle; the last handle releases the value.
DORecord::tref_ptr_t Wrapped(_cr_tref_t* value) {
    try {
        return new Cr_TRef(value);
    } catch (...) {
        CRTRefDelete(&value);
        throw;
    }
}

[[noreturn]] void ThrowUndecoded(cr_status_t status, std::uint64_t offset) {
    *__cr_errno_location() = status;
    if (TraceOn()) {
        __TraceA("Invalid DO record: invalid typed reference at offset %lu from start of typed reference section: %s",
                 offset, CRStatusToStringA(status));
    }
    throw Cr_ErrnoException(status, "Received a buffer with corrupt typed references.", nullptr);
}

// Every reference of one kind has the same size.
std::uint64_t TotalSize(DORecord::tref_set_t const& set, int kind) noexcept {
    return set.size() * ReferenceSize(kind);
}

} // namespace

int DORecord::OwnTRef(tref_ptr_t reference) {
    _cr_tref_t const* const value = NotNull(reference);
    int const kind = value->kind;
    if (!CanAdd(kind)) {
        RefuseKind(value);
    }
    std::uint64_t const tail = RecordInternals::ChangeableTail(*this);
    auto const [position, inserted] = trefs[kind].insert(std::move(reference));
    try {
        if (inserted) {
            RecordInternals::GrowReferences(*this, tail, ReferenceSize(kind));
        } else {
            expand();
        }
    } catch (...) {
        if (inserted) {
            trefs[kind].erase(position);
        }
        throw;
    }
    handleUpdate();
    return inserted ? 0 : 1;
}

int DORecord::OwnTRef(_cr_tref_t& reference) {
    return OwnTRef(Wrapped(&reference));
}

int DORecord::AddTRef(_cr_tref_t const& reference) {
    return OwnTRef(NewHandle({reference.kind, reference.id}));
}

int DORecord::AddTRef(tref_ptr_t reference) {
    return AddTRef(*NotNull(reference));
}

cr_status_t RecordInternals::CheckReference(DORecord const& record, _cr_tref_t const& reference) {
    int const kind = reference.kind;
    if (kind > CR_REFTYPE_END || kind == 7) {
        return CR_STATUS_OK;
    }
    if (kind != CR_REFTYPE_DSID && kind != 6 && kind != 9) {
        ErrorA(CR_STATUS_INVALID, "%s: The type of reference %s is unsupported for a DO", "CheckTRef",
               TextOf(&reference).Get());
        RefuseAsLogged();
    }
    if (record.trefs[kind].contains(Cr_TRefEntry(reference.id))) {
        return CR_STATUS_OK;
    }
    WarningA(CR_STATUS_NOT_FOUND, "%s: The type of reference %s is not found", "CheckTRef", TextOf(&reference).Get());
    return CR_STATUS_NOT_FOUND;
}

cr_status_t DORecord::CheckTRef(tref_ptr_t reference) const {
    return RecordInternals::CheckReference(*this, *NotNull(reference));
}

cr_status_t DORecord::CheckTRef(_cr_tref_t const* reference) const {
    if (!reference) {
        Refuse(kNullReference);
    }
    return RecordInternals::CheckReference(*this, *reference);
}

unsigned long RecordInternals::DeleteReference(DORecord& record, _cr_tref_t const& reference) {
    int const kind = reference.kind;
    if (!CanDelete(kind)) {
        RefuseKind(&reference);
    }
    std::uint64_t const removed = record.trefs[kind].erase(Cr_TRefEntry(reference.id));
    if (removed != 0) {
        ShrinkReferences(record, ReferenceSize(kind));
    }
    record.handleUpdate();
    return removed;
}

unsigned long DORecord::DelTRef(tref_ptr_t reference) {
    return RecordInternals::DeleteReference(*this, *NotNull(reference));
}

// Unlike CheckTRef, accepts a null pointer: it removes no reference and returns 0.
unsigned long DORecord::DelTRef(_cr_tref_t const* reference) {
    return reference ? RecordInternals::DeleteReference(*this, *reference) : 0;
}

void DORecord::ClearTRefType(cr_reftype_t kind) {
    if (!ReferenceKindIsValid(kind)) {
        return;
    }
    std::uint64_t const size = TotalSize(trefs[kind], kind);
    trefs[kind].clear();
    RecordInternals::ShrinkReferences(*this, size);
}

void DORecord::RemoveAllTRefs() {
    RecordInternals::RemoveTaskIDs(
        *this, [](unsigned long, void*) { return 0; }, nullptr);
}

// Removes the task ids for which the callback returns 0. The size is reduced before the id is removed: callers rely on
// this if reducing the size fails.
unsigned long RecordInternals::RemoveTaskIDs(DORecord& record, cr_task_callback_t callback, void* context) {
    DORecord::tref_set_t& tasks = record.trefs[CR_REFTYPE_TASKID];
    unsigned long removed = 0;
    for (auto position = tasks.begin(); position != tasks.end();) {
        [[maybe_unused]] std::size_t const before = tasks.size();
        bool const active = callback(position->Id(), context) != 0;
        assert(tasks.size() == before);
        if (active) {
            ++position;
            continue;
        }
        ShrinkReferences(record, ReferenceSize(CR_REFTYPE_TASKID));
        position = tasks.erase(position);
        ++removed;
    }
    record.handleUpdate();
    return removed;
}

unsigned long DORecord::GetTRefTypeTotalSize(cr_reftype_t kind) const {
    return ReferenceKindIsValid(kind) ? TotalSize(trefs[kind], kind) : 0;
}

unsigned long DORecord::calcTRefsSize() const {
    std::uint64_t size = 0;
    for (int kind = 0; kind < kReferenceKinds; ++kind) {
        size += TotalSize(trefs[kind], kind);
    }
    return size;
}

unsigned int DORecord::GetNTRefs() const {
    std::size_t count = 0;
    for (tref_set_t const& set : trefs) {
        count += set.size();
    }
    return static_cast<unsigned int>(count);
}

unsigned int DORecord::GetNTRefs(cr_reftype_t kind) const {
    return ReferenceKindIsValid(kind) ? static_cast<unsigned int>(trefs[kind].size()) : 0;
}

unsigned int DORecord::GetNtaskid() const {
    return GetNTRefs(CR_REFTYPE_TASKID);
}

unsigned int DORecord::GetNds() const {
    return GetNTRefs(CR_REFTYPE_DSID);
}

DORecord::tref_set_t::const_iterator DORecord::GetTRefTypeBegin(cr_reftype_t kind) const {
    return ReferenceKindIsValid(kind) ? trefs[kind].begin() : trefs[0].end();
}

DORecord::tref_set_t::const_iterator DORecord::GetTRefTypeEnd(cr_reftype_t kind) const {
    return ReferenceKindIsValid(kind) ? trefs[kind].end() : trefs[0].end();
}

unsigned long DORecord::GetSerializedTRefsSize() const {
    return getTRefsSize();
}

// Skips references that are already stored, so that GetHeader of an unchanged record does not write to the buffer.
void RecordInternals::WriteReferences(DORecord const& record, RecordLayout const& layout) noexcept {
    unsigned char* position = BytesOf(record.header) + layout.trefs;
    std::uint64_t available = layout.tail - layout.trefs;
    for (int kind = 0; kind < kReferenceKinds; ++kind) {
        for (Cr_TRefEntry const& entry : record.trefs[kind]) {
            _cr_tref_t const value{entry.Id(), static_cast<cr_reftype_t>(kind)};
            _cr_tref_t stored{};
            unsigned long size = DecodeReference(position, available, stored);
            if (size == 0 || CompareReferences(stored, value) != 0) {
                size = EncodeReference(position, available, value);
            }
            position += size;
            available -= size;
        }
    }
}

char* DORecord::GetSerializedTRefs() const {
    if (GetNTRefs() == 0) {
        return reinterpret_cast<char*>(DORecordHeaderStartTRefs(header));
    }
    RecordLayout const layout = RecordInternals::CheckedLayout(*this, &RecordLayout::tail);
    RecordInternals::WriteReferences(*this, layout);
    return reinterpret_cast<char*>(BytesOf(header) + layout.trefs);
}

DORecordHeader* DORecord::GetHeader() const {
    GetSerializedTRefs();
    return header;
}

// `bytes` may point into the record's own buffer. It is then adjusted if expand() moves the buffer, and no byte is
// cleared before all references are read.
void DORecord::AddSerializedTRefs(char const* bytes, unsigned int length) {
    if (!bytes && length != 0) {
        Refuse(kNullReference);
    }
    RecordInternals::ChangeableLayout(*this, &RecordLayout::tail);
    std::uint64_t const size = std::uint64_t{getRecSize()} + length;
    if (size > kLargestRecord || std::uint64_t{getTRefsSize()} + length > kLargestRecord ||
        getRecSize() < CR_DO_RECORD_SIZE) {
        Refuse(kInvalidRecordSize);
    }
    auto const* const own = reinterpret_cast<char const*>(header);
    bool const isOwn = std::greater_equal<>()(bytes, own) && std::less<>()(bytes, own + bufferSize);
    std::ptrdiff_t const place = isOwn ? bytes - own : 0;
    expand(static_cast<unsigned int>(size));
    std::uint64_t loaded = 0;
    auto const account = [&] {
        setTRefsSize(static_cast<unsigned int>(getTRefsSize() + loaded));
        setRecSize(static_cast<unsigned int>(getRecSize() + loaded));
        RecordInternals::Clear(*this, LayoutOf(header).tail, getRecSize());
    };
    try {
        RecordInternals::LoadReferences(*this, isOwn ? reinterpret_cast<char const*>(header) + place : bytes, length,
                                        loaded);
    } catch (...) {
        account();
        throw;
    }
    account();
    handleUpdate();
}

// Inserts at the end of the set as a hint. Records store references in order, so a section is loaded in linear time.
void RecordInternals::LoadReferences(DORecord& record, char const* bytes, std::uint64_t length, std::uint64_t& loaded) {
    auto const* const section = reinterpret_cast<unsigned char const*>(bytes);
    HandleMaker handles;
    for (std::uint64_t offset = 0; offset < length;) {
        DOReference reference{};
        std::uint64_t const size = DOReferenceDecode(section + offset, length - offset, reference);
        if (size == 0) {
            ThrowUndecoded(CR_STATUS_CORRUPT_RECORD, offset);
        }
        DORecord::tref_ptr_t handle = handles.Make(reference, (length - offset) / size);
        if (!handle) {
            ThrowUndecoded(CR_STATUS_NO_MEMORY, offset);
        }
        DORecord::tref_set_t& set = record.trefs[reference.kind];
        std::size_t const before = set.size();
        set.insert(set.end(), std::move(handle));
        loaded += set.size() != before ? size : 0;
        offset += size;
    }
}
