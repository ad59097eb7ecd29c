// DORecord: the record of one stored object, as a class.
//
// A record owns or borrows one contiguous buffer (DORecordHeader.h) and keeps the object's typed references in memory,
// in one ordered set per kind. The sets are authoritative: GetHeader and GetSerializedTRefs write the buffer's
// reference section from them.
//
// Byte order: the buffer is in host order after construction; HostToNetwork and NetworkToHost convert it in place.
// Accessors take and return host values in either order, unless their comment says that the value is not converted.
//
// Errors: an operation throws Cr_ErrnoException with a status and, unless stated otherwise, a text; one that allocates
// may also throw std::bad_alloc. Operations that return cr_status_t return their failures. An operation that walks
// sections of the buffer first checks that they are inside it. They are not if an unchecked setter, or a write through
// GetHeader, made header and buffer disagree. Then the operation changes nothing and throws or returns
// CR_STATUS_INVALID, thrown with the text "invalid record size for DO", unless stated otherwise. A record has at most 4
// GiB - 1 bytes; an operation that would exceed them fails the same way. After any other failure, too, the record is
// unchanged unless "On failure" is stated.
//
// Indexes: accessors that take an index expect one below GetNfp(), or GetNudcid(); debug builds assert it. They never
// leave the buffer. For an element that is not inside it, as after SetFPType to another width, getters return zeros, or
// the value for "not stored" if there is one, and setters store nothing and throw CR_STATUS_INVALID "invalid record
// size for DO". Accessors that return a list or the start of a section return an address and check nothing. Accessors
// of fields need a buffer, which a record lacks after init has failed.
//
// Modification time: an operation that is said to touch the record sets mtime to the current time.
//
// Thread safety: one thread at a time uses a record and its references. Const operations are no exception: GetHeader,
// GetSerializedTRefs and ToStream write the reference section, and ToStream converts the buffer and converts it back.

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
struct RecordInternals;
} // namespace crrecord

// Container id -> number of the object's bytes in that container.
typedef std::map<unsigned long, unsigned long> cr_dcid_size_map_t;

// Returns 0 if the task is inactive, any other value if it is active. `context` is the caller's. The callback must not
// change or destroy the record that calls it; debug builds assert that it adds and removes no task ids. An exception
// that it throws is passed on: tasks removed before it stay removed, and mtime is unchanged.
typedef int (*cr_task_callback_t)(unsigned long taskId, void* context);

class CRRECORD_API DORecord {
public:
    typedef boost::intrusive_ptr<Cr_TRef> tref_ptr_t;
    typedef std::set<tref_ptr_t, Cr_TRefComparator> tref_set_t;
    class tref_const_iterator_t; // tref_iterator.h
    class tref_range_t;

    // --- Construction ---------------------------------------------------------------------------------------------

    // Builds a record from segments; the arrays are copied. `size` and `ssize` are bytes; a `ctime` or `mtime` of 0
    // means the current time. `segments` is an array of `nsegments` packed entries as the DO type has them
    // (DORecordHeader.h), in host order; `dcids` holds the container of each; `udcidList` is null or a complete unique
    // DCID list in host order, 8 + 16 * count bytes by its own count. CR_DO_TYPE_BLOOM_FILTER takes no segments, every
    // other type some.
    // Throws: CR_STATUS_INVALID for missing or superfluous segments, missing containers, a container below
    // CR_FIRST_FREE_DCID, or a list that does not match its checksum; CR_STATUS_INVALID_DO_TYPE;
    // CR_STATUS_INVALID_FP_TYPE; CR_STATUS_CORRUPT_DATA for segments that checkSegmentList rejects;
    // CR_STATUS_NO_MEMORY.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, void const* segments, unsigned int nsegments, unsigned long const* dcids,
             char const* udcidList, unsigned char fptype, unsigned char dotype);

    // Builds a bloom record from a bitmap of `bsize` bytes, which is copied. `udcidList` as above. With another DO type
    // than CR_DO_TYPE_BLOOM_FILTER the record keeps `bsize` and no bitmap (CR_FINDING_DO_BSIZE).
    // Throws: CR_STATUS_INVALID without a bitmap, for a `bsize` of 0 with CR_DO_TYPE_BLOOM_FILTER, or for a list that
    // does not match its checksum; CR_STATUS_INVALID_DO_TYPE; CR_STATUS_INVALID_FP_TYPE; CR_STATUS_NO_MEMORY.
    DORecord(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
             unsigned int mtime, unsigned int bsize, unsigned char const* bitmap, char const* udcidList,
             unsigned char fptype, unsigned char dotype);

    // Builds a record from an exchange form of `serializedSize` bytes, which may be any bytes. The form holds neither
    // DO type nor fingerprint type. The record borrows `buffer`, of `bufferSize` bytes, until it grows; if `buffer` is
    // null or too small, the record allocates. A sub-DO takes the container of its first segment as its own.
    // Throws: CR_STATUS_NULL_ARGUMENT for a null form; CR_STATUS_INVALID_DO_TYPE; CR_STATUS_CORRUPT_RECORD for bytes
    // that are not such a form; CR_STATUS_INVALID beyond 4 GiB - 1 or if the form and `buffer` overlap;
    // CR_STATUS_NO_MEMORY; all these without a text.
    // CR_STATUS_INVALID for an unknown fingerprint type; CR_STATUS_CORRUPT_DATA for segments that checkSegmentList
    // rejects.
    // On failure: the bytes of `buffer` are unspecified, but unchanged if it overlaps the form.
    // Lifetime: `buffer` must outlive the record, or its first growth.
    DORecord(unsigned int dotype, unsigned char fptype, void* buffer, unsigned long bufferSize, void const* serialized,
             unsigned long serializedSize, bool subDO);

    // Builds a record from a copy of `size` stored bytes, which may be any bytes, in either order: detects the order,
    // copies them, validates the copy, converts it to host order and loads the references, legacy arrays included. The
    // only option is CR_DO_SUB_DO. The bytes may change during the call: the record is valid all the same.
    // Returns: a record, never null.
    // Throws: CR_STATUS_CORRUPT_RECORD with the message of the first error; CR_STATUS_NOT_SUPPORTED for legacy arrays
    // together with typed references; CR_STATUS_INVALID, without a text, for null or another option bit;
    // CR_STATUS_NO_MEMORY if the bytes are valid.
    static std::unique_ptr<DORecord> FromBuffer(void const* buffer, unsigned long size, unsigned int options = 0);

    // Builds a record in the caller's `capacity` bytes of memory, of which the first `size` are the record, without a
    // copy: converts them to host order in place and works in them. If `fixed`, the record never leaves this memory and
    // cannot grow beyond it; otherwise growth copies it to a buffer of the record's own.
    // Throws: as FromBuffer; CR_STATUS_INVALID for a capacity below the size, and for legacy arrays.
    // On failure: the bytes are unchanged.
    // Lifetime: the memory must outlive the record, or its first growth. From the call on nobody else may change it: a
    // change can make the record leave the memory.
    static std::unique_ptr<DORecord> Wrap(void* buffer, unsigned long size, unsigned long capacity, bool fixed,
                                          unsigned int options = 0);

    // DORecordHeaderValidate with the same arguments.
    static cr_status_t ValidateHeader(void const* buffer, unsigned int size, unsigned int options);

    // Frees the buffer if the record owns it, and releases the references.
    virtual ~DORecord();
    DORecord(DORecord const&) = delete;
    DORecord& operator=(DORecord const&) = delete;

    // The work of the first two constructors, with their statuses, and with task ids to add, of which there must not be
    // a count without an array (CR_STATUS_INVALID). init with null segments writes zeroed entries and does not check
    // them. An existing record is built anew, in host order and in a new buffer that it owns: it releases its
    // references and frees the former buffer, or leaves it unchanged if it was borrowed. The sub-DO flag stays and
    // applies to the new segments.
    // On failure: the record has no buffer. It may only be destroyed, or built once more.
    void init(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
              unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, void const* segments,
              unsigned int nsegments, unsigned long const* dcids, char const* udcidList, unsigned char fptype,
              unsigned char dotype);
    void initWithBloom(unsigned long CID, unsigned long size, unsigned long ssize, unsigned int CRC, unsigned int ctime,
                       unsigned int mtime, unsigned long const* taskIDs, unsigned int ntaskIDs, unsigned int bsize,
                       unsigned char const* bitmap, char const* udcidList, unsigned char fptype, unsigned char dotype);
    // Frees the buffer if the record owns it; then the record has none. A record with a borrowed buffer is unchanged.
    void cleanupConstruction();

    // --- Header fields --------------------------------------------------------------------------------------------

    // Bits 0x0002 and 0x0004; 0x0002 in a built record, 0 in one made from an exchange form.
    unsigned short GetFlags() const;
    // Bytes of the whole record; both return the same.
    unsigned int GetHeaderSize() const;
    unsigned int getRecSize() const;
    unsigned int GetCheckTime() const;
    // The container of the record itself.
    unsigned long GetDCID() const;
    // Bytes of the object, and of a segment of DO types 0 and 1.
    unsigned long GetSize() const;
    unsigned long GetSsize() const;
    unsigned int GetCrc() const;
    // Creation and last change, in seconds since the epoch.
    unsigned int GetCTime() const;
    unsigned int GetMTime() const;
    // Number of segments, and of entries of the unique DCID list; bytes of the bloom bitmap.
    unsigned int GetNfp() const;
    unsigned int GetNudcid() const;
    unsigned int GetBSize() const;
    unsigned char GetFPType() const;
    unsigned char GetDOType() const;
    // Bytes of the unique DCID list by the stored count, which is not converted: meaningless in network order.
    unsigned int GetUDCIDSize() const;
    // Bytes of the record beyond CR_DO_RECORD_SIZE.
    unsigned long GetDOSize() const;
    // The order that the accessors use: set by HostToNetwork, cleared by NetworkToHost.
    bool IsInNetworkOrder() const;
    // A sub-DO may have segments of up to 4 GiB - 1. No field of the buffer stores this.
    bool IsSubDO() const;
    void SetSubDO(bool subDO);
    // DORecordHeaderGetPOID: the container of the record itself.
    unsigned long GetPOID() const;
    // The first byte of the bitmap, or null without one; and the length word before it (DORecordHeader.h).
    unsigned char const* GetBloom() const;
    unsigned char const* GetBloomStart() const;

    // Time of the last check, in seconds since the epoch. Neither setter touches the record.
    void setCheckTime(unsigned int seconds);
    void SetCheckTime(unsigned int seconds);
    // The container of the record itself. Only SetDCID touches the record.
    void setDCID(unsigned long dcid);
    void SetDCID(unsigned long dcid);
    // setFPType throws CR_STATUS_INVALID "invalid fptype for DO" for an unknown type, and setFlags logs
    // CR_STATUS_INVALID for an unknown bit; both then store nothing, and neither touches the record. SetFPType and
    // SetFlags store any value and touch the record; SetFlags logs as setFlags does. Another width of fingerprints
    // moves all sections.
    void setFPType(unsigned char fptype);
    void SetFPType(unsigned char fptype);
    void setFlags(unsigned short flags);
    void SetFlags(unsigned short flags);

    // Brings the section of the references up to date and returns the complete buffer of GetHeaderSize() bytes. Writes
    // nothing if the section is up to date.
    // Throws: CR_STATUS_INVALID if there are references and their section is not inside the buffer.
    // Lifetime: the buffer belongs to the record and is valid until the record grows or is destroyed.
    DORecordHeader* GetHeader() const;

    // --- Buffer ---------------------------------------------------------------------------------------------------

    // Sets the size of the reference section to 0, clears its bytes, and sets the record size to the computed one. The
    // sets stay as they are.
    void initReferenceSets();
    // The record size in bytes that follows from the header's counts, without legacy arrays.
    unsigned int calcRecSize() const;
    // Stores the record size in bytes. The buffer stays as it is.
    // Throws: CR_STATUS_INVALID below CR_DO_RECORD_SIZE.
    void setRecSize(unsigned int size);
    // Grows the buffer to at least `size` bytes (by default the record size), in whole pages, with zeros; never shrinks
    // it. A borrowed buffer is copied to one that the record owns.
    // Throws: CR_STATUS_INVALID if the buffer must not be copied; CR_STATUS_NO_MEMORY.
    void expand(unsigned int size);
    void expand();

    // --- Byte order -----------------------------------------------------------------------------------------------

    // Convert the whole record in place. They do not check the current order: a second call byte-swaps the record
    // again, but the accessors still expect the order of the name. Bit 0 of `options` calls RemoveAllTRefs afterwards.
    // Throws: CR_STATUS_INVALID; if RemoveAllTRefs throws it, the record is converted.
    void HostToNetwork(unsigned int options);
    void NetworkToHost(unsigned int options);

    // --- Exchange forms -------------------------------------------------------------------------------------------

    // Write the exchange form (docs/format.md) into a new block of *outLength bytes; Serialize writes the bloom form
    // for CR_DO_TYPE_BLOOM_FILTER. With `withChecksum` the Adler-32 of the body replaces the record's CRC; the bloom
    // form always has it.
    // Returns: CR_STATUS_OK; CR_STATUS_INVALID for a record in network order, of the wrong DO type, or whose sections
    // are not inside the buffer; CR_STATUS_NULL_ARGUMENT; CR_STATUS_NO_MEMORY, which is logged, with *out null.
    // On failure: *outLength is unchanged, and *out too unless memory is lacking.
    // Lifetime: the caller releases *out with SerializedDORecordFree.
    cr_status_t Serialize(void** out, unsigned long* outLength, bool withChecksum) const;
    cr_status_t SerializeBloomFilterDO(void** out, unsigned long* outLength, bool withChecksum) const;
    // Releases *serialized and sets it to null; null pointers are allowed.
    static void SerializedDORecordFree(void** serialized);

    // --- Digest, text, comparison ---------------------------------------------------------------------------------

    // One fingerprint for the whole object, of the record's fingerprint type and with the record's container. It is the
    // fingerprint of a single segment; otherwise a hash over fingerprints, sizes and offsets, or over bloom area and
    // unique list (docs/format.md). Different content may have equal digests: the digest covers neither GetSize() (a
    // hole at the object's end) nor, for a single segment, its offset (a hole at the start). The fingerprint of a
    // single segment may be the digest of other segments. A key for content needs fingerprint type, DO type, GetSize(),
    // GetNfp() and the first offset, too. That of a bloom record identifies no content.
    // Returns: the digest, which the caller releases with CRTDigestDelete; null for CR_DO_TYPE_ORIGINAL with a number
    // of segments other than one.
    // Throws: CR_STATUS_INVALID in network order; the status of the fingerprint functions; CR_STATUS_NO_MEMORY.
    crt_digest_t* GetDigest() const;

    // Writes the record to `stream`. Binary: GetHeaderSize() bytes in host order. Text: one line without a line end, in
    // the form of TEXT_STREAM_FORMAT_DESCRIPTION (docs/format.md), in plain decimal whatever the stream's flags and
    // locale. During a binary write the record is in host order; afterwards it is in its former order, also if the
    // stream throws.
    // Returns: `stream`.
    // Throws: CR_STATUS_INVALID for text in network order; what the stream throws.
    std::ostream& ToStream(std::ostream& stream, bool binary) const;
    // The fields of the text form. It leaves out the list of containers, which the text has after the segments.
    static std::string const TEXT_STREAM_FORMAT_DESCRIPTION;

    // Equal are records with the same byte order, type, flags, ntaskid, CID, size, ssize, CRC, nfp, fingerprint type
    // and DO type, with the same number of references of each kind and equal first ones, and with equal entries.
    // Containers, lists, times and all other references are not compared.
    // Throws: CR_STATUS_INVALID if the entries are not inside the buffer.
    bool operator==(DORecord const& other) const;
    bool operator!=(DORecord const& other) const;

    // --- Segments -------------------------------------------------------------------------------------------------

    // 32 bytes from the start of the fingerprint, whatever its type.
    crfp_digest_t const& GetSegmentFP(unsigned int i) const;
    // Copies 32 bytes, whatever the type: after a 16-byte fingerprint the second half overwrites what follows. Does not
    // touch the record.
    void SetSegmentFP(unsigned int i, crfp_digest_t const& fingerprint);
    // The container of segment i, and of all. Conversions keep DCIDs, so they are not converted here. SetSegmentDCID
    // does not touch the record.
    unsigned long GetSegmentDCID(unsigned int i) const;
    cr_unaligned_u64 const* GetSegmentDCIDList() const;
    void SetSegmentDCID(unsigned int i, unsigned long dcid);
    // Size of segment i in bytes: stored (DO types 2, 3, 5), or the low 32 bits of what ssize and size yield (0, 1);
    // 0xffffffff for other DO types. SetSegmentSize stores for DO types 2, 3 and 5 only. It and the setters below store
    // their argument unconverted, unlike the getters: convert a record in network order before. They touch the record.
    unsigned int GetSegmentSize(unsigned int i) const;
    void SetSegmentSize(unsigned int i, unsigned int size);
    // Offset of segment i in bytes, of DO type 3; 2^64 - 1 for other DO types. The setter does not check the DO type.
    unsigned long GetSegmentOffset(unsigned int i) const;
    void SetSegmentOffset(unsigned int i, unsigned long offset);
    // Offset of segment i in bytes, of DO type 5; 0xffffffff for other DO types. The setter does not check the DO type.
    unsigned int GetSegmentObjectOffset(unsigned int i) const;
    void SetSegmentObjectOffset(unsigned int i, unsigned int offset);
    // All segments, as host values.
    // Throws: CR_STATUS_INVALID.
    // Lifetime: valid until the record changes, grows or is destroyed.
    DOSegmentRange Segments() const;

    // Checks that the segments make up the object (docs/format.md, rules for the values). checkSegmentSizeEndiannes
    // checks only that no size is 2 GiB or more, unless the record is a sub-DO; checkSegmentOffsetEndiannes checks only
    // that no offset is 2^63 or more, which fails for every segment of a DO type without 64-bit offsets. Such values
    // are probably in the wrong byte order.
    // Throws: CR_STATUS_CORRUPT_DATA with the first rule that fails; checkSegmentList also CR_STATUS_INVALID "invalid
    // DO type" for CR_DO_TYPE_INVALID, and "invalid record size for DO" for a buffer that is not in the order of
    // IsInNetworkOrder().
    void checkSegmentList() const;
    void checkSegmentSizeEndiannes() const;
    void checkSegmentOffsetEndiannes() const;

    // --- Unique DCID list and bloom filter ------------------------------------------------------------------------

    // Computes the list of the distinct containers and the object's bytes in each, and writes it into the record. It is
    // computed from the segments; for a bloom record from the big-endian list that it was received with, whose length
    // word and entries are converted to host order.
    // Precondition: a record in host order without legacy arrays (in network order it writes a count that no function
    // reads back), and a bloom record as received: a second call byte-swaps length word and list again.
    // Returns: CR_STATUS_OK, also if there is nothing to list; CR_STATUS_INVALID, logged, for typed references or a
    // container below CR_FIRST_FREE_DCID, and not logged for a record that would not fit its buffer or 4 GiB - 1;
    // CR_STATUS_NO_MEMORY.
    // On failure: unchanged, but after CR_STATUS_NO_MEMORY the length word of a bloom record is byte-swapped.
    cr_status_t AppendBloomAndUniqueDCIDList();
    // Merges the list of a received bloom record into `sizes`, replacing existing values, and byte-swaps its length
    // word at every call. The list must be big-endian, as received: of a list in host order it merges byte-swapped
    // entries.
    // Returns: CR_STATUS_OK, always: also if it merges nothing and changes nothing, for another DO type or, logged, if
    // the list is not inside the buffer. Throws: std::bad_alloc. On failure: `sizes` has part of the entries, and the
    // length word is byte-swapped.
    cr_status_t AppendBloom(cr_dcid_size_map_t& sizes);
    // Replaces the contents of `sizes` by the list and the record's own container, to which it adds GetDOSize().
    // Returns: CR_STATUS_OK; CR_STATUS_CORRUPT_RECORD for a record without a list, logged, or if the list is not inside
    // the buffer; CR_STATUS_NO_MEMORY, logged and stored in this thread's last status.
    // On failure: `sizes` is unchanged, but after CR_STATUS_NO_MEMORY it has part of the entries.
    cr_status_t GetUDCIDSizeList(cr_dcid_size_map_t& sizes) const;
    // All entries of the list.
    // Throws: CR_STATUS_INVALID.
    // Lifetime: valid until the record changes, grows or is destroyed.
    DOUniqueDCIDRange UniqueDCIDs() const;
    // The list's checksum word, and the container of its entry i. Conversions keep both, so they are not converted.
    unsigned char const* GetSegmentUDCIDList() const;
    unsigned long GetSegmentUDCID(unsigned int i) const;

    // --- Typed references -----------------------------------------------------------------------------------------

    // Add a reference of kind 2 (CR_REFTYPE_TASKID), 4 (CR_REFTYPE_DSID), 6 or 9, and touch the record. OwnTRef keeps
    // the handle, or takes the value from the caller, also if it fails; AddTRef keeps a copy.
    // Returns: 0 if the reference was added, 1 if the record had an equal one.
    // Throws: CR_STATUS_INVALID for another kind, logged, for a null or empty handle ("NULL reference"), and if the
    // record must not grow; CR_STATUS_NO_MEMORY; std::bad_alloc.
    int OwnTRef(tref_ptr_t reference);
    int OwnTRef(_cr_tref_t& reference);
    int AddTRef(_cr_tref_t const& reference);
    int AddTRef(tref_ptr_t reference);
    // Looks a reference of kind 4, 6 or 9 up.
    // Returns: CR_STATUS_OK if the record has it, and for kind 7 and kinds above CR_REFTYPE_END without a look-up;
    // CR_STATUS_NOT_FOUND, logged as a warning.
    // Throws: CR_STATUS_INVALID for every other kind, logged, and for a null reference ("NULL reference").
    cr_status_t CheckTRef(tref_ptr_t reference) const;
    cr_status_t CheckTRef(_cr_tref_t const* reference) const;
    // Remove a reference of kind 2, 4, 6, 8 or 9, and touch the record even if it does not have it.
    // Returns: the number of references removed, 0 or 1; 0 for a null pointer.
    // Throws: CR_STATUS_INVALID for another kind, logged, for a null or empty handle ("NULL reference"), and if the
    // record size is too small to be reduced.
    // On failure: after the last, the reference is removed and the size of the reference section reduced, but not the
    // record size.
    unsigned long DelTRef(tref_ptr_t reference);
    unsigned long DelTRef(_cr_tref_t const* reference);
    // Removes all references of one kind. Does not touch the record. A number that is no kind has none.
    // Throws: CR_STATUS_INVALID if the record size is too small to be reduced.
    // On failure: as DelTRef.
    void ClearTRefType(cr_reftype_t kind);
    // Removes the task ids (CR_REFTYPE_TASKID) and no other reference, and touches the record.
    // Throws: CR_STATUS_INVALID if the record size is too small to be reduced.
    // On failure: the task ids before the one at which it failed are removed. That one is still there, but not counted
    // in the size of the reference section.
    void RemoveAllTRefs();

    // Bytes of the references in serialized form, of one kind and of all, computed from the sets.
    unsigned long GetTRefTypeTotalSize(cr_reftype_t kind) const;
    unsigned long calcTRefsSize() const;
    // Number of references, of all kinds and of one. 0 for a number that is no kind.
    unsigned int GetNTRefs() const;
    unsigned int GetNTRefs(cr_reftype_t kind) const;
    // Number of task ids and of DSIDs in the sets; the header's fields count legacy arrays.
    unsigned int GetNtaskid() const;
    unsigned int GetNds() const;
    // The set of one kind; an empty range for a number that is no kind. An iterator is valid until its reference is
    // removed or the record is destroyed.
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
    // Writes the references into their section and returns its start. Throws and lifetime as GetHeader.
    char* GetSerializedTRefs() const;
    // Loads `length` bytes of serialized references of any kind, drops those that the record has, and touches the
    // record. The bytes may be the record's own section.
    // Throws: the decoder's status (CR_STATUS_CORRUPT_RECORD, CR_STATUS_NO_MEMORY) with the text "Received a buffer
    // with corrupt typed references."; CR_STATUS_INVALID for null bytes or if the record must not grow; std::bad_alloc.
    // On failure: the references before the first that failed are loaded.
    void AddSerializedTRefs(char const* bytes, unsigned int length);
    // Touches the record: sets mtime to the current time.
    void handleUpdate();

    // --- Task ids and data selections -----------------------------------------------------------------------------

    // As AddTRef, without a null reference.
    int AddTaskID(unsigned long taskId);
    // If `callback` calls the task active: drops the inactive ones as RemoveInactiveTaskIDs does and adds the task.
    // Returns: 0 or 1 as AddTRef; CR_STATUS_INVALID, with nothing changed, for an inactive task or a null callback.
    // Throws: as AddTRef.
    // On failure: inactive ones may be dropped.
    int AddTaskID(unsigned long taskId, cr_task_callback_t callback, void* context);
    // Removes every task id that `callback` calls inactive, and touches the record in any case.
    // Returns: the number removed.
    // Throws: CR_STATUS_INVALID for a null callback ("NULL reference"); as RemoveAllTRefs.
    // On failure: as RemoveAllTRefs.
    unsigned long RemoveInactiveTaskIDs(cr_task_callback_t callback, void* context);
    // RemoveAllTRefs.
    void RemoveAllTaskIDs();
    // Whether the record has a task id; does not check whether the task is active.
    bool HasTaskID(unsigned long taskId) const;
    // As AddTRef and DelTRef, without a null reference.
    int AddDSID(unsigned int dsid);
    unsigned long DelDSID(unsigned int dsid);
    bool HasDSID(unsigned int dsid) const;
    // Converts legacy arrays to typed references and touches the record; without legacy arrays loads the reference
    // section and leaves mtime alone.
    // Precondition: a record in host order.
    // Throws: CR_STATUS_INVALID for legacy arrays in a borrowed buffer; CR_STATUS_NOT_SUPPORTED for legacy arrays
    // together with typed references; as AddSerializedTRefs; std::bad_alloc.
    // On failure: unchanged, but after CR_STATUS_CORRUPT_RECORD the references before the first that failed are loaded
    // and the section ends after them, and if the references would exceed 4 GiB - 1, those converted before are in the
    // sets.
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
