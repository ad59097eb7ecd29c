// SORecord over one segment record buffer.

#include <crrecord/SORecord.h>

#include "SOmarshall/layout.h"
#include "SOmarshall/validate.h"
#include "base/memory.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

using crrecord::FindingReporter;
using crrecord::FirstError;
using crrecord::InOrder;
using crrecord::Order;
using crrecord::OrderFromFlag;
namespace segment = crrecord::segment;

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
    record_ = static_cast<_SegmentDBRecord*>(crrecord::AllocateZeroed(CR_SO_RECORD_SIZE));
    if (!record_) {
        FailWithoutMemory();
    }
}

SORecord::SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc, char const* key,
                   unsigned char cryptoMode, unsigned char fpType)
    : SORecord(Blank{}) {
    // The delegated constructor has completed the object, so the destructor frees the buffer if a check throws.
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
    // The copy is checked and kept, because the buffer may change meanwhile.
    unsigned char copy[CR_SO_RECORD_SIZE] = {};
    std::memcpy(copy, buffer, std::min<unsigned long>(size, sizeof copy));
    bool const networkOrder = segment::OrderOf(reinterpret_cast<_SegmentDBRecord const*>(copy)) == Order::Network;
    FirstError error;
    FindingReporter reporter = error.Reporter();
    segment::Diagnose(copy, size, networkOrder ? CR_SO_NETWORK_ORDER : 0, reporter);
    error.ThrowIfAny();
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
    return InOrder(record_->flags, OrderFromFlag(networkOrder_));
}

void SORecord::SetFlags(unsigned short flags) {
    if (!segment::FlagsAreValid(flags)) {
        Refuse();
    }
    record_->flags = InOrder(flags, OrderFromFlag(networkOrder_));
}

unsigned long SORecord::GetDCID() const {
    return RecordInContainer(GetFileID()) ? GetPathID() : 0;
}

void SORecord::SetDCID(unsigned long dcid) {
    if (!segment::DcidIsValid(dcid)) {
        Refuse();
    }
    record_->pathid = InOrder(dcid, OrderFromFlag(networkOrder_));
    record_->fileid = 0;
}

unsigned long SORecord::GetPathID() const {
    return InOrder(record_->pathid, OrderFromFlag(networkOrder_));
}

unsigned long SORecord::GetFileID() const {
    return InOrder(record_->fileid, OrderFromFlag(networkOrder_));
}

unsigned long SORecord::GetSize() const {
    return InOrder(record_->size, OrderFromFlag(networkOrder_));
}

void SORecord::SetSize(unsigned long size) {
    record_->size = InOrder(size, OrderFromFlag(networkOrder_));
}

unsigned int SORecord::GetCRC() const {
    return InOrder(record_->CRC, OrderFromFlag(networkOrder_));
}

void SORecord::SetCRC(unsigned int crc) {
    record_->CRC = InOrder(crc, OrderFromFlag(networkOrder_));
}

unsigned int SORecord::GetCheckTime() const {
    return InOrder(record_->checktime, OrderFromFlag(networkOrder_));
}

void SORecord::SetCheckTime(unsigned int seconds) {
    record_->checktime = InOrder(seconds, OrderFromFlag(networkOrder_));
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
    // memmove, because the key may be the record's own. The test cannot fail; it keeps a position that logs may have.
    void const* const copied = std::memmove(record_->key, key, CR_SO_KEY_SIZE);
    if (!copied) {
        throw Cr_ErrnoException(_crMapError("SetKey", "SORecord/SORecord.cpp", 221));
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

// A caller may have written any counts through GetHeader, and a conversion must stay inside the buffer. One task id
// fits into the spare slot; a fingerprint does not. Task ids that are stripped are not read.
void SORecord::requireCountsInBuffer(unsigned int options) const {
    bool const strip = (options & CR_SO_STRIP_TASKIDS) != 0;
    std::uint32_t const taskIds = strip ? 0 : InOrder(record_->ntaskids, OrderFromFlag(networkOrder_));
    std::uint32_t const nfp = InOrder(record_->nfp, OrderFromFlag(networkOrder_));
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
