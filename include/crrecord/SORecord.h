// SORecord: the record of one stored segment, as a class.

#pragma once

#include <crrecord/SOmarshall.h>

#include <memory>

// Owns one segment record of 104 bytes, without task ids and fingerprints, in host order from construction on.
// Accessors give and take host values in either order. Failures throw Cr_ErrnoException and leave the record as it was;
// refused arguments carry status 9 and no text.
//
// Threads: a record is used by one thread at a time.
class CRRECORD_API SORecord {
public:
    // Container id and size are 32 bits here; the setters can raise them to 64. `key` gives 33 bytes. Checked in this
    // order, each with status 9: flags, container, key (null), fingerprint type. Status 22 without memory.
    SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc, char const* key,
             unsigned char cryptoMode, unsigned char fpType);
    virtual ~SORecord();
    SORecord(SORecord const&) = delete;
    SORecord& operator=(SORecord const&) = delete;

    // A record from `size` received bytes in either order, which it finds out by itself: validates, copies, brings to
    // host order. Throws 32 with the first error's message for bytes that are not one valid record of 104 bytes, 9 for
    // null or any option bit, 22 without memory.
    static std::unique_ptr<SORecord> FromBuffer(void const* buffer, unsigned long size, unsigned int options = 0);

    unsigned short GetFlags() const;
    void SetFlags(unsigned short flags); // 0 and 2 only

    // The container, or 0 for a segment that lies in a file.
    unsigned long GetDCID() const;
    // 1, or 64 and above; 0 and 2 to 63 are reserved. Sets the file id to 0.
    void SetDCID(unsigned long dcid);
    unsigned long GetPathID() const;
    unsigned long GetFileID() const;

    unsigned long GetSize() const;
    void SetSize(unsigned long size);
    unsigned int GetCRC() const;
    void SetCRC(unsigned int crc);
    unsigned int GetCheckTime() const;
    void SetCheckTime(unsigned int seconds); // since the epoch

    unsigned char GetFPType() const;
    void SetFPType(unsigned char fpType); // a known type only
    unsigned char GetCryptoMode() const;
    void SetCryptoMode(unsigned char cryptoMode);
    // Kept in the writer's byte order: never swapped, in either direction or order.
    unsigned short GetKeyIndex() const;
    void SetKeyIndex(unsigned short keyIndex);
    // The 33 key bytes inside the record; they need not end in a NUL.
    char const* GetKey() const;
    // Copies exactly 33 bytes, whatever they hold; null throws.
    void SetKey(char const* key);

    // The record's own buffer of GetHeaderSize() bytes, in the order that IsInNetworkOrder tells. It stays the
    // record's, and lives as long.
    _SegmentDBRecord* GetHeader() const;
    unsigned int GetHeaderSize() const; // always 104

    bool IsInNetworkOrder() const;
    // Convert the buffer in place; nothing happens if it is in that order already. `options` as for SegmentRecordHton.
    // Throws: CR_STATUS_INVALID if counts that were written through GetHeader lead out of the buffer. A count of one
    // task id stays inside, and so does any count of task ids that are stripped; a fingerprint does not.
    void HostToNetwork(unsigned int options);
    void NetworkToHost(unsigned int options);

    // Byte for byte over the 104 bytes, so records in different orders are unequal.
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
