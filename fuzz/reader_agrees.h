// Comparison of the reader in one header (reader.h) with the library, on any bytes: the same status and first error,
// and for a valid record the same values of all fields.

#pragma once

#include "target.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/reader.h>

#include <cstring>

namespace fuzz {

// The first finding of a diagnosis, unless it is a note.
inline bool KeepFirst(cr_finding_t const* finding, void* context) {
    if (finding->severity == CR_FINDING_ERROR) {
        *static_cast<crr_fault*>(context) = {finding->code, finding->offset, finding->found, finding->expected};
    }
    return false;
}

inline void MustAgree(int status, crr_fault const& fault, cr_status_t expected, crr_fault const& first) {
    Must(status == expected, "the reader has the library's status");
    Must(fault.code == first.code && fault.offset == first.offset && fault.found == first.found &&
             fault.expected == first.expected,
         "the reader has the library's first error");
}

inline void MustHaveFields(crr_do const& record, DORecordView const& view) {
    crr_do_header const& h = record.header;
    Must(h.flags == view.GetFlags() && h.recsize == view.GetHeaderSize() && h.checktime == view.GetCheckTime() &&
             h.cid == view.GetDCID() && h.size == view.GetSize() && h.ssize == view.GetSsize() &&
             h.crc == view.GetCrc() && h.ctime == view.GetCTime() && h.mtime == view.GetMTime() &&
             h.nfp == view.GetNfp() && h.nudcid == view.GetNudcid() && h.trefssize == view.GetTRefsSize() &&
             h.bsize == view.GetBSize() && h.fptype == view.GetFPType() && h.dotype == view.GetDOType() &&
             h.ntaskid == view.GetLegacyTaskIDs() && h.nds == view.GetLegacyDSIDs() &&
             h.reserved == view.GetHeader()->reserved &&
             std::memcmp(h.reserved2, view.GetHeader()->reserved2, sizeof h.reserved2) == 0,
         "header fields");
    Must(crr_do_bitmap(&record) == view.GetBloom(), "bitmap");
    std::uint32_t i = 0;
    for (DOSegment const& segment : view.Segments()) {
        crr_segment const read = crr_do_segment(&record, i++);
        Must(read.fingerprint == segment.fingerprint.data && read.width == segment.fingerprint.size &&
                 (read.size == segment.size || view.GetDOType() == CR_DO_TYPE_BLOOM_FILTER) &&
                 read.offset == segment.offset && read.dcid == segment.dcid,
             "segment");
    }
    Must(i == record.layout.segments && !crr_do_segment(&record, i).fingerprint, "number of segments");
    Must(crr_do_unique_dcid(&record, h.nudcid).dcid == 0 && crr_do_taskid(&record, h.ntaskid) == 0 &&
             crr_do_dsid(&record, h.nds) == 0,
         "an index after the last gives zeros");
    i = 0;
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        crr_unique_dcid const read = crr_do_unique_dcid(&record, i++);
        Must(read.dcid == entry.dcid && read.bytes == entry.bytes, "entry of the unique DCID list");
    }
    std::uint64_t at = 0;
    crr_reference read{};
    for (DOReference const& reference : view.References()) {
        Must(crr_do_next_reference(&record, &at, &read) == 1 && read.kind == reference.kind && read.id == reference.id,
             "reference");
    }
    Must(crr_do_next_reference(&record, &at, &read) == 0, "number of references");
    DORecordHeader const* const header = view.GetHeader();
    for (i = 0; i < h.ntaskid; ++i) {
        Must(std::memcmp(record.bytes + record.layout.taskids + 8ul * i, DORecordHeaderIndexOfTaskId(header, i), 8) ==
                     0 &&
                 crr_do_taskid(&record, i) == crrecord::Load<std::uint64_t>(DORecordHeaderIndexOfTaskId(header, i)),
             "legacy task id");
    }
    for (i = 0; i < h.nds; ++i) {
        Must(crr_do_dsid(&record, i) == crrecord::Load<std::uint32_t>(DORecordHeaderIndexOfDataSelection(header, i)),
             "legacy DSID");
    }
}

// Validates the bytes as a DO record with the options of DORecordHeaderValidate.
inline void AgreeOnDORecord(Bytes bytes, unsigned int options) {
    crr_fault first{}, fault{};
    crr_do record{};
    cr_status_t const expected = DORecordDiagnose(bytes.data(), bytes.size(), options, KeepFirst, &first);
    int const status = crr_do_open(&record, bytes.data(), bytes.size(), options, &fault);
    MustAgree(status, fault, expected, first);
    if (status == CRR_OK) {
        MustHaveFields(record, DORecordView(bytes.data(), bytes.size(), options & CR_DO_SUB_DO));
    }
}

// Validates the bytes as a segment record with the options of SegmentRecordValidate.
inline void AgreeOnSegmentRecord(Bytes bytes, unsigned int options) {
    crr_fault first{}, fault{};
    crr_so record{};
    cr_status_t const expected = SegmentRecordDiagnose(bytes.data(), bytes.size(), options, KeepFirst, &first);
    int const status = crr_so_open(&record, bytes.data(), bytes.size(), options, &fault);
    MustAgree(status, fault, expected, first);
    if (status != CRR_OK) {
        return;
    }
    // The library's own conversion reads the fields.
    Block host(bytes.begin(), bytes.end());
    auto* const fields = reinterpret_cast<_SegmentDBRecord*>(host.data());
    if ((options & CR_SO_NETWORK_ORDER) != 0) {
        SegmentRecordNtoh(fields, fields, 0);
    }
    crr_so_header const& h = record.header;
    Must(h.flags == fields->flags && h.recsize == fields->recsize && h.word8 == fields->word8 &&
             h.ntaskids == fields->ntaskids && h.checktime == fields->checktime && h.word20 == fields->word20 &&
             h.pathid == fields->pathid && h.fileid == fields->fileid && h.size == fields->size &&
             h.crc == fields->CRC && h.nfp == fields->nfp && h.fptype == fields->fptype &&
             h.cryptomode == fields->cryptomode && h.reserved == fields->reserved && h.keyindex == fields->keyindex &&
             h.word94 == fields->word94 && std::memcmp(h.key, fields->key, sizeof h.key) == 0,
         "fields of a segment record");
    for (std::uint32_t i = 0; i < h.ntaskids; ++i) {
        Must(crr_so_taskid(&record, i) == crrecord::Load<std::uint64_t>(host.data() + 96 + 8ul * i), "task id");
    }
    unsigned char const* fingerprint = bytes.data() + 96 + 8ul * h.ntaskids;
    for (std::uint32_t i = 0; i < h.nfp; ++i, fingerprint += record.width) {
        Must(crr_so_fingerprint(&record, i) == fingerprint, "fingerprint");
    }
    Must(fingerprint + 8 == bytes.data() + bytes.size() && !crr_so_fingerprint(&record, h.nfp), "fingerprints");
}

} // namespace fuzz
