// Kind, order and size of the record at the start of some bytes: for readers of records stored one after the other.

#pragma once

#include <crrecord/export.h>

// Kinds of records.
enum cr_record_kind_t : int {
    CR_RECORD_UNKNOWN = 0, // no known record type, or fewer than 2 bytes
    CR_RECORD_SEGMENT = 2, // the values are the record types
    CR_RECORD_DO = 3,
};

// Kind, order and sizes by the first bytes of a record, as host values. They are not validated.
struct cr_record_probe_t {
    unsigned int struct_size; // sizeof(cr_record_probe_t) in the library; members are only added at the end
    cr_record_kind_t kind;
    int network_order;      // 1 or 0; 0 for an unknown kind
    unsigned int head_size; // bytes that hold the sizes of a record of this kind; 0 for an unknown kind
    // Bytes of the record by its field recsize, and by its counts; both 0 if fewer than head_size bytes are available.
    // They are equal for a valid record. The second may exceed 32 bits.
    unsigned long recorded_size;
    unsigned long counted_size;
};

// Probes `available` bytes, which may be any bytes, and reads no more than head_size of them. To read a stream: probe,
// read recorded_size bytes, validate them, and continue after them.
// Returns: the probe; CR_RECORD_UNKNOWN if the bytes are not the start of a record. Null is allowed for 0 or 1 bytes.
// Thread safety: no state.
CRRECORD_API cr_record_probe_t CRRecordProbe(void const* bytes, unsigned long available) noexcept;
