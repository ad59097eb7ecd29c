// Task ids and data selections, and the conversion of the arrays in which older records carry them.

#include "DORecord/record.h"

#include <vector>

using namespace crrecord;

namespace {

bool Contains(DORecord::tref_set_t const& set, Cr_TRef* handle) {
    return set.contains(DORecord::tref_ptr_t(handle));
}

template <class T>
std::vector<T> ReadArray(unsigned char const* from, std::uint64_t count) {
    std::vector<T> values(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        values[i] = Load<T>(from + i * sizeof(T));
    }
    return values;
}

} // namespace

int DORecord::AddTaskID(unsigned long taskId) {
    return OwnTRef(tref_ptr_t(new Cr_TRef(taskId)));
}

int DORecord::AddTaskID(unsigned long taskId, cr_task_callback_t callback, void* context) {
    if (!callback || callback(taskId, context) == 0) {
        return CR_STATUS_INVALID;
    }
    RemoveInactiveTaskIDs(callback, context);
    int const result = AddTRef(tref_ptr_t(new Cr_TRef(taskId)));
    handleUpdate();
    return result;
}

unsigned long DORecord::RemoveInactiveTaskIDs(cr_task_callback_t callback, void* context) {
    if (!callback) {
        Refuse("NULL reference");
    }
    return removeTaskIDs(callback, context);
}

void DORecord::RemoveAllTaskIDs() {
    RemoveAllTRefs();
}

bool DORecord::HasTaskID(unsigned long taskId) const {
    return Contains(trefs[CR_REFTYPE_TASKID], new Cr_TRef(taskId));
}

int DORecord::AddDSID(unsigned int dsid) {
    return OwnTRef(tref_ptr_t(new Cr_TRef(dsid)));
}

unsigned long DORecord::DelDSID(unsigned int dsid) {
    return DelTRef(tref_ptr_t(new Cr_TRef(dsid)));
}

bool DORecord::HasDSID(unsigned int dsid) const {
    return Contains(trefs[CR_REFTYPE_DSID], new Cr_TRef(dsid));
}

// Everything is read before the first byte moves.
void DORecord::convertToTRefs() {
    std::uint64_t const taskIds = header->ntaskid;
    std::uint64_t const dsids = header->nds;
    bool const legacy = taskIds != 0 || dsids != 0;
    if (!ownsBuffer && legacy) {
        RefuseLegacyArrays();
    }
    unsigned int const references = getTRefsSize();
    if (references != 0 && legacy) {
        throw Cr_ErrnoException(CR_STATUS_NOT_SUPPORTED,
                                "Record with both old references and new typed references not supported.", nullptr);
    }
    RecordLayout const before = changeableLayoutUpTo(&RecordLayout::tail);
    auto const tasks = ReadArray<std::uint64_t>(BytesOf(header) + before.taskIds, taskIds);
    auto const selections = ReadArray<std::uint32_t>(BytesOf(header) + before.dsids, dsids);

    header->ntaskid = 0;
    header->nds = 0;
    initReferenceSets();
    unsigned int const mtime = header->mtime;
    AddSerializedTRefs(reinterpret_cast<char const*>(BytesOf(header) + before.trefs), references);
    header->mtime = mtime;
    for (std::uint64_t const task : tasks) {
        AddTaskID(task);
    }
    // Both gaps are closed by the size of the task ids. What moves is written anew when the references are asked for.
    std::uint64_t const gap = kLegacyTaskIdSize * taskIds;
    if (taskIds != 0) {
        closeLegacyGap(before.total, gap);
    }
    for (std::uint32_t const selection : selections) {
        AddDSID(selection);
    }
    if (dsids != 0) {
        closeLegacyGap(before.total, gap);
    }
    if (legacy) {
        handleUpdate();
    }
    // The sets may have held references before.
    setTRefsSize(static_cast<unsigned int>(calcTRefsSize()));
    setRecSize(calcRecSize());
    expand();
    clear(LayoutOf(header).tail, getRecSize());
}

// Moves the bytes from `distance` behind the start of the former arrays, up to `end`, down by `distance`.
void DORecord::closeLegacyGap(std::uint64_t end, std::uint64_t distance) noexcept {
    std::uint64_t const start = LayoutOf(header).taskIds;
    unsigned char* const bytes = BytesOf(header);
    if (end > start + distance && end <= bufferSize) {
        std::memmove(bytes + start, bytes + start + distance, end - start - distance);
    }
}
