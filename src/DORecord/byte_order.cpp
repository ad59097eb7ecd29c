// A record between host and network order.

#include "DORecord/record.h"

using namespace crrecord;

namespace {

// What turning touches last.
std::uint64_t SwappedEnd(DORecordHeader const* header, RecordLayout const& layout) noexcept {
    if (header->nudcid != 0) {
        return layout.udcids + kUniqueHeadSize;
    }
    return IsBloom(header->dotype) ? layout.entries + kBloomLengthSize : layout.dcids;
}

} // namespace

void DORecord::turn(bool toNetworkOrder, unsigned int options) {
    RecordLayout const layout = checkedLayout(&RecordLayout::entries);
    if (SwappedEnd(header, layout) > bufferSize) {
        Refuse(kInvalidRecordSize);
    }
    networkOrder = toNetworkOrder;
    if (toNetworkOrder) {
        DORecordHeaderHton(header);
    } else {
        DORecordHeaderNtoh(header);
    }
    if ((options & 1) != 0) {
        RemoveAllTRefs();
    }
}

void DORecord::HostToNetwork(unsigned int options) {
    turn(true, options);
}

void DORecord::NetworkToHost(unsigned int options) {
    turn(false, options);
}
