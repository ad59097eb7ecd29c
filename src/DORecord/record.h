// Declarations shared by the sources of DORecord.

#pragma once

#include <crrecord/DORecord.h>

#include "support/layout/unique_list.h"
#include "support/validate/segment_list_check.h"
#include "tref/inline_id.h"

#include <string_view>

namespace crrecord {

[[noreturn]] inline void Refuse(char const* text) {
    throw Cr_ErrnoException(CR_STATUS_INVALID, text, nullptr);
}

inline constexpr char kInvalidRecordSize[] = "invalid record size for DO";

[[noreturn]] inline void RefuseLegacyArrays() {
    Refuse("Cannot construct a DORecord that does not own its internal buffer but has old task id and dsid "
           "references.");
}

// Throws: CR_STATUS_CORRUPT_DATA with the message of `fault`, unless its code is 0.
void ThrowIfFaulty(SegmentFault const& fault, unsigned int dotype);

// Checked arguments of a new record (construction.cpp).
struct NewRecord;

// The private operations of DORecord. Its header declares this friend only, so that they can change freely.
struct RecordInternals {
    // The end of a section, as a member of the layout.
    typedef std::uint64_t RecordLayout::*SectionEnd;

    // ChangeableLayout is for operations that change or use sizes: it also requires the order of IsInNetworkOrder().
    // Returns: the layout of a record whose sections up to `end` are inside the buffer.
    // Throws: CR_STATUS_INVALID "invalid record size for DO".
    static RecordLayout CheckedLayout(DORecord const& record, SectionEnd end);
    static RecordLayout ChangeableLayout(DORecord const& record, SectionEnd end);
    // Returns: the tail's offset in a ChangeableLayout up to the tail. Throws: as ChangeableLayout.
    static std::uint64_t ChangeableTail(DORecord const& record);
    static bool OrderMatchesHeader(DORecord const& record) noexcept;
    static bool Reaches(DORecord const& record, RecordLayout const& layout, SectionEnd end) noexcept;
    // Returns: the address of `width` bytes at `offset`.
    // Throws: as CheckedLayout if they are not inside the buffer.
    static unsigned char* WritableElement(DORecord& record, std::uint64_t offset, unsigned int width);

    static void MakeBlank(DORecord& record) noexcept;
    static void AllocateBuffer(DORecord& record, std::uint64_t size, bool zeroed);
    static void WriteHeader(DORecord& record, NewRecord const& values) noexcept;
    static void Finish(DORecord& record, NewRecord const& values, unsigned char const* list);
    static void Adopt(DORecord& record, Order order, unsigned int options);
    static void Convert(DORecord& record, Order order, unsigned int options);
    static void Clear(DORecord& record, std::uint64_t from, std::uint64_t to) noexcept;

    static void WriteText(DORecord const& record, std::ostream& stream);
    static void WriteBytes(DORecord const& record, std::ostream& stream);

    static void GrowReferences(DORecord& record, std::uint64_t tail, std::uint64_t by);
    static void ShrinkReferences(DORecord& record, std::uint64_t by);
    static void WriteReferences(DORecord const& record, RecordLayout const& layout) noexcept;
    // Adds the sizes of new references to `loaded`, even if it throws.
    static void LoadReferences(DORecord& record, char const* bytes, std::uint64_t length, std::uint64_t& loaded);
    static cr_status_t CheckReference(DORecord const& record, _cr_tref_t const& reference);
    static unsigned long DeleteReference(DORecord& record, _cr_tref_t const& reference);
    static unsigned long RemoveTaskIDs(DORecord& record, cr_task_callback_t callback, void* context);

    static cr_status_t GrowForList(DORecord& record, std::uint64_t entries) noexcept;
    static void WriteUniqueList(DORecord& record, UniqueEntry const* entries, std::uint32_t count,
                                RecordLayout const& layout) noexcept;
};

} // namespace crrecord
