// Task ids and DSIDs, and the conversion of the legacy arrays that store them in older records.

#include "DORecord/record.h"

#include "tref/pool.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <vector>

using namespace crrecord;

namespace {

// A copy of a record's legacy arrays, which may be empty, and of the bytes after them.
class LegacyArrays {
public:
    LegacyArrays(unsigned char const* from, unsigned char const* to, std::uint64_t taskIds, std::uint64_t dsids)
        : bytes_(from, to), taskIds_(taskIds), dsids_(dsids) {}

    std::uint64_t TaskId(std::uint64_t i) const noexcept {
        return Load<std::uint64_t>(bytes_.data() + kLegacyTaskIdSize * i);
    }
    std::uint32_t Dsid(std::uint64_t i) const noexcept {
        return Load<std::uint32_t>(bytes_.data() + kLegacyTaskIdSize * taskIds_ + kLegacyDsidSize * i);
    }

    std::vector<unsigned char> const& Bytes() const noexcept { return bytes_; }
    // Moves the bytes towards the start by the size of the task ids: once if there are task ids, and once more if there
    // are DSIDs.
    std::vector<unsigned char> const& CloseGaps() noexcept {
        for (std::uint64_t const count : {taskIds_, dsids_}) {
            if (count != 0) {
                std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(kLegacyTaskIdSize * taskIds_), bytes_.end(),
                          bytes_.begin());
            }
        }
        return bytes_;
    }

private:
    std::vector<unsigned char> bytes_;
    std::uint64_t taskIds_;
    std::uint64_t dsids_;
};

} // namespace

int DORecord::AddTaskID(unsigned long taskId) {
    return OwnTRef(NewHandle({CR_REFTYPE_TASKID, taskId}));
}

int DORecord::AddTaskID(unsigned long taskId, cr_task_callback_t callback, void* context) {
    if (!callback || callback(taskId, context) == 0) {
        return CR_STATUS_INVALID;
    }
    RemoveInactiveTaskIDs(callback, context);
    return AddTaskID(taskId);
}

unsigned long DORecord::RemoveInactiveTaskIDs(cr_task_callback_t callback, void* context) {
    if (!callback) {
        Refuse("NULL reference");
    }
    return RecordInternals::RemoveTaskIDs(*this, callback, context);
}

void DORecord::RemoveAllTaskIDs() {
    RemoveAllTRefs();
}

bool DORecord::HasTaskID(unsigned long taskId) const {
    return trefs[CR_REFTYPE_TASKID].contains(Cr_TRefEntry(taskId));
}

int DORecord::AddDSID(unsigned int dsid) {
    return OwnTRef(NewHandle({CR_REFTYPE_DSID, dsid}));
}

unsigned long DORecord::DelDSID(unsigned int dsid) {
    return RecordInternals::DeleteReference(*this, {dsid, CR_REFTYPE_DSID});
}

bool DORecord::HasDSID(unsigned int dsid) const {
    return trefs[CR_REFTYPE_DSID].contains(Cr_TRefEntry(dsid));
}

// Copies all ids before it changes their bytes.
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
    RecordLayout const before = RecordInternals::ChangeableLayout(*this, &RecordLayout::tail);
    bool const sectionFromSets = references == calcTRefsSize();
    if (sectionFromSets) {
        RecordInternals::WriteReferences(*this,
                                         before); // the sets are current; the section may never have been written
    }

    unsigned char const* const bytes = BytesOf(header);
    DORecordHeader const formerHeader = *header;
    LegacyArrays arrays(bytes + before.taskids, bytes + std::min<std::uint64_t>(before.total, bufferSize), taskIds,
                        dsids);
    // Without legacy arrays, a section that was written from the sets does not change them: no copy is needed.
    std::vector<tref_set_t> formerSets(std::begin(trefs),
                                       legacy || !sectionFromSets ? std::end(trefs) : std::begin(trefs));
    // If memory runs out during the conversion, some ids are in neither the arrays nor the sets. This restores both.
    auto const restore = [&]() noexcept {
        *header = formerHeader;
        std::copy(arrays.Bytes().begin(), arrays.Bytes().end(), BytesOf(header) + before.taskids);
        std::swap_ranges(formerSets.begin(), formerSets.end(), std::begin(trefs));
    };
    try {
        header->ntaskid = 0;
        header->nds = 0;
        // initReferenceSets would clear the section, which is loaded next.
        setTRefsSize(0);
        setRecSize(calcRecSize());
        unsigned int const mtime = header->mtime;
        AddSerializedTRefs(reinterpret_cast<char const*>(bytes + before.trefs), references);
        header->mtime = mtime;
        for (std::uint64_t i = 0; i < taskIds; ++i) {
            AddTaskID(arrays.TaskId(i));
        }
        for (std::uint64_t i = 0; i < dsids; ++i) {
            AddDSID(arrays.Dsid(i));
        }
        if (legacy) {
            handleUpdate();
        }
        // The sets may have contained references before the conversion.
        setTRefsSize(static_cast<unsigned int>(calcTRefsSize()));
        setRecSize(calcRecSize());
        expand();
    } catch (std::bad_alloc const&) {
        restore();
        throw;
    } catch (Cr_ErrnoException const& failure) {
        if (failure.GetStatus() == CR_STATUS_NO_MEMORY) {
            restore();
        }
        throw;
    }

    RecordLayout const after = LayoutOf(header);
    if (legacy) {
        // The section gets the moved bytes, which are not references. GetSerializedTRefs and GetHeader write those.
        std::vector<unsigned char> const& left = arrays.CloseGaps();
        std::copy_n(left.begin(), std::min(left.size(), after.tail - after.trefs), BytesOf(header) + after.trefs);
    }
    RecordInternals::Clear(*this, after.tail, std::max(before.total, after.total));
}
