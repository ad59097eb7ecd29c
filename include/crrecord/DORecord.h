// DORecord: the record of one stored object, as a class.
//
// A record owns or borrows one contiguous buffer (DORecordHeader.h) and keeps the object's typed references in memory,
// in one ordered set per kind. The sets are authoritative: GetHeader and GetSerializedTRefs write the buffer's
// reference section from them. An operation that touches the record sets mtime to the current time.
//
// Byte order: the buffer is in host order after construction; HostToNetwork and NetworkToHost convert it in place.
// Accessors take and return host values in either order, unless their comment says that the value is not converted.
//
// Errors: an operation throws Cr_ErrnoException with a status and, unless stated otherwise, a text; one that allocates
// may also throw std::bad_alloc. Operations that return cr_status_t return their failures. A failed operation leaves
// the record unchanged, unless "On failure" is stated.
//
// Sections: an operation that walks sections of the buffer, or makes the record grow, fails with CR_STATUS_INVALID and
// changes nothing if a section is not inside the buffer, as after an unchecked setter or a write through GetHeader, or
// if the record would exceed 4 GiB - 1 bytes. If thrown, the text is "invalid record size for DO", unless stated.
//
// Indexes: accessors that take an index expect one below GetNfp(), or GetNudcid(); debug builds of the library assert
// it for setters. They never leave the buffer. For an element outside of it, as after SetFPType to another width,
// getters return zeros, or the value for "not stored" if there is one; setters store nothing and throw as above.
// Accessors that return a list or the start of a section check nothing. Accessors of fields need a buffer, which a
// record lacks after init has failed.
//
// Lifetime: addresses in the buffer are valid until the record grows, is built anew or is destroyed; a range also until
// the record changes. The buffer belongs to the record unless it was borrowed.
//
// Thread safety: one thread at a time uses a record and its references, also for the const operations GetHeader,
// GetSerializedTRefs and ToStream, which write to the buffer.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>
#include <crrecord/reference_nodes.h>
#include <crrecord/segments.h>
#include <crrecord/status.h>
#include <crrecord/tref.h>

#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace crrecord {
struct RecordInternals;
} // namespace crrecord

// Container id -> number of the object's bytes in that container.
typedef std::map<unsigned long, unsigned long> cr_dcid_size_map_t;

// Returns: 0 for an inactive task, any other value for an active one. `context` is the caller's. The callback must not
// change or destroy the record that calls it; debug builds assert that it adds and removes no task ids. An exception
// that it throws is passed on: tasks removed before it stay removed, and mtime is unchanged.
typedef int (*cr_task_callback_t)(unsigned long taskId, void* context);

class CRRECORD_API DORecord {
public:
    typedef boost::intrusive_ptr<Cr_TRef> tref_ptr_t;
    // Ordered as Cr_TRefComparator orders handles; its elements are handles of one kind.
    typedef std::set<Cr_TRefEntry, Cr_TRefComparator, DOReferenceAllocator<Cr_TRefEntry>> tref_set_t;
    class tref_const_iterator_t; // tref_iterator.h
    class tref_range_t;

    // --- Construction ---------------------------------------------------------------------------------------------
    // Builds a record from copies of the arrays. `size` and `ssize` are bytes; a `ctime` or `mtime` of 0 means now.
    // `segments` holds `nsegments` packed entries of the DO type (DORecordHeader.h), in host order, `dcids` the
    // container of each. `udcidList` is null or a complete unique DCID list in host order, 8 + 16 * count bytes by its
    // own count. CR_DO_TYPE_BLOOM_FILTER takes no segments, every other type some.
    // Throws: CR_STATUS_INVALID for missing or superfluous segments, missing containers, a container below
    // CR_FIRST_FREE_DCID, or a list that does not match its checksum; CR_STATUS_INVALID_DO_TYPE;
    // CR_STATUS_INVALID_FP_TYPE; CR_STATUS_CORRUPT_DATA as checkSegmentList; CR_STATUS_NO_MEMORY.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, void const* segments, unsigned int nsegments, unsigned long const* dcids,
             char const* udcidList, unsigned char fptype, unsigned char dotype);

    // Builds a bloom record from a copy of a bitmap of `bsize` bytes; all else as above. With another DO type than
    // CR_DO_TYPE_BLOOM_FILTER the record keeps `bsize` and no bitmap (CR_FINDING_DO_BSIZE).
    // Throws: as above; CR_STATUS_INVALID also without a bitmap, and for a `bsize` of 0 with CR_DO_TYPE_BLOOM_FILTER.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, unsigned int bsize, unsigned char const* bitmap, char const* udcidList,
             unsigned char fptype, unsigned char dotype);

    // Builds a record from an exchange form of `serializedSize` bytes, which may be any bytes. The record borrows
    // `buffer`, of `bufferSize` bytes, unless it is null or too small. A sub-DO takes its first segment's container.
    // Throws: the statuses of DORecordHeaderDeserialize, without a text; CR_STATUS_INVALID for an unknown fingerprint
    // type; CR_STATUS_CORRUPT_DATA as checkSegmentList.
    // On failure: the bytes of `buffer` are unspecified, but unchanged if it overlaps the form.
    // Lifetime: `buffer` must outlive the record, or its first growth.
    DORecord(unsigned int dotype, unsigned char fptype, void* buffer, unsigned long bufferSize, void const* serialized,
             unsigned long serializedSize, bool subDO);

    // Builds a record from a copy of `size` stored bytes, which may be any bytes, in either order, and may change
    // during the call: validates the copy, converts it to host order and loads the references, legacy arrays included.
    // The only option is CR_DO_SUB_DO. Returns: a record, never null.
    // Throws: CR_STATUS_CORRUPT_RECORD with the message of the first error; CR_STATUS_NOT_SUPPORTED for legacy arrays
    // together with typed references; CR_STATUS_INVALID, without a text, for null or another option bit;
    // CR_STATUS_NO_MEMORY if the bytes are valid.
    static std::unique_ptr<DORecord> FromBuffer(void const* buffer, unsigned long size, unsigned int options = 0);

    // Builds a record without a copy, in the caller's `capacity` bytes of memory, of which the first `size` are the
    // record: converts them to host order in place. If `fixed`, the record never leaves this memory and cannot grow
    // beyond it; otherwise growth copies it to a buffer of the record's own.
    // Throws: as FromBuffer; CR_STATUS_INVALID for a capacity below the size and for legacy arrays, without a change.
    // Lifetime: the memory must outlive the record, or its first growth. Nobody else may change it from the call on.
    static std::unique_ptr<DORecord> Wrap(void* buffer, unsigned long size, unsigned long capacity, bool fixed,
                                          unsigned int options = 0);
    // DORecordHeaderValidate with the same arguments.
    static cr_status_t ValidateHeader(void const* buffer, unsigned int size, unsigned int options);

    // Frees the buffer if the record owns it, and releases the references.
    virtual ~DORecord();
    DORecord(DORecord const&) = delete;
    DORecord& operator=(DORecord const&) = delete;
    // Build an existing record anew as the first two constructors do, in a new buffer that it owns, and add task ids:
    // CR_STATUS_INVALID also for a count of them without an array. init with null segments writes zeroed entries and
    // does not check them. The former references and an owned buffer are released; a borrowed buffer is left unchanged.
    // The sub-DO flag stays and applies to the new segments.
    // On failure: the record has no buffer. It may only be destroyed, or built once more.
    void init(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
              unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, void const* segments,
              unsigned int nsegments, unsigned long const* dcids, char const* udcidList, unsigned char fptype,
              unsigned char dotype);
    void initWithBloom(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                       unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, unsigned int bsize,
                       unsigned char const* bitmap, char const* udcidList, unsigned char fptype, unsigned char dotype);
    // Frees the buffer, which the record then lacks, if it is the record's own; otherwise does nothing.
    void cleanupConstruction();

    // --- Header fields --------------------------------------------------------------------------------------------
    // Sizes are bytes: GetHeaderSize and getRecSize of the whole record, GetSize of the object, GetSsize of a segment
    // of DO types 0 and 1, GetBSize of the bloom bitmap. GetDCID is the container of the record itself; GetNfp the
    // number of segments, GetNudcid of entries of the unique DCID list. Times (last check, creation, last change) are
    // seconds since the epoch. Flags are 0x0002 in a built record, 0 in one made from an exchange form.
    unsigned short GetFlags() const;
    unsigned int GetHeaderSize() const;
    unsigned int getRecSize() const;
    unsigned int GetCheckTime() const;
    unsigned long GetDCID() const;
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
    // Bytes of the unique DCID list by the stored count, which is not converted: meaningless in network order; bytes of
    // the record beyond CR_DO_RECORD_SIZE.
    unsigned int GetUDCIDSize() const;
    unsigned long GetDOSize() const;
    // The order that the accessors use: set by HostToNetwork, cleared by NetworkToHost.
    bool IsInNetworkOrder() const;
    // A sub-DO may have segments of up to 4 GiB - 1. No field of the buffer stores this.
    bool IsSubDO() const;
    void SetSubDO(bool subDO);
    // As GetDCID; the first byte of the bitmap, or null without one; the length word before it (DORecordHeader.h).
    unsigned long GetPOID() const;
    unsigned char const* GetBloom() const;
    unsigned char const* GetBloomStart() const;

    // Of these setters only SetDCID, SetFPType and SetFlags touch the record. SetFPType and SetFlags store any value;
    // setFPType throws CR_STATUS_INVALID "invalid fptype for DO" for an unknown type; setFlags stores nothing for an
    // unknown bit. Both flag setters log CR_STATUS_INVALID for it. Another width of fingerprints moves all sections.
    void setCheckTime(unsigned int seconds);
    void SetCheckTime(unsigned int seconds);
    void setDCID(unsigned long dcid);
    void SetDCID(unsigned long dcid);
    void setFPType(unsigned char fptype);
    void SetFPType(unsigned char fptype);
    void setFlags(unsigned short flags);
    void SetFlags(unsigned short flags);

    // Writes the references into their section, unless it is up to date. Returns: the buffer of GetHeaderSize() bytes.
    // Throws: CR_STATUS_INVALID if there are references and their section is not inside the buffer.
    DORecordHeader* GetHeader() const;

    // --- Buffer and byte order ------------------------------------------------------------------------------------
    // Sets the size of the reference section to 0, clears it, and sets the record size to calcRecSize(). Keeps the
    // sets.
    void initReferenceSets();
    // The record size in bytes that follows from the header's counts, without legacy arrays.
    unsigned int calcRecSize() const;
    // Stores the record size in bytes, and does not grow the buffer. Throws: CR_STATUS_INVALID below CR_DO_RECORD_SIZE.
    void setRecSize(unsigned int size);
    // Grows the buffer to at least `size` bytes (by default the record size), in whole pages, with zeros; never shrinks
    // it. A borrowed buffer is copied to one that the record owns.
    // Throws: CR_STATUS_INVALID if the buffer must not be copied; CR_STATUS_NO_MEMORY.
    void expand(unsigned int size);
    void expand();

    // Convert the whole record in place whatever its order: a second call byte-swaps the record again, but the
    // accessors still expect the order of the name. Bit 0 of `options` calls RemoveAllTRefs afterwards.
    // Throws: CR_STATUS_INVALID; if RemoveAllTRefs throws it, the record is converted.
    void HostToNetwork(unsigned int options);
    void NetworkToHost(unsigned int options);

    // --- Exchange forms, digest, text, comparison -----------------------------------------------------------------
    // Write the exchange form (docs/format.md) into a new block of *outLength bytes; Serialize writes the bloom form
    // for CR_DO_TYPE_BLOOM_FILTER. With `withChecksum` the Adler-32 of the body replaces the record's CRC; the bloom
    // form always has it.
    // Returns: CR_STATUS_OK; CR_STATUS_INVALID for a record in network order, of the wrong DO type, or whose sections
    // are not inside the buffer; CR_STATUS_NULL_ARGUMENT; CR_STATUS_NO_MEMORY, logged, with *out null.
    // On failure: *outLength is unchanged, and so is *out, except for CR_STATUS_NO_MEMORY.
    // Lifetime: the caller releases *out with SerializedDORecordFree, which sets it to null and allows null pointers.
    cr_status_t Serialize(void** out, unsigned long* outLength, bool withChecksum) const;
    cr_status_t SerializeBloomFilterDO(void** out, unsigned long* outLength, bool withChecksum) const;
    static void SerializedDORecordFree(void** serialized);

    // One fingerprint for the whole object, of the record's fingerprint type and with the record's container. It alone
    // does not identify the content: see "The digest of a DO record" in docs/format.md.
    // Returns: the digest, to release with CRTDigestDelete; null for CR_DO_TYPE_ORIGINAL unless there is one segment.
    // Throws: CR_STATUS_INVALID in network order; the status of the fingerprint functions; CR_STATUS_NO_MEMORY.
    crt_digest_t* GetDigest() const;

    // Writes the record to `stream`. Binary: GetHeaderSize() bytes in host order; the record is converted meanwhile,
    // and back even if the stream throws. Text: one line without a line end (docs/format.md), in plain decimal whatever
    // the stream's flags and locale. Returns: `stream`.
    // Throws: CR_STATUS_INVALID for text in network order; what the stream throws.
    std::ostream& ToStream(std::ostream& stream, bool binary) const;
    // The fields of the text form. It leaves out the list of containers, which the text has after the segments.
    static std::string const TEXT_STREAM_FORMAT_DESCRIPTION;

    // Compares byte order, type, flags, ntaskid, CID, size, ssize, CRC, nfp, fingerprint type, DO type, the number of
    // references of each kind and the first of each, and the entries (Throws: CR_STATUS_INVALID); nothing else.
    bool operator==(DORecord const& other) const;
    bool operator!=(DORecord const& other) const;

    // --- Segments -------------------------------------------------------------------------------------------------
    // 32 bytes from the start of the fingerprint, whatever its type. The setter writes all 32: after a 16-byte
    // fingerprint they overwrite what follows. It and SetSegmentDCID do not touch the record.
    crfp_digest_t const& GetSegmentFP(unsigned int i) const;
    void SetSegmentFP(unsigned int i, crfp_digest_t const& fingerprint);
    // The container of segment i, and of all. Conversions keep DCIDs, so they are not converted here.
    unsigned long GetSegmentDCID(unsigned int i) const;
    cr_unaligned_u64 const* GetSegmentDCIDList() const;
    void SetSegmentDCID(unsigned int i, unsigned long dcid);
    // Size of segment i, its offset (DO type 3), and its offset (DO type 5), in bytes. The size is stored (DO types 2,
    // 3, 5), or the low 32 bits of what ssize and size yield (0, 1). For other DO types the getters return 0xffffffff,
    // or 2^64 - 1 for 64 bits. The setters touch the record and store their argument unconverted: convert a record in
    // network order before. SetSegmentSize stores for DO types 2, 3 and 5 only; the others do not check the DO type.
    unsigned int GetSegmentSize(unsigned int i) const;
    void SetSegmentSize(unsigned int i, unsigned int size);
    unsigned long GetSegmentOffset(unsigned int i) const;
    void SetSegmentOffset(unsigned int i, unsigned long offset);
    unsigned int GetSegmentObjectOffset(unsigned int i) const;
    void SetSegmentObjectOffset(unsigned int i, unsigned int offset);
    // All segments, as host values. Throws: CR_STATUS_INVALID.
    DOSegmentRange Segments() const;
    // Check that the segments make up the object (docs/format.md, rules for the values); that no size is 2 GiB or more,
    // unless the record is a sub-DO; that no offset is 2^63 or more, as all are for a DO type without 64-bit offsets.
    // Throws: CR_STATUS_CORRUPT_DATA with the first rule that fails; CR_STATUS_INVALID if the buffer is not in the
    // order of IsInNetworkOrder(), checkSegmentList also with "invalid DO type" for CR_DO_TYPE_INVALID.
    void checkSegmentList() const;
    void checkSegmentSizeEndiannes() const;
    void checkSegmentOffsetEndiannes() const;

    // --- Unique DCID list and bloom filter ------------------------------------------------------------------------
    // Writes the list of the distinct containers and the object's bytes in each into the record: from the segments or,
    // for a bloom record, from its list, by converting that and the length word from big-endian to host order.
    // Precondition: a record in host order without legacy arrays; a bloom record as received: a second call byte-swaps
    // length word and list again.
    // Returns: CR_STATUS_OK, also if there is nothing to list; CR_STATUS_INVALID, logged, for typed references or a
    // container below CR_FIRST_FREE_DCID, and not logged for a record that would not fit its buffer or 4 GiB - 1;
    // CR_STATUS_NO_MEMORY. On failure: after the last, the length word of a bloom record is byte-swapped.
    cr_status_t AppendBloomAndUniqueDCIDList();
    // Merges the list of a received bloom record into `sizes`, replacing existing values, and byte-swaps its length
    // word at every call. The list must be big-endian, as received.
    // Returns: CR_STATUS_OK, also if it changes nothing: for another DO type or, logged, a list outside of the buffer.
    // Throws: std::bad_alloc. On failure: `sizes` has part of the entries, and the length word is byte-swapped.
    cr_status_t AppendBloom(cr_dcid_size_map_t& sizes);
    // Replaces the contents of `sizes` by the list and the record's own container, to which it adds GetDOSize().
    // Returns: CR_STATUS_OK; CR_STATUS_CORRUPT_RECORD for a record without a list, logged, or if the list is not inside
    // the buffer; CR_STATUS_NO_MEMORY, logged and stored in this thread's last status.
    // On failure: after CR_STATUS_NO_MEMORY, `sizes` has part of the entries.
    cr_status_t GetUDCIDSizeList(cr_dcid_size_map_t& sizes) const;
    // All entries of the list. Throws: CR_STATUS_INVALID.
    DOUniqueDCIDRange UniqueDCIDs() const;
    // The list's checksum word, and the container of its entry i. Conversions keep both, so they are not converted.
    unsigned char const* GetSegmentUDCIDList() const;
    unsigned long GetSegmentUDCID(unsigned int i) const;

    // --- Typed references -----------------------------------------------------------------------------------------
    // A wrong kind is logged and throws CR_STATUS_INVALID; a null or empty handle throws it as "NULL reference".

    // Add a reference of kind 2 (CR_REFTYPE_TASKID), 4 (CR_REFTYPE_DSID), 6 or 9, and touch the record. OwnTRef keeps
    // the handle, or takes the value from the caller, also if it fails; AddTRef keeps a copy.
    // Returns: 0 if the reference was added, 1 if the record had an equal one.
    // Throws: CR_STATUS_INVALID also if the record must not grow; CR_STATUS_NO_MEMORY; std::bad_alloc.
    int OwnTRef(tref_ptr_t reference);
    int OwnTRef(_cr_tref_t& reference);
    int AddTRef(_cr_tref_t const& reference);
    int AddTRef(tref_ptr_t reference);
    // Look up a reference of kind 4, 6 or 9.
    // Returns: CR_STATUS_OK if the record has it, and for kind 7 and kinds above CR_REFTYPE_END without a look-up;
    // CR_STATUS_NOT_FOUND, logged as a warning. Throws: CR_STATUS_INVALID, also for a null pointer ("NULL reference").
    cr_status_t CheckTRef(tref_ptr_t reference) const;
    cr_status_t CheckTRef(_cr_tref_t const* reference) const;
    // Remove a reference of kind 2, 4, 6, 8 or 9, and touch the record even if it does not have it.
    // Returns: the number of references removed, 0 or 1; 0 for a null pointer.
    // Throws: CR_STATUS_INVALID also if the record size is too small to be reduced. On failure: then the reference is
    // removed and the size of the reference section reduced, but not the record size.
    unsigned long DelTRef(tref_ptr_t reference);
    unsigned long DelTRef(_cr_tref_t const* reference);
    // Removes all references of one kind, if it is one. Does not touch the record. Throws and on failure: as DelTRef if
    // the record size is too small.
    void ClearTRefType(cr_reftype_t kind);
    // Removes the task ids (CR_REFTYPE_TASKID) and no other reference, and touches the record.
    // Throws: as ClearTRefType. On failure: the task ids before the one at which it failed are removed. That one is
    // still there, but not counted in the size of the reference section.
    void RemoveAllTRefs();
    // Bytes of the references in serialized form, of one kind and of all, computed from the sets.
    unsigned long GetTRefTypeTotalSize(cr_reftype_t kind) const;
    unsigned long calcTRefsSize() const;
    // Number of references in the sets: of all kinds, of one (0 for a number that is no kind), of task ids and of
    // DSIDs. The header's counts are those of legacy arrays.
    unsigned int GetNTRefs() const;
    unsigned int GetNTRefs(cr_reftype_t kind) const;
    unsigned int GetNtaskid() const;
    unsigned int GetNds() const;
    // The set of one kind; empty for a number that is no kind. An iterator is valid until its reference is removed or
    // the record is destroyed.
    tref_set_t::const_iterator GetTRefTypeBegin(cr_reftype_t kind) const;
    tref_set_t::const_iterator GetTRefTypeEnd(cr_reftype_t kind) const;
    // All references except those of kind 0, by kind and then by id: for (tref_ptr_t const& r : record.References()).
    tref_const_iterator_t GetTRefBegin() const;
    tref_const_iterator_t GetTRefEnd() const;
    tref_range_t References() const;
    // Bytes of the reference section by the header. setTRefsSize changes nothing else.
    unsigned int getTRefsSize() const;
    void setTRefsSize(unsigned int size);
    unsigned long GetSerializedTRefsSize() const;
    // As GetHeader. Returns: the start of the section.
    char* GetSerializedTRefs() const;
    // Loads `length` bytes of serialized references of any kind, drops those that the record has, and touches the
    // record. The bytes may be the record's own section.
    // Throws: the decoder's status (CR_STATUS_CORRUPT_RECORD, CR_STATUS_NO_MEMORY) with the text "Received a buffer
    // with corrupt typed references."; CR_STATUS_INVALID for null bytes or if the record must not grow; std::bad_alloc.
    // On failure: the references before the first that failed are loaded.
    void AddSerializedTRefs(char const* bytes, unsigned int length);
    // Touches the record.
    void handleUpdate();

    // --- Task ids and data selections -----------------------------------------------------------------------------
    // As AddTRef.
    int AddTaskID(unsigned long taskId);
    // If `callback` calls the task active: drops the inactive ones as RemoveInactiveTaskIDs does and adds the task.
    // Returns: 0 or 1 as AddTRef; CR_STATUS_INVALID, with nothing changed, for an inactive task or a null callback.
    // Throws: as AddTRef. On failure: inactive ones may be dropped.
    int AddTaskID(unsigned long taskId, cr_task_callback_t callback, void* context);
    // Removes every task id that `callback` calls inactive, and touches the record in any case. Returns: their number.
    // Throws: CR_STATUS_INVALID for a null callback ("NULL reference"); also, and on failure: as RemoveAllTRefs.
    unsigned long RemoveInactiveTaskIDs(cr_task_callback_t callback, void* context);
    // RemoveAllTRefs.
    void RemoveAllTaskIDs();
    // HasTaskID does not check whether the task is active. The others are as AddTRef and DelTRef.
    bool HasTaskID(unsigned long taskId) const;
    int AddDSID(unsigned int dsid);
    unsigned long DelDSID(unsigned int dsid);
    bool HasDSID(unsigned int dsid) const;
    // Converts legacy arrays to typed references and touches the record; without legacy arrays loads the reference
    // section and leaves mtime alone. Precondition: a record in host order.
    // Throws: CR_STATUS_INVALID for legacy arrays in a borrowed buffer; CR_STATUS_NOT_SUPPORTED for legacy arrays
    // together with typed references; as AddSerializedTRefs.
    // On failure: unchanged, but after CR_STATUS_CORRUPT_RECORD the references before the first that failed are loaded
    // and the section ends after them; beyond 4 GiB - 1, those converted before are in the sets.
    void convertToTRefs();

protected:
    // How the buffer grows.
    enum class CopyMode : unsigned int {
        Fixed = 0,    // not at all: it must not be copied
        Borrowed = 1, // by a copy to a buffer that the record owns
        Own = 2,      // by realloc
    };

    static constexpr unsigned int kKinds = CR_REFTYPE_END;
    DORecordHeader* header;
    unsigned long bufferSize;
    mutable bool networkOrder; // ToStream changes it, with the bytes, while it writes
    bool ownsBuffer;
    bool subDO;
    CopyMode copyMode;
    DOReferenceNodes nodes; // of trefs; its comment says what may outlive the record
    tref_set_t trefs[kKinds];
    unsigned long spare; // 0

private:
    friend struct crrecord::RecordInternals;
    CRRECORD_LOCAL DORecord() noexcept;
    // `width` bytes at an offset from the start of the buffer, or null if they are not inside it.
    unsigned char const* BytesAt(unsigned long offset, unsigned int width) const;
    // A field of entry i, or `none` if the entry has no field of this width or is not inside the buffer.
    template <class T>
    T NumberInEntry(unsigned int i, unsigned int width, unsigned int position, T none) const;
};

#include <crrecord/segment_accessors.h>
#include <crrecord/tref_iterator.h>
