// DORecord: the record of one stored object, as a class.
//
// A record owns or borrows one contiguous buffer (DORecordHeader.h) and keeps the object's typed references in memory,
// as one ordered set for each kind. The sets are the truth: the buffer's reference section is written from them when
// the buffer is asked for (GetHeader, GetSerializedTRefs).
//
// Byte order: the buffer is in host order after construction; HostToNetwork and NetworkToHost turn all of it in place.
// Accessors take and give host values in either order, but for those that say "raw".
//
// Failures: operations throw Cr_ErrnoException with a status and, mostly, a text, or std::bad_alloc; those that return
// cr_status_t return their failures. Operations that walk sections of the buffer first make sure that the sections lie
// in it. Where they don't, because a raw setter or a write through GetHeader made header and buffer disagree, the
// operation changes nothing and fails with status 9 and "invalid record size for DO" (32 from GetUDCIDSizeList). A
// record never grows beyond 4 GiB - 1; what would make it do so fails the same way.
//
// Accessors that take an index expect one below GetNfp(), or GetNudcid(); debug builds assert it. They never leave the
// buffer. For an element that is not inside it, as after SetFPType to another width, getters return zeros, or the value
// for "not stored" where there is one, and setters store nothing and throw CR_STATUS_INVALID "invalid record size for
// DO". Accessors that return a list or the start of a section return an address and check nothing.
//
// mtime: where an operation is said to touch the record, it sets mtime to the current time.
//
// Threads: a record and its references are used by one thread at a time.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>
#include <crrecord/segments.h>
#include <crrecord/status.h>
#include <crrecord/tref.h>

#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace crrecord {
struct RecordLayout;
struct UniqueEntry;
enum class Order;
} // namespace crrecord

// Container -> bytes of the object that lie in it.
typedef std::map<unsigned long, unsigned long> cr_dcid_size_map_t;

// Returns 0 for an inactive task. It must not change or destroy the record that calls it; debug builds assert that it
// adds and removes no task ids.
typedef int (*cr_task_callback_t)(unsigned long taskId, void* context);

class CRRECORD_API DORecord {
public:
    typedef boost::intrusive_ptr<Cr_TRef> tref_ptr_t;
    typedef std::set<tref_ptr_t, Cr_TRefComparator> tref_set_t;
    class tref_const_iterator_t;

    // --- Construction ---------------------------------------------------------------------------------------------

    // From its segments. `segments` holds `nsegments` packed entries as the DO type has them (DORecordHeader.h), in
    // host order; `dcids` one container for each, 64 or above; `udcidList` a complete unique DCID list in host order,
    // or null. A ctime or mtime of 0 stands for the current time. The arrays are copied.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, void const* segments, unsigned int nsegments, unsigned long const* dcids,
             char const* udcidList, unsigned char fptype, unsigned char dotype);

    // A bloom record (DO type 4), from a bitmap of `bsize` bytes.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, unsigned int bsize, unsigned char const* bitmap, char const* udcidList,
             unsigned char fptype, unsigned char dotype);

    // From an exchange form, which carries neither DO type nor fingerprint type; any bytes are safe. With `buffer`, the
    // record is built in the caller's memory and borrows it, until it grows or where it does not fit; without, it
    // allocates. A sub-DO takes the container of its first segment as its own.
    DORecord(unsigned int dotype, unsigned char fptype, void* buffer, unsigned long bufferSize, void const* serialized,
             unsigned long serializedSize, bool subDO);

    // From `size` stored bytes, any bytes, in either order, which it finds out by itself: copies them, validates the
    // copy, brings it to host order and loads the references, legacy ones too. Option: CR_DO_SUB_DO. Throws 32 with the
    // first error's message, 71 for legacy arrays beside references, 9 for null or another option bit, 22 without
    // memory, if the bytes are valid. The bytes may change during the call: the record is valid all the same.
    static std::unique_ptr<DORecord> FromBuffer(void const* buffer, unsigned long size, unsigned int options = 0);

    // The same in the caller's memory of `capacity` bytes, without a copy: the record turns it to host order and works
    // in it. `fixed`: the record never grows beyond it; otherwise growth copies the record out. Throws as FromBuffer
    // does, and 9 for a capacity below the size and for legacy arrays; the bytes are as before then. The memory must
    // outlive the record. Nobody else may change it, from the call on: a change can make the record leave the memory.
    static std::unique_ptr<DORecord> Wrap(void* buffer, unsigned long size, unsigned long capacity, bool fixed,
                                          unsigned int options = 0);

    // DORecordHeaderValidate, for those who have the class only.
    static cr_status_t ValidateHeader(void const* buffer, unsigned int size, unsigned int options);

    virtual ~DORecord();
    DORecord(DORecord const&) = delete;
    DORecord& operator=(DORecord const&) = delete;

    // What stands behind the first two constructors. On an existing record they build it anew and free what it owned;
    // after a failure the record has no buffer, and only destroying it, or building it once more, is allowed.
    void init(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
              unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, void const* segments,
              unsigned int nsegments, unsigned long const* dcids, char const* udcidList, unsigned char fptype,
              unsigned char dotype);
    void initWithBloom(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                       unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, unsigned int bsize,
                       unsigned char const* bitmap, char const* udcidList, unsigned char fptype, unsigned char dotype);
    // Frees an own buffer; the record has none afterwards.
    void cleanupConstruction();

    // --- Header fields --------------------------------------------------------------------------------------------

    unsigned short GetFlags() const;
    unsigned int GetHeaderSize() const; // bytes of the whole record
    unsigned int getRecSize() const;    // the same
    unsigned int GetCheckTime() const;
    unsigned long GetDCID() const; // container of the record itself
    unsigned long GetSize() const;
    unsigned long GetSsize() const;
    unsigned int GetCrc() const;
    unsigned int GetCTime() const;
    unsigned int GetMTime() const;
    unsigned int GetNfp() const;
    unsigned int GetNudcid() const;
    unsigned int GetBSize() const;
    unsigned char GetFPType() const;
    unsigned char GetDOType() const;
    unsigned int GetUDCIDSize() const; // bytes of the unique list by the raw count; 0 for a count of 0
    unsigned long GetDOSize() const;   // bytes of the record beyond the bare header size
    bool IsInNetworkOrder() const;
    bool IsSubDO() const;
    void SetSubDO(bool subDO);
    unsigned long GetPOID() const;
    unsigned char const* GetBloom() const;      // the bitmap, or null
    unsigned char const* GetBloomStart() const; // the length word of the bloom area

    // Neither touches the record.
    void setCheckTime(unsigned int seconds);
    void SetCheckTime(unsigned int seconds);
    void setDCID(unsigned long dcid);
    void SetDCID(unsigned long dcid); // touches
    // The internal setters refuse an invalid value, setFPType by throwing 9 "invalid fptype for DO" and setFlags by
    // logging it and storing nothing; the public ones store it, SetFlags after logging it, and touch the record.
    void setFPType(unsigned char fptype);
    void SetFPType(unsigned char fptype);
    void setFlags(unsigned short flags);
    void SetFlags(unsigned short flags);

    // The buffer of GetHeaderSize() bytes, complete: the references are written into their section first. It stays the
    // record's, and is valid until the record grows or goes.
    DORecordHeader* GetHeader() const;

    // --- Buffer ---------------------------------------------------------------------------------------------------

    // Reference section size := 0, record size := the computed one. The sets stay.
    void initReferenceSets();
    // The record size by the header's counts, without legacy arrays.
    unsigned int calcRecSize() const;
    // Stores the size; below the bare header size it throws 9 "invalid record size for DO". Doesn't grow the buffer.
    void setRecSize(unsigned int size);
    // Makes room for `size` bytes (by default the record size) in the buffer, in whole pages; never shrinks it. Throws
    // 9 where the buffer may not move, 22 without memory; the buffer is as before then.
    void expand(unsigned int size);
    void expand();

    // --- Byte order -----------------------------------------------------------------------------------------------

    // Turn the whole record in place, without looking whether it stands in that order already: a second call turns it
    // back, but not the accessors. Bit 0 of `options` removes the task ids afterwards (RemoveAllTRefs).
    void HostToNetwork(unsigned int options);
    void NetworkToHost(unsigned int options);

    // --- Exchange forms -------------------------------------------------------------------------------------------

    // Write the exchange form (docs/format.md) into a new block of *outLength bytes, which the caller releases with
    // SerializedDORecordFree; Serialize writes that of a bloom record for DO type 4. `withChecksum` puts the Adler-32
    // of the body where the record's CRC would stand; the bloom form has it always. 0; 9, with nothing touched, for a
    // record in network order, of another DO type, or whose sections don't lie in its buffer; 65 for a null pointer; 22
    // without memory, logged, with *out null.
    cr_status_t Serialize(void** out, unsigned long* outLength, bool withChecksum) const;
    cr_status_t SerializeBloomFilterDO(void** out, unsigned long* outLength, bool withChecksum) const;
    // Releases *serialized and sets it to null; null pointers are allowed.
    static void SerializedDORecordFree(void** serialized);

    // --- Digest, text, comparison ---------------------------------------------------------------------------------

    // One fingerprint for the whole object, of the record's fingerprint type and with the record's container; owned by
    // the caller (CRTDigestDelete). A single segment's own fingerprint; otherwise over fingerprints, sizes and offsets,
    // or over bloom area and unique list. Null for a DO type 0 record with other than one segment. Throws 9 in network
    // order, the fingerprint functions' status, 22 without memory.
    crt_digest_t* GetDigest() const;

    // Writes the record to `stream` and returns it. Binary: GetHeaderSize() bytes in host order; the buffer is turned
    // meanwhile, and is as it was afterwards, also where the stream throws. Text: one line without its end, of which
    // TEXT_STREAM_FORMAT_DESCRIPTION tells, in plain decimal whatever the stream's flags and locale; throws 9 in
    // network order.
    std::ostream& ToStream(std::ostream& stream, bool binary) const;
    static std::string const TEXT_STREAM_FORMAT_DESCRIPTION;

    // Equal byte order, type, flags, ntaskid, CID, size, ssize, CRC, nfp, fingerprint type and DO type; as many
    // references of each kind, with equal first ones; equal entries.
    bool operator==(DORecord const& other) const;
    bool operator!=(DORecord const& other) const;

    // --- Segments -------------------------------------------------------------------------------------------------

    // 32 bytes from the start of the fingerprint, whatever its type.
    crfp_digest_t const& GetSegmentFP(unsigned int i) const;
    // Copies 32 bytes whatever the type: for 16-byte fingerprints the second half lands on what follows. Doesn't touch.
    void SetSegmentFP(unsigned int i, crfp_digest_t const& fingerprint);
    unsigned long GetSegmentDCID(unsigned int i) const;          // raw
    cr_unaligned_u64 const* GetSegmentDCIDList() const;          // raw
    void SetSegmentDCID(unsigned int i, unsigned long dcid);     // raw; doesn't touch
    unsigned int GetSegmentSize(unsigned int i) const;           // 0xffffffff where the DO type has none
    void SetSegmentSize(unsigned int i, unsigned int size);      // raw; stores for DO types 2, 3, 5; always touches
    unsigned long GetSegmentOffset(unsigned int i) const;        // DO type 3; otherwise 2^64 - 1
    void SetSegmentOffset(unsigned int i, unsigned long offset); // raw; stores for any DO type; touches
    unsigned int GetSegmentObjectOffset(unsigned int i) const;   // DO type 5; otherwise 0xffffffff
    void SetSegmentObjectOffset(unsigned int i, unsigned int offset); // raw; stores for any DO type; touches
    // All of them; valid until the record changes or goes.
    DOSegmentRange Segments() const;

    // Check that the segments make up the object; throw 89 with the first rule that fails, and 9 "invalid DO type" for
    // DO type 255. The two plausibility checks catch sizes and offsets in the wrong byte order; a sub-DO's sizes may
    // reach 4 GiB - 1.
    void checkSegmentList() const;
    void checkSegmentSizeEndiannes() const;
    void checkSegmentOffsetEndiannes() const;

    // --- Unique DCID list and bloom filter ------------------------------------------------------------------------

    // Computes the list of the distinct containers and the object's bytes in each, from the segments or, in a bloom
    // record, from its received big-endian list, whose length word it turns, and writes it into the record. 0; 9 for a
    // record with references or with a container below 64, both logged, or one that would not fit; 22 without memory.
    // After a failure the record is as before, except for a bloom record's length word when memory was wanting.
    cr_status_t AppendBloomAndUniqueDCIDList();
    // Merges a bloom record's big-endian list into the caller's map, replacing values already there, and turns its
    // length word, with every call. Always 0; nothing happens for other DO types.
    cr_status_t AppendBloom(cr_dcid_size_map_t& sizes);
    // Replaces the map's contents by the list and the record's own container, to which GetDOSize() is added. 0; 32 for
    // a record without a list, logged; 22 without memory, logged and left in the last status.
    cr_status_t GetUDCIDSizeList(cr_dcid_size_map_t& sizes) const;
    unsigned char const* GetSegmentUDCIDList() const;    // the list's checksum word
    unsigned long GetSegmentUDCID(unsigned int i) const; // raw

    // --- Typed references -----------------------------------------------------------------------------------------

    // Add a reference: 0 added, 1 an equal one was there already; both touch the record. Kinds 2, 4, 6 and 9 only: 9
    // with a logged text for the others. A null or empty handle: 9 "NULL reference". After a failure nothing has
    // changed. OwnTRef keeps the given handle, or takes the value, also when it fails; AddTRef keeps a copy.
    int OwnTRef(tref_ptr_t reference);
    int OwnTRef(_cr_tref_t& reference);
    int AddTRef(_cr_tref_t const& reference);
    int AddTRef(tref_ptr_t reference);
    // 0 when kind 4, 6 or 9 is there, and always for kind 7 and above 11; 72, with a warning, when it isn't there; the
    // other kinds throw 9. A null reference throws 9 "NULL reference".
    cr_status_t CheckTRef(tref_ptr_t reference) const;
    cr_status_t CheckTRef(_cr_tref_t const* reference) const;
    // The number removed, 0 or 1; touches either way. Kinds 2, 4, 6, 8 and 9; the others throw 9. A null handle throws
    // 9 "NULL reference"; a null pointer gives 0.
    unsigned long DelTRef(tref_ptr_t reference);
    unsigned long DelTRef(_cr_tref_t const* reference);
    // Removes all of one kind; doesn't touch.
    void ClearTRefType(cr_reftype_t kind);
    // Removes the task ids (kind 2), and nothing else.
    void RemoveAllTRefs();

    // Bytes in serialized form of one kind, and of all.
    unsigned long GetTRefTypeTotalSize(cr_reftype_t kind) const;
    unsigned long calcTRefsSize() const;
    unsigned int GetNTRefs() const;
    unsigned int GetNTRefs(cr_reftype_t kind) const; // 0 for a number that is no kind
    unsigned int GetNtaskid() const;                 // those of kind 2
    unsigned int GetNds() const;                     // those of kind 4
    // One kind's set; an empty range for a number that is no kind.
    tref_set_t::const_iterator GetTRefTypeBegin(cr_reftype_t kind) const;
    tref_set_t::const_iterator GetTRefTypeEnd(cr_reftype_t kind) const;
    // All kinds but 0, by kind and then in order.
    tref_const_iterator_t GetTRefBegin() const;
    tref_const_iterator_t GetTRefEnd() const;

    // The header's size of the reference section.
    unsigned int getTRefsSize() const;
    void setTRefsSize(unsigned int size); // raw: nothing else changes
    unsigned long GetSerializedTRefsSize() const;
    // The reference section, written from the sets first.
    char* GetSerializedTRefs() const;
    // Loads serialized references of any kind; the bytes may be the record's own section. Equal ones are dropped.
    // Throws the decoder's status with "Received a buffer with corrupt typed references." at the first that does not
    // decode; those before it stay. Touches on success.
    void AddSerializedTRefs(char const* bytes, unsigned int length);
    // Touches the record.
    void handleUpdate();

    // --- Task ids and data selections -----------------------------------------------------------------------------

    // 0 added, 1 it was there already.
    int AddTaskID(unsigned long taskId);
    // 9, with nothing changed, for a task that the callback calls inactive; otherwise drops the inactive ones first.
    int AddTaskID(unsigned long taskId, cr_task_callback_t callback, void* context);
    // Drops every task that the callback calls inactive, and touches in any case. The number dropped.
    unsigned long RemoveInactiveTaskIDs(cr_task_callback_t callback, void* context);
    void RemoveAllTaskIDs(); // RemoveAllTRefs
    bool HasTaskID(unsigned long taskId) const;
    int AddDSID(unsigned int dsid);
    unsigned long DelDSID(unsigned int dsid); // the number removed, 0 or 1
    bool HasDSID(unsigned int dsid) const;
    // Turns legacy arrays into typed references, or loads the reference section of a record without them (which leaves
    // mtime alone). For a record in host order. 9 for legacy arrays in a borrowed buffer, 71 beside references. Without
    // memory nothing changes.
    void convertToTRefs();

protected:
    // What the buffer may do when the record grows.
    enum class CopyMode : unsigned int {
        Fixed = 0,    // it must stay where it is
        Borrowed = 1, // it may be copied into an own one
        Own = 2,      // it is grown with realloc
    };

    static constexpr unsigned int kKinds = CR_REFTYPE_END;

    DORecordHeader* header;
    unsigned long bufferSize;
    bool networkOrder;
    bool ownsBuffer;
    bool subDO;
    CopyMode copyMode;
    tref_set_t trefs[kKinds];
    unsigned long spare; // 0

private:
    struct NewRecord;
    // The end of a section, as a member of the layout.
    typedef unsigned long crrecord::RecordLayout::*SectionEnd;

    // The layout of a record whose bytes up to the end of a section lie in the buffer, or a refusal; the second for
    // operations that change or follow sizes.
    CRRECORD_LOCAL crrecord::RecordLayout checkedLayout(SectionEnd end) const;
    CRRECORD_LOCAL crrecord::RecordLayout changeableLayoutUpTo(SectionEnd end) const;
    CRRECORD_LOCAL bool orderMatchesHeader() const noexcept;
    CRRECORD_LOCAL bool reaches(crrecord::RecordLayout const& layout, SectionEnd end) const noexcept;
    // `width` bytes at `offset`. If they are not inside the buffer: null, or a refusal.
    CRRECORD_LOCAL unsigned char* element(unsigned long offset, unsigned int width) const noexcept;
    CRRECORD_LOCAL unsigned char* writableElement(unsigned long offset, unsigned int width);

    CRRECORD_LOCAL DORecord() noexcept;
    CRRECORD_LOCAL void adopt(crrecord::Order order, unsigned int options);
    CRRECORD_LOCAL void makeBlank() noexcept;
    CRRECORD_LOCAL void allocate(unsigned long size, bool zeroed);
    CRRECORD_LOCAL void writeHeader(NewRecord const& values) noexcept;
    CRRECORD_LOCAL void finish(NewRecord const& values, unsigned char const* list);
    CRRECORD_LOCAL void writeText(std::ostream& stream) const;
    CRRECORD_LOCAL void writeBytes(std::ostream& stream) const;
    CRRECORD_LOCAL void turn(bool toNetworkOrder, unsigned int options);
    CRRECORD_LOCAL void clear(unsigned long from, unsigned long to) noexcept;
    CRRECORD_LOCAL void growReferences(crrecord::RecordLayout const& layout, unsigned long by);
    CRRECORD_LOCAL void shrinkReferences(unsigned long by);
    CRRECORD_LOCAL void writeReferences(crrecord::RecordLayout const& layout) const noexcept;
    CRRECORD_LOCAL void loadReferences(char const* bytes, unsigned long length, unsigned long& loaded);
    CRRECORD_LOCAL cr_status_t checkReference(tref_ptr_t const& reference) const;
    CRRECORD_LOCAL unsigned long deleteReference(tref_ptr_t const& reference);
    CRRECORD_LOCAL unsigned long removeTaskIDs(cr_task_callback_t callback, void* context);
    CRRECORD_LOCAL cr_status_t growForList(unsigned long entries) noexcept;
    CRRECORD_LOCAL void writeUniqueList(crrecord::UniqueEntry const* entries, unsigned int count,
                                        crrecord::RecordLayout const& layout) noexcept;
};

// Goes through the references of a record kind by kind, without kind 0.
class CRRECORD_API DORecord::tref_const_iterator_t {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = tref_ptr_t;
    using difference_type = std::ptrdiff_t;
    using pointer = tref_ptr_t const*;
    using reference = tref_ptr_t const&;

    tref_const_iterator_t(); // of no record
    reference operator*() const { return *position_; }
    pointer operator->() const { return &*position_; }
    tref_const_iterator_t& operator++(); // at the end it does nothing
    tref_const_iterator_t operator++(int);
    bool operator==(tref_const_iterator_t const& other) const;
    bool operator!=(tref_const_iterator_t const& other) const { return !(*this == other); }

private:
    friend class DORecord;
    tref_const_iterator_t(DORecord const* record, cr_reftype_t kind);
    void skipEmptySets();

    DORecord const* record_;
    cr_reftype_t kind_;
    tref_set_t::const_iterator position_;
};
