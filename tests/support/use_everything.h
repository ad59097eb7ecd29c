// Every operation of the library on one record whose bytes passed validation, as tests and fuzzers want it: the bytes
// lie in blocks of exactly their size, and what an operation answers must fit what the others say.

#pragma once

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

namespace everything {

// What must hold; thrown as its name where it doesn't.
inline void Must(bool holds, char const* what) {
    if (!holds) {
        throw what;
    }
}

inline void Read(void const* from, std::size_t size) {
    static unsigned char volatile sum;
    auto const* const bytes = static_cast<unsigned char const*>(from);
    std::for_each(bytes, bytes + size, [](unsigned char byte) { sum = static_cast<unsigned char>(sum + byte); });
}

// Refusals are answers too. Anything else that is thrown is none.
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
    unsigned char const* bytes;
    unsigned long size;
    unsigned int options; // with which they validate
    bool canonicalSum;    // the unique list's checksum holds in either order

    unsigned int SubDO() const { return options & CR_DO_SUB_DO; }
    std::vector<unsigned char> Copy() const { return {bytes, bytes + size}; }
};

inline void UseBareBuffer(Given const& given) {
    std::vector<unsigned char> bytes = given.Copy();
    auto* const header = reinterpret_cast<DORecordHeader*>(bytes.data());
    unsigned int order = given.options & CR_DO_NETWORK_ORDER;
    for (int turn = 0; turn < 2; ++turn) {
        DORecordView const view(bytes.data(), bytes.size(), given.SubDO());
        for (unsigned int i = 0; i < view.Segments().size(); ++i) {
            Read(DORecordHeaderIndexOfSegment(header, i), 32);
            Read(DORecordHeaderIndexOfSegmentSize(header, i), 4);
            Read(DORecordHeaderIndexOfSegmentOffset(header, i), 8);
            Read(DORecordHeaderIndexOfSegmentObjectOffset(header, i), 4);
            Read(DORecordHeaderIndexOfDCID(header, i), 8);
        }
        for (unsigned int i = 0; i < view.GetNudcid(); ++i) {
            Read(DORecordHeaderStartUDCID(header), 8);
            Read(DORecordHeaderIndexOfUDCID(header, i), 16);
        }
        for (unsigned int i = 0; i < view.GetLegacyTaskIDs(); ++i) {
            Read(DORecordHeaderIndexOfTaskId(header, i), 8);
        }
        for (unsigned int i = 0; i < view.GetLegacyDSIDs(); ++i) {
            Read(DORecordHeaderIndexOfDataSelection(header, i), 4);
        }
        Read(DORecordHeaderStartTRefs(header), view.GetTRefsSize());
        if (view.GetDOType() == CR_DO_TYPE_BLOOM_FILTER) {
            Read(DORecordHeaderGetBloomStart(header), 4);
            Read(DORecordHeaderGetBloom(header), view.GetBSize());
        }
        Must(DORecordHeaderGetPOID(header) == view.GetDCID(), "POID");
        turn == 0 ? DORecordHeaderHton(header) : DORecordHeaderNtoh(header);
        order ^= CR_DO_NETWORK_ORDER;
        if (!given.canonicalSum) {
            break;
        }
        Must(DORecordHeaderValidate(bytes.data(), static_cast<unsigned int>(bytes.size()), given.SubDO() | order) ==
                 CR_STATUS_OK,
             "validity of the turned record");
    }
    Must(!given.canonicalSum || bytes == given.Copy(), "turning there and back");
}

inline void UseView(Given const& given) {
    std::vector<unsigned char> const bytes = given.Copy();
    DORecordView const view(bytes.data(), bytes.size(), given.SubDO());
    Must(view.IsInNetworkOrder() == ((given.options & CR_DO_NETWORK_ORDER) != 0), "order");
    Must(view.GetHeaderSize() == given.size, "size");
    unsigned long count = 0;
    for (DOSegment const& segment : view.Segments()) {
        Read(&segment, sizeof segment);
        ++count;
    }
    Must(count == (view.GetDOType() == CR_DO_TYPE_BLOOM_FILTER ? 0 : view.GetNfp()), "segments of the view");
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        Read(&entry, sizeof entry);
    }
    for (DOReference const& reference : view.References()) {
        Must(reference.kind >= 0 && reference.kind < CR_REFTYPE_END, "kind");
    }
    Read(view.GetBloom(), view.GetBloom() ? view.GetBSize() : 0);
}

inline void UseDigestAndForms(DORecord const& record) {
    crt_digest_t* digest = nullptr;
    bool const digested = Try([&] { digest = record.GetDigest(); });
    void* form = nullptr;
    unsigned long length = 0;
    record.SerializeBloomFilterDO(&form, &length, true);
    DORecord::SerializedDORecordFree(&form);
    if (record.Serialize(&form, &length, true) == CR_STATUS_OK) {
        std::unique_ptr<DORecord> rebuilt;
        bool const good = DORecordSerializedValidate(form, length, record.GetDOType(), record.GetFPType(),
                                                     record.IsSubDO() ? CR_DO_SUB_DO : 0) == CR_STATUS_OK;
        bool const made = Try([&] {
            rebuilt = std::make_unique<DORecord>(record.GetDOType(), record.GetFPType(), nullptr, 0, form, length,
                                                 record.IsSubDO());
        });
        Must(made == good, "form");
        if (rebuilt && digested && record.GetDOType() != CR_DO_TYPE_BLOOM_FILTER) {
            crt_digest_t* again = rebuilt->GetDigest();
            Must(!digest == !again, "digest of the form's record");
            Must(!digest || std::equal(digest->digest.bytes, digest->digest.bytes + 32, again->digest.bytes),
                 "digest of the form's record");
            CRTDigestDelete(&again);
        }
        DORecord::SerializedDORecordFree(&form);
    }
    CRTDigestDelete(&digest);
}

// All that looks and doesn't change.
inline void Look(DORecord const& record) {
    for (unsigned int i = 0; i < record.Segments().size(); ++i) {
        Read(record.GetSegmentFP(i).bytes, 32);
        record.GetSegmentSize(i);
        record.GetSegmentOffset(i);
        record.GetSegmentObjectOffset(i);
        Must(record.GetSegmentDCID(i) == record.GetSegmentDCIDList()[i], "DCIDs");
    }
    record.GetPOID();
    record.GetBloom();
    record.GetBloomStart();
    record.GetSegmentUDCIDList();
    Try([&] { record.checkSegmentList(); });
    Try([&] { record.checkSegmentSizeEndiannes(); });
    Try([&] { record.checkSegmentOffsetEndiannes(); });
    std::ostringstream text, dump;
    Try([&] { record.ToStream(text, false); });
    Try([&] { record.ToStream(dump, true); });
    Must(dump.str().empty() || dump.str().size() == record.GetHeaderSize(), "dump");
    UseDigestAndForms(record);
    cr_dcid_size_map_t sizes;
    record.GetUDCIDSizeList(sizes);
    Try([&] { Must(record == record, "equality"); });
    unsigned int references = record.GetNTRefs(static_cast<cr_reftype_t>(0));
    for (auto reference = record.GetTRefBegin(); reference != record.GetTRefEnd(); ++reference) {
        Must((*reference)->Get() != nullptr, "reference");
        ++references;
    }
    Must(references == record.GetNTRefs() && record.calcTRefsSize() >= 6ul * references, "references");
    Try([&] { Read(record.GetSerializedTRefs(), record.GetNTRefs() == 0 ? 0 : record.getTRefsSize()); });
}

inline void ChangeReferences(DORecord& record) {
    Try([&] { record.AddTaskID(77); });
    Try([&] { record.AddDSID(78); });
    Try([&] { record.AddSerializedTRefs(record.GetSerializedTRefs(), record.getTRefsSize()); });
    Try([&] { record.convertToTRefs(); });
    Look(record);
    Try([&] { record.DelDSID(78); });
    Try([&] {
        record.RemoveInactiveTaskIDs([](unsigned long id, void*) { return static_cast<int>(id & 1); }, nullptr);
    });
    for (int kind = -1; kind <= CR_REFTYPE_END; ++kind) {
        Try([&] { record.ClearTRefType(static_cast<cr_reftype_t>(kind)); });
    }
    Must(record.GetNTRefs() == 0, "cleared references");
}

inline void ChangeLists(DORecord& record) {
    cr_dcid_size_map_t sizes;
    record.AppendBloom(sizes);
    record.AppendBloom(sizes);
    record.AppendBloomAndUniqueDCIDList();
    Look(record);
}

// By the raw setters, which may make header, sections and buffer disagree.
inline void Spoil(DORecord& record) {
    crfp_digest_t digest;
    std::fill(std::begin(digest.bytes), std::end(digest.bytes), static_cast<unsigned char>(0xff));
    for (unsigned int i = 0; i < record.Segments().size(); ++i) {
        record.SetSegmentFP(i, digest);
        record.SetSegmentSize(i, ~0u);
        record.SetSegmentOffset(i, ~0ul);
        record.SetSegmentObjectOffset(i, ~0u);
        record.SetSegmentDCID(i, 0);
    }
    auto const useAll = [&] {
        // Even the ranges of such a record may be refused.
        if (Try([&] { record.Segments(); })) {
            std::ostringstream stream;
            Try([&] { record.ToStream(stream, false); });
            Try([&] { record.ToStream(stream, true); });
            Try([&] {
                crt_digest_t* made = record.GetDigest();
                CRTDigestDelete(&made);
            });
        }
        cr_dcid_size_map_t sizes;
        record.AppendBloom(sizes);
        record.AppendBloomAndUniqueDCIDList();
        Try([&] { record.AddTaskID(79); });
        Try([&] { record.RemoveAllTRefs(); });
        Try([&] { record.HostToNetwork(0); });
        Try([&] { record.HostToNetwork(1); });
        Try([&] { record.GetHeader(); });
    };
    useAll();
    record.SetFPType(static_cast<unsigned char>(3 - record.GetFPType()));
    useAll();
    record.setTRefsSize(0x10000000);
    useAll();
    Try([&] { record.setRecSize(0x7fffffff); });
    useAll();
}

inline void UseRecord(Given const& given, DORecord& record) {
    auto const mustValidate = [&](char const* when) {
        Must(!given.canonicalSum ||
                 DORecord::ValidateHeader(record.GetHeader(), record.GetHeaderSize(), given.SubDO()) == CR_STATUS_OK,
             when);
    };
    mustValidate("validity after loading");
    Must(Try([&] { record.checkSegmentList(); }), "list check");
    Look(record);
    record.HostToNetwork(0);
    Look(record);
    record.NetworkToHost(0);
    ChangeReferences(record);
    mustValidate("validity after the references");
    ChangeLists(record);
    // A bloom record's list was taken for a received one.
    mustValidate("validity after the lists");
    Spoil(record);
}

inline bool SumHoldsInEitherOrder(Given const& given) {
    bool holds = true;
    auto const listen = [](cr_finding_t const* finding, void* result) {
        *static_cast<bool*>(result) &= finding->code != CR_FINDING_DO_LIST_ORDER;
        return true;
    };
    DORecordDiagnose(given.bytes, given.size, given.options, listen, &holds);
    return holds;
}

} // namespace everything

// `options` are those with which the bytes validate. What did not hold, or null.
inline char const* UseEverything(void const* bytes, unsigned long size, unsigned int options) {
    using namespace everything;
    Given given{static_cast<unsigned char const*>(bytes), size, options, true};
    given.canonicalSum = SumHoldsInEitherOrder(given);
    try {
        UseBareBuffer(given);
        UseView(given);
        if (std::unique_ptr<DORecord> record; Try([&] { record = DORecord::FromBuffer(bytes, size, given.SubDO()); })) {
            UseRecord(given, *record);
        }
        for (bool const fixed : {true, false}) {
            std::vector<unsigned char> memory = given.Copy();
            std::unique_ptr<DORecord> record;
            if (Try([&] { record = DORecord::Wrap(memory.data(), size, size, fixed, given.SubDO()); })) {
                UseRecord(given, *record);
            } else {
                Must(memory == given.Copy(), "memory of a refused record");
            }
        }
    } catch (char const* what) {
        return what;
    }
    return nullptr;
}
