// SORecord over one segment record buffer.

#include <crrecord/SORecord.h>

#include "SOmarshall/layout.h"
#include "SOmarshall/validate.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

using crrecord::FindingReporter;
using crrecord::FirstError;
using crrecord::Order;
namespace segment = crrecord::segment;

constexpr char kSource[] = "SORecord/SORecord.cpp";

// Converts one field either way between the record's order and the host's.
template <class T>
T InOrder(T value, bool networkOrder) noexcept {
    return networkOrder ? crrecord::ByteSwapped(value) : value;
}

[[noreturn]] void Refuse() {
    throw Cr_ErrnoException(CR_STATUS_INVALID);
}

[[noreturn]] void FailWithoutMemory() {
    ErrorA(CR_STATUS_NO_MEMORY, "%s: memory allocation of %u bytes failed!", "SORecord", CR_SO_RECORD_SIZE);
    throw Cr_ErrnoException(CR_STATUS_NO_MEMORY, zebLogLastMessageA(), nullptr);
}

void _CheckFree(_SegmentDBRecord*& record) noexcept {
    if (record) {
        std::free(record);
        record = nullptr;
    }
}

} // namespace

SORecord::SORecord(Blank) : record_(nullptr), ownsBuffer_(true), networkOrder_(false) {
    record_ = static_cast<_SegmentDBRecord*>(std::calloc(1, CR_SO_RECORD_SIZE));
    if (!record_) {
        FailWithoutMemory();
    }
}

SORecord::SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc, char const* key,
                   unsigned char cryptoMode, unsigned char fpType)
    : SORecord(Blank{}) {
    // The object is complete since the blank construction, so its destructor frees the buffer when a check throws.
    record_->type = CR_SO_RECORD_TYPE;
    SetFlags(flags);
    SetDCID(dcid);
    SetSize(size);
    SetCRC(crc);
    SetKey(key);
    SetCryptoMode(cryptoMode);
    SetFPType(fpType);
    record_->recsize = static_cast<unsigned int>(segment::RecordSize(record_->ntaskids, record_->nfp, record_->fptype));
}

SORecord::~SORecord() {
    if (ownsBuffer_) {
        _CheckFree(record_);
    }
}

std::unique_ptr<SORecord> SORecord::FromBuffer(void const* buffer, unsigned long size, unsigned int options) {
    if (!buffer || options != 0) {
        Refuse();
    }
    // The copy is what is checked and kept: the buffer may change meanwhile.
    unsigned char copy[CR_SO_RECORD_SIZE] = {};
    std::memcpy(copy, buffer, std::min<unsigned long>(size, sizeof copy));
    bool const networkOrder = segment::OrderOf(reinterpret_cast<_SegmentDBRecord const*>(copy)) == Order::Network;
    FirstError error;
    FindingReporter report = FindingReporter::ErrorsOnly(FirstError::Listen, &error);
    segment::Diagnose(copy, size, networkOrder ? CR_SO_NETWORK_ORDER : 0, report);
    if (report.Status() != CR_STATUS_OK) {
        error.Throw();
    }
    if (size != CR_SO_RECORD_SIZE) {
        std::stringstream message;
        message << "Invalid SO record: size " << size << ", expected " << +CR_SO_RECORD_SIZE;
        throw Cr_ErrnoException(CR_STATUS_CORRUPT_RECORD, message, nullptr);
    }
    std::unique_ptr<SORecord> record(new (std::nothrow) SORecord(Blank{}));
    if (!record) {
        FailWithoutMemory();
    }
    std::memcpy(record->record_, copy, sizeof copy);
    record->networkOrder_ = networkOrder;
    record->NetworkToHost(0);
    return record;
}

unsigned short SORecord::GetFlags() const {
    return InOrder(record_->flags, networkOrder_);
}

void SORecord::SetFlags(unsigned short flags) {
    if (!segment::FlagsAreValid(flags)) {
        Refuse();
    }
    record_->flags = InOrder(flags, networkOrder_);
}

unsigned long SORecord::GetDCID() const {
    return RecordInContainer(GetFileID()) ? GetPathID() : 0;
}

void SORecord::SetDCID(unsigned long dcid) {
    if (!segment::DcidIsValid(dcid)) {
        Refuse();
    }
    record_->pathid = InOrder(dcid, networkOrder_);
    record_->fileid = 0;
}

unsigned long SORecord::GetPathID() const {
    return InOrder(record_->pathid, networkOrder_);
}

unsigned long SORecord::GetFileID() const {
    return InOrder(record_->fileid, networkOrder_);
}

unsigned long SORecord::GetSize() const {
    return InOrder(record_->size, networkOrder_);
}

void SORecord::SetSize(unsigned long size) {
    record_->size = InOrder(size, networkOrder_);
}

unsigned int SORecord::GetCRC() const {
    return InOrder(record_->CRC, networkOrder_);
}

void SORecord::SetCRC(unsigned int crc) {
    record_->CRC = InOrder(crc, networkOrder_);
}

unsigned int SORecord::GetCheckTime() const {
    return InOrder(record_->checktime, networkOrder_);
}

void SORecord::SetCheckTime(unsigned int seconds) {
    record_->checktime = InOrder(seconds, networkOrder_);
}

unsigned char SORecord::GetFPType() const {
    return record_->fptype;
}

void SORecord::SetFPType(unsigned char fpType) {
    if (!CRFPTypeIsValid(fpType)) {
        Refuse();
    }
    record_->fptype = fpType;
}

unsigned char SORecord::GetCryptoMode() const {
    return record_->cryptomode;
}

void SORecord::SetCryptoMode(unsigned char cryptoMode) {
    record_->cryptomode = cryptoMode;
}

unsigned short SORecord::GetKeyIndex() const {
    return record_->keyindex;
}

void SORecord::SetKeyIndex(unsigned short keyIndex) {
    record_->keyindex = keyIndex;
}

char const* SORecord::GetKey() const {
    return reinterpret_cast<char const*>(record_->key);
}

void SORecord::SetKey(char const* key) {
    if (!key) {
        Refuse();
    }
    // A move, because the key may be the one that GetKey gave. The test can't fail; callers know its place in the log.
    void const* const copied = std::memmove(record_->key, key, CR_SO_KEY_SIZE);
    if (!copied) {
        throw Cr_ErrnoException(_crMapError("SetKey", kSource, 221));
    }
}

_SegmentDBRecord* SORecord::GetHeader() const {
    return record_;
}

unsigned int SORecord::GetHeaderSize() const {
    return CR_SO_RECORD_SIZE;
}

bool SORecord::IsInNetworkOrder() const {
    return networkOrder_;
}

// A conversion must not leave the buffer for counts that were written through GetHeader: task ids and fingerprints have
// the size of the spare slot, task ids that are stripped are not read, and a single fingerprint is too large.
void SORecord::requireCountsInBuffer(unsigned int options) const {
    bool const strip = (options & CR_SO_STRIP_TASKIDS) != 0;
    std::uint32_t const taskIds = strip ? 0 : InOrder(record_->ntaskids, networkOrder_);
    std::uint32_t const nfp = InOrder(record_->nfp, networkOrder_);
    if (segment::RecordSize(taskIds, nfp, record_->fptype) > CR_SO_RECORD_SIZE + segment::kSpareSize) {
        Refuse();
    }
}

void SORecord::HostToNetwork(unsigned int options) {
    if (!networkOrder_) {
        requireCountsInBuffer(options);
        networkOrder_ = true;
        SegmentRecordHton(record_, record_, options);
    }
}

void SORecord::NetworkToHost(unsigned int options) {
    if (networkOrder_) {
        requireCountsInBuffer(options);
        networkOrder_ = false;
        SegmentRecordNtoh(record_, record_, options);
    }
}

bool SORecord::operator==(SORecord const& other) const {
    return record_ == other.record_ || std::memcmp(record_, other.record_, CR_SO_RECORD_SIZE) == 0;
}
