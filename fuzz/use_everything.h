// Runs every operation of the library on one record that passed validation, for tests and fuzz targets. Buffers have
// the exact size of the record. The results of the operations must agree.

#pragma once

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <algorithm>
#include <bit>
#include <memory>
#include <sstream>
#include <vector>

namespace everything {

// Throws: `what` if `holds` is false.
inline void Require(bool holds, char const* what) {
    if (!holds) {
        throw what;
    }
}

inline void Read(void const* from, std::size_t size) {
    static thread_local unsigned char volatile sum;
    auto const* const bytes = static_cast<unsigned char const*>(from);
    std::for_each(bytes, bytes + size, [](unsigned char byte) { sum = static_cast<unsigned char>(sum + byte); });
}

// Returns: false if the operation throws Cr_ErrnoException. Other exceptions are faults.
template <class Operation>
bool Try(Operation const& operation) {
    try {
        operation();
        return true;
    } catch (Cr_ErrnoException const&) {
        return false;
    }
}

struct Given {
    std::vector<unsigned char> bytes;
    unsigned int order, subDO; // options with which the bytes validate
    bool convertible = true;   // the checksum of the unique DCID list is valid in either order

    void MustValidate(void const* record, unsigned long size, unsigned int in, char const* when) const {
        auto const size32 = static_cast<unsigned int>(size);
        Require(!convertible || DORecordHeaderValidate(record, size32, in | subDO) == CR_STATUS_OK, when);
    }
};

// Uses the bytes in place, in their order and converted to the other order.
inline void UseBytes(Given const& given) {
    std::vector<unsigned char> bytes = given.bytes;
    auto* const header = reinterpret_cast<DORecordHeader*>(bytes.data());
    for (unsigned int conversions = 0; conversions < (given.convertible ? 2 : 1); ++conversions) {
        DORecordView const view(bytes.data(), bytes.size(), given.subDO);
        bool const network = std::endian::native == std::endian::big || given.order != conversions;
        Require(view.IsInNetworkOrder() == network && view.GetHeaderSize() == bytes.size(), "view");
        unsigned int i = 0;
        for (DOSegment const& segment : view.Segments()) {
            Read(segment.fingerprint.data, segment.fingerprint.size);
            Read(DORecordHeaderIndexOfSegment(header, i), 32);
            Read(DORecordHeaderIndexOfSegmentSize(header, i), 4);
            Read(DORecordHeaderIndexOfSegmentOffset(header, i), 8);
            cr_unaligned_u64 const* const dcid =
                reinterpret_cast<cr_unaligned_u64 const*>(DORecordHeaderIndexOfDCID(header, i));
            Require(*dcid == segment.dcid, "DCIDs of the view");
            ++i;
        }
        i = 0;
        ForEachSegment(view.Segments(), [&](DOSegment const& segment) {
            DOSegment const same = view.Segments()[i++];
            Require(segment.size == same.size && segment.offset == same.offset && segment.dcid == same.dcid,
                    "segments of the visitor");
        });
        for (i = 0; i < view.UniqueDCIDs().size(); ++i) {
            Read(DORecordHeaderIndexOfUDCID(header, i), view.UniqueDCIDs()[i].dcid == 0 ? 8 : 16);
        }
        for (DOReference const& reference : view.References()) {
            Require(reference.kind >= 0 && reference.kind < CR_REFTYPE_END, "kind");
        }
        Read(DORecordHeaderStartUDCID(header), 4);
        Read(DORecordHeaderIndexOfTaskId(header, 0), 8ul * view.GetLegacyTaskIDs());
        Read(DORecordHeaderIndexOfDataSelection(header, 0), 4ul * view.GetLegacyDSIDs());
        Read(DORecordHeaderStartTRefs(header), view.GetTRefsSize());
        Read(view.GetBloom(), view.GetBloom() ? view.GetBSize() : 0);
        Require(DORecordHeaderGetPOID(header) == view.GetDCID(), "POID");
        conversions == 0 ? DORecordHeaderHton(header) : DORecordHeaderNtoh(header);
        given.MustValidate(bytes.data(), bytes.size(), given.order ^ (conversions + 1) % 2,
                           "validity of the converted record");
    }
    Require(!given.convertible || bytes == given.bytes, "conversion forth and back");
}

inline std::vector<unsigned char> DigestOf(DORecord const& record) {
    crt_digest_t* digest = nullptr;
    Try([&] { digest = record.GetDigest(); });
    std::vector<unsigned char> bytes(digest ? digest->digest.bytes : nullptr,
                                     digest ? digest->digest.bytes + 32 : nullptr);
    CRTDigestDelete(&digest);
    return bytes;
}

inline void UseForm(DORecord const& record) {
    void* form = nullptr;
    unsigned long length = 0;
    if (record.Serialize(&form, &length, true) != CR_STATUS_OK) {
        return;
    }
    std::unique_ptr<DORecord> rebuilt;
    bool const good = DORecordSerializedValidate(form, length, record.GetDOType(), record.GetFPType(),
                                                 record.IsSubDO() ? CR_DO_SUB_DO : 0) == CR_STATUS_OK;
    bool const made = Try([&] {
        rebuilt = std::make_unique<DORecord>(record.GetDOType(), record.GetFPType(), nullptr, 0, form, length,
                                             record.IsSubDO());
    });
    DORecord::SerializedDORecordFree(&form);
    Require(made == good, "form");
    Require(!made || record.GetDOType() == CR_DO_TYPE_BLOOM_FILTER || DigestOf(*rebuilt) == DigestOf(record),
            "digest of the form's record");
}

// Calls all operations that do not change the record, which may be in any state.
inline void Look(DORecord const& record) {
    Try([&] {
        for (unsigned int i = 0; i < record.Segments().size(); ++i) {
            Read(record.GetSegmentFP(i).bytes, 32);
            DOSegment const segment = record.Segments()[i];
            Require(segment.dcid == record.GetSegmentDCID(i), "DCIDs");
            Read(segment.fingerprint.data, segment.fingerprint.size);
            Read(&segment, sizeof segment);
        }
    });
    Try([&] {
        for (DOUniqueDCID const entry : record.UniqueDCIDs()) {
            Read(&entry, sizeof entry);
        }
    });
    Try([&] { record.checkSegmentList(); });
    Try([&] { record.checkSegmentSizeEndiannes(); });
    Try([&] { record.checkSegmentOffsetEndiannes(); });
    std::ostringstream text, dump;
    Try([&] { record.ToStream(text, false); });
    Try([&] { record.ToStream(dump, true); });
    Require(dump.str().empty() || dump.str().size() == record.GetHeaderSize(), "dump");
    DigestOf(record);
    UseForm(record);
    cr_dcid_size_map_t sizes;
    record.GetUDCIDSizeList(sizes);
    Try([&] { Require(record == record, "equality"); });
    auto const all = record.References();
    auto const references = std::distance(all.begin(), all.end());
    Require(references + record.GetNTRefs(static_cast<cr_reftype_t>(0)) == record.GetNTRefs(), "references");
    Try([&] { Read(record.GetHeader(), CR_DO_HEADER_SIZE); });
}

inline void ChangeReferences(DORecord& record) {
    Try([&] { record.AddTaskID(77); });
    Try([&] { record.AddDSID(78); });
    Try([&] { record.AddSerializedTRefs(record.GetSerializedTRefs(), record.getTRefsSize()); });
    Try([&] { record.convertToTRefs(); });
    Look(record);
    Try([&] { record.DelDSID(78); });
    Try([&] { record.RemoveInactiveTaskIDs([](unsigned long id, void*) { return int(id & 1); }, nullptr); });
    for (int kind = -1; kind <= CR_REFTYPE_END; ++kind) {
        Try([&] { record.ClearTRefType(static_cast<cr_reftype_t>(kind)); });
    }
}

inline void ChangeLists(DORecord& record) {
    cr_dcid_size_map_t sizes;
    record.AppendBloom(sizes);
    record.AppendBloom(sizes);
    record.AppendBloomAndUniqueDCIDList();
    Look(record);
}

// Calls the raw setters, after which header, sections and buffer disagree.
inline void Spoil(DORecord& record) {
    crfp_digest_t digest;
    std::fill(std::begin(digest.bytes), std::end(digest.bytes), static_cast<unsigned char>(0xff));
    for (unsigned int i = 0; i < record.Segments().size(); ++i) {
        record.SetSegmentFP(i, digest);
        record.SetSegmentSize(i, ~0u);
        record.SetSegmentOffset(i, ~0ul);
        record.SetSegmentDCID(i, 0);
    }
    auto const useAll = [&] {
        ChangeLists(record);
        ChangeReferences(record);
        Try([&] { record.HostToNetwork(0); });
        Look(record);
        Try([&] { record.HostToNetwork(1); });
    };
    useAll();
    record.SetFPType(static_cast<unsigned char>(3 - record.GetFPType()));
    useAll();
    record.setTRefsSize(0x10000000);
    useAll();
    Try([&] { record.setRecSize(0x7fff); });
    useAll();
}

inline void UseRecord(Given const& given, DORecord& record) {
    auto const mustValidate = [&](char const* when) {
        given.MustValidate(record.GetHeader(), record.GetHeaderSize(), 0, when);
    };
    mustValidate("validity after loading");
    Require(Try([&] { record.checkSegmentList(); }), "list check");
    Look(record);
    record.HostToNetwork(0);
    Look(record);
    record.NetworkToHost(0);
    ChangeReferences(record);
    Require(record.GetNTRefs() == 0, "cleared references");
    mustValidate("validity after the references");
    ChangeLists(record); // takes the list of a bloom record for a received one
    mustValidate("validity after the lists");
    Spoil(record);
}

} // namespace everything

// `options` are those with which the bytes validate.
// Returns: null, or the property that does not hold.
inline char const* UseEverything(void const* bytes, unsigned long size, unsigned int options) {
    using namespace everything;
    auto const* const from = static_cast<unsigned char const*>(bytes);
    Given given{{from, from + size}, options & CR_DO_NETWORK_ORDER, options & CR_DO_SUB_DO};
    auto const listen = [](cr_finding_t const* finding, void* convertible) {
        *static_cast<bool*>(convertible) &= finding->code != CR_FINDING_DO_LIST_ORDER;
        return true;
    };
    DORecordDiagnose(bytes, size, options, listen, &given.convertible);
    try {
        UseBytes(given);
        std::unique_ptr<DORecord> record;
        if (Try([&] { record = DORecord::FromBuffer(bytes, size, given.subDO); })) {
            UseRecord(given, *record);
        }
        for (bool const fixed : {true, false}) {
            std::vector<unsigned char> memory = given.bytes;
            if (Try([&] { record = DORecord::Wrap(memory.data(), size, size, fixed, given.subDO); })) {
                UseRecord(given, *record);
                record.reset();
            } else {
                Require(memory == given.bytes, "Wrap does not change bytes that it rejects");
            }
        }
    } catch (char const* what) {
        return what;
    }
    return nullptr;
}
