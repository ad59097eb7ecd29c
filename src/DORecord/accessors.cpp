// Accessors of the header fields.

#include "DORecord/record.h"

#include <ctime>

using namespace crrecord;

namespace {

// Returns: true if all flags are known; logs an error otherwise.
bool CheckFlags(unsigned int flags) noexcept {
    bool const known = (flags & ~kKnownFlags) == 0;
    if (!known) {
        ErrorA(CR_STATUS_INVALID, "Setting DORecord flags to invalid value %x", flags);
    }
    return known;
}

} // namespace

unsigned short DORecord::GetFlags() const {
    return InOrder(header->flags, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetHeaderSize() const {
    return getRecSize();
}

unsigned int DORecord::GetCheckTime() const {
    return InOrder(header->checktime, OrderFromFlag(networkOrder));
}

unsigned long DORecord::GetDCID() const {
    return InOrder(header->CID, OrderFromFlag(networkOrder));
}

unsigned long DORecord::GetSize() const {
    return InOrder(header->size, OrderFromFlag(networkOrder));
}

unsigned long DORecord::GetSsize() const {
    return InOrder(header->ssize, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetCrc() const {
    return InOrder(header->CRC, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetCTime() const {
    return InOrder(header->ctime, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetMTime() const {
    return InOrder(header->mtime, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetNfp() const {
    return InOrder(header->nfp, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetNudcid() const {
    return InOrder(header->nudcid, OrderFromFlag(networkOrder));
}

unsigned int DORecord::GetBSize() const {
    return InOrder(header->bsize, OrderFromFlag(networkOrder));
}

unsigned char DORecord::GetFPType() const {
    return header->fptype;
}

unsigned char DORecord::GetDOType() const {
    return header->dotype;
}

// Uses the stored count without conversion in either byte order, and truncates the result to 32 bits.
unsigned int DORecord::GetUDCIDSize() const {
    return static_cast<unsigned int>(UniqueListSize(header->nudcid));
}

unsigned long DORecord::GetDOSize() const {
    return std::uint64_t{getRecSize()} - CR_DO_RECORD_SIZE;
}

bool DORecord::IsInNetworkOrder() const {
    return networkOrder;
}

bool DORecord::IsSubDO() const {
    return subDO;
}

void DORecord::SetSubDO(bool value) {
    subDO = value;
}

unsigned long DORecord::GetPOID() const {
    return DORecordHeaderGetPOID(header);
}

unsigned char const* DORecord::GetBloom() const {
    return DORecordHeaderGetBloom(header);
}

unsigned char const* DORecord::GetBloomStart() const {
    return DORecordHeaderGetBloomStart(header);
}

void DORecord::handleUpdate() {
    header->mtime = InOrder(static_cast<unsigned int>(std::time(nullptr)), OrderFromFlag(networkOrder));
}

void DORecord::setCheckTime(unsigned int seconds) {
    header->checktime = InOrder(seconds, OrderFromFlag(networkOrder));
}

void DORecord::SetCheckTime(unsigned int seconds) {
    setCheckTime(seconds);
}

void DORecord::setDCID(unsigned long dcid) {
    header->CID = InOrder(dcid, OrderFromFlag(networkOrder));
}

void DORecord::SetDCID(unsigned long dcid) {
    setDCID(dcid);
    handleUpdate();
}

void DORecord::setFPType(unsigned char fptype) {
    if (!CRFPTypeIsValid(fptype)) {
        Refuse("invalid fptype for DO");
    }
    header->fptype = fptype;
}

void DORecord::SetFPType(unsigned char fptype) {
    header->fptype = fptype;
    handleUpdate();
}

void DORecord::setFlags(unsigned short flags) {
    if (CheckFlags(flags)) {
        header->flags = InOrder(flags, OrderFromFlag(networkOrder));
    }
}

// Unlike setFlags, stores invalid flags after logging them. Callers rely on both functions.
void DORecord::SetFlags(unsigned short flags) {
    CheckFlags(flags);
    header->flags = InOrder(flags, OrderFromFlag(networkOrder));
    handleUpdate();
}

unsigned int DORecord::getTRefsSize() const {
    return InOrder(header->trefssize, OrderFromFlag(networkOrder));
}

void DORecord::setTRefsSize(unsigned int size) {
    header->trefssize = InOrder(size, OrderFromFlag(networkOrder));
}
