// What stands at the start of some bytes: for those who read records that stand one behind the other.

#pragma once

#include <crrecord/export.h>

enum cr_record_kind_t : int {
    CR_RECORD_UNKNOWN = 0, // of no known type, or too few bytes to tell
    CR_RECORD_SEGMENT = 2, // the record types themselves
    CR_RECORD_DO = 3,
};

// Nothing of it is checked: it is what the record says of itself, as host values.
struct cr_record_probe_t {
    unsigned int struct_size; // sizeof(cr_record_probe_t) of the library that fills it; grows at its end only
    cr_record_kind_t kind;
    int network_order;      // 1 or 0; 0 for an unknown kind
    unsigned int head_size; // bytes from which a record of this kind can tell its size; 0 for an unknown kind
    // The size of the record by its record size, and by its counts; both 0 where fewer than head_size bytes are there.
    // A good record's are the same. The second may be beyond 32 bits.
    unsigned long recorded_size;
    unsigned long counted_size;
};

// Looks at the first bytes of `available` ones, any bytes, and reads nothing else. To read a stream: probe, take so
// many bytes as the record says, validate them, and go on behind them.
CRRECORD_API cr_record_probe_t CRRecordProbe(void const* bytes, unsigned long available) noexcept;
