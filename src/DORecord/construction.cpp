// Construction of a DORecord: constructors, init, initWithBloom, and the destructor.

#include "DORecord/record.h"
#include "base/memory.h"
#include "base/prefetch.h"
#include "support/exchange/exchange_parser.h"
#include "support/layout/unique_list.h"

#include <cstdlib>
#include <ctime>
#include <locale>
#include <memory>
#include <sstream>

using namespace crrecord;

namespace {

constexpr unsigned short kNewFlags = 0x0002;
constexpr char kEmptySegments[] = "Got empty SO list.";

void CheckTypes(unsigned char fptype, unsigned char dotype) {
    if (!CRDOTypeIsValid(dotype)) {
        throw Cr_ErrnoException(CR_STATUS_INVALID_DO_TYPE, "Invalid CR DO type", nullptr);
    }
    if (!CRFPTypeIsValid(fptype)) {
        throw Cr_ErrnoException(CR_STATUS_INVALID_FP_TYPE, "Invalid CR fingerprint type", nullptr);
    }
}

void CheckTaskIds(unsigned long const* taskIDs, unsigned int count) {
    if (!taskIDs && count != 0) {
        Refuse("Got empty task ID list that should not be empty.");
    }
}

void CheckDcids(unsigned long const* dcids, unsigned int count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        unsigned long const dcid = Load<std::uint64_t>(dcids + i);
        if (dcid < CR_FIRST_FREE_DCID) {
            std::stringstream text;
            text.imbue(std::locale::classic());
            text << "Got invalid dcid " << dcid << " at index " << i;
            throw Cr_ErrnoException(CR_STATUS_INVALID, text, nullptr);
        }
    }
}

// Throws: CR_STATUS_INVALID with the first `count` 64-bit words of the list in its message. An entry has two words, the
// container and the byte count, so the message shows the first half of the entries.
[[noreturn]] void RefuseList(unsigned char const* list, std::uint32_t count, std::uint32_t computed) {
    std::stringstream text;
    text.imbue(std::locale::classic());
    text << "Computed CRC (" << computed << ") for unique DCID list doesn't match. [crc=" << Load<std::uint32_t>(list)
         << "],[count=" << count << "],[";
    for (std::uint64_t i = 0; i < count && text.view().size() < Cr_ErrnoException::kMaxText; ++i) {
        text << Load<std::uint64_t>(list + kUniqueHeadSize + i * sizeof(std::uint64_t)) << ",";
    }
    text << "]";
    throw Cr_ErrnoException(CR_STATUS_INVALID, text, nullptr);
}

// Returns: the number of entries of a caller's list, or 0 for null.
// Throws: CR_STATUS_INVALID if the checksum does not match.
std::uint32_t CheckList(unsigned char const* list) {
    if (!list) {
        return 0;
    }
    std::uint32_t const count = UniqueCount(list, Order::Host);
    std::uint32_t const computed = UniqueListChecksum(list, count);
    if (computed != Load<std::uint32_t>(list)) {
        RefuseList(list, count, computed);
    }
    return count;
}

unsigned char const* AsBytes(char const* text) noexcept {
    return reinterpret_cast<unsigned char const*>(text);
}

struct FreeBlock {
    void operator()(void* block) const noexcept { std::free(block); }
};
using FormerBuffer = std::unique_ptr<void, FreeBlock>;

// Copies `count` bytes, or writes `count` zeros if `from` is null.
void FillBytes(void* to, void const* from, std::uint64_t count) noexcept {
    if (from && count != 0) {
        std::memcpy(to, from, count);
    } else {
        std::memset(to, 0, count);
    }
}

// Copies and checks the segments block by block. If `segments` is null, clears the section.
// Returns: the first fault of the segment list; no fault if `segments` is null.
SegmentFault CopySegments(DORecordHeader* header, void const* segments, RecordLayout const& layout,
                          bool subDO) noexcept {
    unsigned char* const entries = BytesOf(header) + layout.entries;
    if (!segments) {
        FillBytes(entries, nullptr, layout.dcids - layout.entries);
        return {};
    }
    SegmentListCheck rules(SegmentSourceOf(*header, BytesOf(header), Order::Host), subDO);
    ForEachBlock(layout.segments, [&](std::uint64_t first, std::uint64_t count) {
        std::uint64_t const bytes = count * layout.stride;
        unsigned char const* const from = static_cast<unsigned char const*>(segments) + first * layout.stride;
        std::memcpy(entries + first * layout.stride, from, bytes);
        Prefetch(from, bytes, bytes);
        rules.Accumulate(first, count);
        return true;
    });
    return rules.Fault();
}

} // namespace

// The checked arguments of init or initWithBloom.
struct crrecord::NewRecord {
    unsigned long CID;
    unsigned long size;
    unsigned long ssize;
    unsigned int CRC;
    unsigned int ctime;
    unsigned int mtime;
    unsigned long const* taskIDs;
    unsigned int ntaskIDs;
    RecordCounts counts;
};

// Makes a record without buffer and references. Keeps the sub-DO flag, which callers set before they build the record.
void RecordInternals::MakeBlank(DORecord& record) noexcept {
    record.header = nullptr;
    record.bufferSize = 0;
    record.networkOrder = false;
    record.ownsBuffer = true;
    record.copyMode = DORecord::CopyMode::Own;
    for (DORecord::tref_set_t& set : record.trefs) {
        set.clear();
    }
    record.spare = 0;
}

void RecordInternals::AllocateBuffer(DORecord& record, unsigned long size, bool zeroed) {
    if (size > kLargestRecord) {
        Refuse(kInvalidRecordSize);
    }
    record.header = static_cast<DORecordHeader*>(zeroed ? AllocateZeroed(size) : Allocate(size));
    if (!record.header) {
        throw Cr_ErrnoException(CR_STATUS_NO_MEMORY, "Not enough memory to create DORecord.", nullptr);
    }
    record.bufferSize = size;
}

DORecord::DORecord() noexcept
    : header(nullptr), bufferSize(0), networkOrder(false), ownsBuffer(true), subDO(false), copyMode(CopyMode::Own),
      spare(0) {
    for (tref_set_t& set : trefs) {
        set = tref_set_t(tref_set_t::allocator_type(nodes));
    }
}

DORecord::DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                   unsigned int mtime, void const* segments, unsigned int nsegments, unsigned long const* dcids,
                   char const* udcidList, unsigned char fptype, unsigned char dotype)
    : DORecord() {
    if (!segments && !IsBloom(dotype)) {
        Refuse(kEmptySegments);
    }
    init(CID, size, ssize, CRC, ctime, mtime, nullptr, 0, segments, nsegments, dcids, udcidList, fptype, dotype);
}

// The message mentions segments for a bitmap too, because callers match it.
DORecord::DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                   unsigned int mtime, unsigned int bsize, unsigned char const* bitmap, char const* udcidList,
                   unsigned char fptype, unsigned char dotype)
    : DORecord() {
    if (!bitmap && !IsBloom(dotype)) {
        Refuse(kEmptySegments);
    }
    initWithBloom(CID, size, ssize, CRC, ctime, mtime, nullptr, 0, bsize, bitmap, udcidList, fptype, dotype);
}

DORecord::DORecord(unsigned int dotype, unsigned char fptype, void* buffer, unsigned long size, void const* serialized,
                   unsigned long serializedSize, bool isSubDO)
    : DORecord() {
    header = static_cast<DORecordHeader*>(buffer);
    bufferSize = size;
    ownsBuffer = false;
    subDO = isSubDO;
    copyMode = CopyMode::Borrowed;
    try {
        SegmentFault fault;
        cr_status_t const status =
            exchange::Parse({serialized, serializedSize, dotype, fptype}, subDO, &header, &bufferSize, fault);
        if (status != CR_STATUS_OK) {
            throw Cr_ErrnoException(status);
        }
        if (header != buffer) {
            ownsBuffer = true;
            copyMode = CopyMode::Own;
        }
        setFlags(0);
        setFPType(fptype);
        setDCID(0);
        initReferenceSets();
        handleUpdate();
        ThrowIfFaulty(fault, GetDOType());
        if (subDO && LayoutOf(header).segments != 0) {
            setDCID(GetSegmentDCID(0));
        }
    } catch (...) {
        cleanupConstruction();
        throw;
    }
}

DORecord::~DORecord() {
    cleanupConstruction();
}

void DORecord::cleanupConstruction() {
    if (ownsBuffer && header) {
        std::free(header);
        header = nullptr;
        bufferSize = 0;
    }
}

void RecordInternals::WriteHeader(DORecord& record, NewRecord const& values) noexcept {
    std::memset(record.header, 0, sizeof *record.header);
    record.header->type = CR_DO_RECORD_TYPE;
    record.header->flags = kNewFlags;
    record.header->recsize = static_cast<unsigned int>(record.bufferSize);
    record.header->CID = values.CID;
    record.header->size = values.size;
    record.header->ssize = values.ssize;
    record.header->CRC = values.CRC;
    record.header->nfp = values.counts.nfp;
    record.header->nudcid = values.counts.nudcid;
    record.header->bsize = values.counts.bsize;
    record.header->fptype = values.counts.fptype;
    record.header->dotype = values.counts.dotype;
}

// Performs the last steps of init and initWithBloom: writes the unique list, the references and the times.
void RecordInternals::Finish(DORecord& record, NewRecord const& values, unsigned char const* list) {
    if (values.counts.nudcid != 0) {
        FillBytes(DORecordHeaderStartUDCID(record.header), list, UniqueListSize(values.counts.nudcid));
    }
    // Clears the rest of the buffer too, because the record size is still the size of the whole buffer.
    record.initReferenceSets();
    for (std::uint64_t i = 0; i < values.ntaskIDs; ++i) {
        record.AddTaskID(Load<std::uint64_t>(values.taskIDs + i));
    }
    auto const now = static_cast<unsigned int>(std::time(nullptr));
    record.header->ctime = values.ctime != 0 ? values.ctime : now;
    record.header->mtime = values.mtime != 0 ? values.mtime : now;
    record.expand();
}

void DORecord::init(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                    unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, void const* segments,
                    unsigned int nsegments, unsigned long const* dcids, char const* udcidList, unsigned char fptype,
                    unsigned char dotype) {
    // Freed when the function returns, because the arguments may point into it.
    FormerBuffer const former(ownsBuffer ? header : nullptr);
    RecordInternals::MakeBlank(*this);
    try {
        CheckTypes(fptype, dotype);
        CheckTaskIds(taskIDs, ntaskIDs);
        // A bloom record has no segments; every other record has at least one.
        if ((nsegments == 0) != IsBloom(dotype)) {
            Refuse(kEmptySegments);
        }
        if (!dcids && nsegments != 0) {
            Refuse("Got empty DCID list that should not be empty.");
        }
        CheckDcids(dcids, nsegments);
        NewRecord const values{
            CID,
            size,
            ssize,
            CRC,
            ctime,
            mtime,
            taskIDs,
            ntaskIDs,
            {.nfp = nsegments, .nudcid = CheckList(AsBytes(udcidList)), .fptype = fptype, .dotype = dotype}};
        RecordLayout const layout(values.counts);
        RecordInternals::AllocateBuffer(*this, layout.total, false);
        RecordInternals::WriteHeader(*this, values);
        SegmentFault const fault = CopySegments(header, segments, layout, subDO);
        // The DCIDs follow the entries. A bloom record has no segments, and gets an empty bloom area here.
        FillBytes(BytesOf(header) + layout.dcids, nsegments != 0 ? dcids : nullptr, layout.udcids - layout.dcids);
        RecordInternals::Finish(*this, values, AsBytes(udcidList));
        ThrowIfFaulty(fault, dotype);
    } catch (...) {
        cleanupConstruction();
        throw;
    }
}

void DORecord::initWithBloom(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC,
                             unsigned int ctime, unsigned int mtime, unsigned long const* taskIDs,
                             unsigned int ntaskIDs, unsigned int bsize, unsigned char const* bitmap,
                             char const* udcidList, unsigned char fptype, unsigned char dotype) {
    FormerBuffer const former(ownsBuffer ? header : nullptr);
    RecordInternals::MakeBlank(*this);
    try {
        CheckTypes(fptype, dotype);
        CheckTaskIds(taskIDs, ntaskIDs);
        if (bsize == 0 ? IsBloom(dotype) : !bitmap) {
            Refuse("Got empty bloom filter bitmap.");
        }
        NewRecord const values{
            CID,
            size,
            ssize,
            CRC,
            ctime,
            mtime,
            taskIDs,
            ntaskIDs,
            {.nudcid = CheckList(AsBytes(udcidList)), .bsize = bsize, .fptype = fptype, .dotype = dotype}};
        RecordInternals::AllocateBuffer(
            *this, DORecordHeaderSizeWithBloom(0, bsize, values.counts.nudcid, 0, dotype, 0), true);
        RecordInternals::WriteHeader(*this, values);
        if (bsize != 0) {
            unsigned char* const lengthWord = DORecordHeaderGetBloomStart(header);
            Store(lengthWord, bsize);
            FillBytes(lengthWord + kBloomLengthSize, bitmap, bsize);
        }
        RecordInternals::Finish(*this, values, AsBytes(udcidList));
    } catch (...) {
        cleanupConstruction();
        throw;
    }
}
