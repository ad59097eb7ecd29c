// Reads a DO record without the library: one header, plain C.
//
//   reader RECORD        of any size up to 64 KiB, in either byte order
//
// Prints the object, its segments and its references. Ends with 1 for an invalid record, of which it prints the first
// error.

#include <crrecord/reader.h>

#include <inttypes.h>
#include <stdio.h>

static unsigned char bytes[65536];

int main(int count, char** arguments) {
    FILE* const file = count == 2 ? fopen(arguments[1], "rb") : NULL;
    if (!file) {
        fprintf(stderr, "usage: reader RECORD\n");
        return 2;
    }
    size_t const size = fread(bytes, 1, sizeof bytes, file);
    fclose(file);

    // A record is in network order exactly when its type, read as big-endian, is that of a DO record.
    unsigned const options = size >= 2 && crr_load16(bytes, 1) == CRR_DO_TYPE ? CRR_NETWORK_ORDER : 0;
    crr_do record;
    crr_fault fault;
    if (crr_do_open(&record, bytes, size, options, &fault) != CRR_OK) {
        printf("error %d at byte %" PRIu64 ": %" PRIu64 ", expected %" PRIu64 "\n", fault.code, fault.offset, fault.found,
               fault.expected);
        return 1;
    }
    printf("%" PRIu32 " segments, %" PRIu64 " bytes\n", record.layout.segments, record.header.size);
    for (uint32_t i = 0; i < record.layout.segments; ++i) {
        crr_segment const segment = crr_do_segment(&record, i);
        for (unsigned byte = 0; byte < segment.width; ++byte) {
            printf("%02x", segment.fingerprint[byte]);
        }
        printf(" %" PRIu32 " bytes in container %" PRIu64 "\n", segment.size, segment.dcid);
    }
    uint64_t at = 0;
    crr_reference reference;
    while (crr_do_next_reference(&record, &at, &reference)) {
        printf("reference of kind %d: %" PRIu64 "\n", reference.kind, reference.id);
    }
    return 0;
}
