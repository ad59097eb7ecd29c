// All findings: code, name and severity.

#pragma once

#include <crrecord/finding.h>

#include <algorithm>
#include <array>

namespace crrecord {

struct FindingRow {
    int code;
    char const* name;
    int severity;
};

// Ascending by code. Codes and names never change.
inline constexpr std::array kFindings{
    FindingRow{CR_FINDING_SO_LENGTH, "so-length", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_TYPE, "so-type", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_RECSIZE, "so-recsize", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_CALCULATED, "so-calculated", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_TASKIDS, "so-taskids", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_FPTYPE, "so-fptype", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SO_FLAGS, "so-flags", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_SO_DCID, "so-dcid", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_SO_RESERVED, "so-reserved", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_SO_SPARE, "so-spare", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_LENGTH, "do-length", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_TYPE, "do-type", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_RECSIZE, "do-recsize", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_FLAGS, "do-flags", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_DOTYPE, "do-dotype", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_FPTYPE, "do-fptype", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_BLOOM_SEGMENTS, "do-bloom-segments", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_CALCULATED, "do-calculated", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_LIST_COUNT, "do-list-count", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_LIST_CHECKSUM, "do-list-checksum", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_PRODUCT, "segment-product", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_SUM, "segment-sum", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_SIZE, "segment-size", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_OFFSET, "segment-offset", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_OVERLAP, "segment-overlap", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_SEGMENT_END, "segment-end", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_REFERENCES, "do-references", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_REFERENCE, "do-reference", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_DO_BLOOM_LENGTH, "do-bloom-length", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_DCID, "do-dcid", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_LEGACY, "do-legacy", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_LIST_ORDER, "do-list-order", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_LIST_UNSORTED, "do-list-unsorted", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_REFERENCE_ORDER, "do-reference-order", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_NON_ZERO, "do-non-zero", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_DO_BSIZE, "do-bsize", CR_FINDING_NOTE},
    FindingRow{CR_FINDING_FORM_LENGTH, "form-length", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_ZERO, "form-zero", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_BLOOM_SEGMENTS, "form-bloom-segments", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_CALCULATED, "form-calculated", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_TOO_LARGE, "form-too-large", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_FINGERPRINT, "form-fingerprint", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_LIST_CHECKSUM, "form-list-checksum", CR_FINDING_ERROR},
    FindingRow{CR_FINDING_FORM_CHECKSUM, "form-checksum", CR_FINDING_ERROR},
};

static_assert(std::ranges::adjacent_find(kFindings, std::ranges::greater_equal{}, &FindingRow::code) ==
              kFindings.end());

// Returns: the row of a code, or null if the table has none.
constexpr FindingRow const* FindFinding(int code) noexcept {
    auto const* const row = std::ranges::lower_bound(kFindings, code, {}, &FindingRow::code);
    return row != kFindings.end() && row->code == code ? row : nullptr;
}

} // namespace crrecord
