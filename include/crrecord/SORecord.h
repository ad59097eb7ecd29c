// SORecord: the record of one stored segment, as a class.

#pragma once

#include <crrecord/SOmarshall.h>

#include <memory>

// Owns one segment record of 104 bytes (SOmarshall.h), without task ids and fingerprints. It is in host order after
// construction. Accessors take and return host values in either order.
//
// Errors: operations throw Cr_ErrnoException and leave the record unchanged. A refused argument has CR_STATUS_INVALID
// and no text.
//
// Thread safety: one thread at a time uses a record.
class CRRECORD_API SORecord {
public:
    // Builds a record for a segment in a container. Container id and size in bytes have 32 bits here; the setters take
    // 64. `key` points to CR_SO_KEY_SIZE bytes, which are copied.
    // Throws: CR_STATUS_NO_MEMORY, logged; CR_STATUS_INVALID for the first of flags, container, key (null) and
    // fingerprint type that its setter refuses.
    SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc, char const* key,
             unsigned char cryptoMode, unsigned char fpType);
    // Frees the buffer.
    virtual ~SORecord();
    SORecord(SORecord const&) = delete;
    SORecord& operator=(SORecord const&) = delete;

    // Builds a record from a copy of `size` received bytes, which may be any bytes, in either order: detects the order,
    // validates, copies and converts to host order. No option is defined.
    // Returns: a record, never null.
    // Throws: CR_STATUS_CORRUPT_RECORD with the message of the first error, also for a valid record of another size;
    // CR_STATUS_INVALID for null or any option bit; CR_STATUS_NO_MEMORY, logged.
    static std::unique_ptr<SORecord> FromBuffer(void const* buffer, unsigned long size, unsigned int options = 0);

    // Throws: CR_STATUS_INVALID for flags other than 0 and 2.
    unsigned short GetFlags() const;
    void SetFlags(unsigned short flags);

    // The container, or 0 for a segment in a file.
    unsigned long GetDCID() const;
    // Sets the path id to the container, and the file id to 0.
    // Throws: CR_STATUS_INVALID for the reserved ids 0 and 2 to 63.
    void SetDCID(unsigned long dcid);
    // The fields themselves, whatever the segment is in.
    unsigned long GetPathID() const;
    unsigned long GetFileID() const;

    // Size of the segment in bytes, the creator's checksum, and the time of the last check in seconds since the epoch.
    unsigned long GetSize() const;
    void SetSize(unsigned long size);
    unsigned int GetCRC() const;
    void SetCRC(unsigned int crc);
    unsigned int GetCheckTime() const;
    void SetCheckTime(unsigned int seconds);

    // Throws: CR_STATUS_INVALID for an unknown type.
    unsigned char GetFPType() const;
    void SetFPType(unsigned char fpType);
    // Carried as it is.
    unsigned char GetCryptoMode() const;
    void SetCryptoMode(unsigned char cryptoMode);
    // Always in the byte order of its writer: no accessor and no conversion byte-swaps it.
    unsigned short GetKeyIndex() const;
    void SetKeyIndex(unsigned short keyIndex);
    // The CR_SO_KEY_SIZE key bytes inside the record, which need not end in a NUL.
    // Lifetime: that of the record.
    char const* GetKey() const;
    // Copies CR_SO_KEY_SIZE bytes, whatever they hold. They may be GetKey's.
    // Throws: CR_STATUS_INVALID for null.
    void SetKey(char const* key);

    // The buffer of GetHeaderSize() bytes, in the order that IsInNetworkOrder returns.
    // Lifetime: that of the record.
    _SegmentDBRecord* GetHeader() const;
    // Returns: CR_SO_RECORD_SIZE.
    unsigned int GetHeaderSize() const;

    // The order of the buffer.
    bool IsInNetworkOrder() const;
    // Convert the buffer in place, unless it is in that order. `options` as for SegmentRecordHton.
    // Throws: CR_STATUS_INVALID if counts that were written through GetHeader lead out of the buffer. One task id stays
    // inside, and so does any number of task ids that are stripped; a fingerprint does not.
    void HostToNetwork(unsigned int options);
    void NetworkToHost(unsigned int options);

    // Compares the 104 bytes, so records in different orders are unequal.
    bool operator==(SORecord const& other) const;
    bool operator!=(SORecord const& other) const { return !(*this == other); }

protected:
    struct Blank {};
    CRRECORD_LOCAL explicit SORecord(Blank);
    CRRECORD_LOCAL void requireCountsInBuffer(unsigned int options) const;

    _SegmentDBRecord* record_;
    bool ownsBuffer_;
    bool networkOrder_;
};
