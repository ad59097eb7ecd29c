// Splits a file into segments, builds its DO record, and stores the record and its exchange form.
//
//   writer FILE RECORD FORM

#include <crrecord/DORecord.h>

#include <fstream>
#include <iostream>
#include <vector>

namespace {

constexpr unsigned long kSegmentSize = 128 * 1024;
constexpr unsigned long kContainer = 64; // the first container id free for use

// An entry of DO type 3 with 32-byte fingerprints, as the record stores it.
struct __attribute__((packed)) Entry {
    crfp_digest_t fingerprint;
    unsigned int size;
    unsigned long offset;
};

crfp_digest_t Fingerprint(char const* bytes, unsigned long size) {
    crfp_context_t context;
    crfp_digest_t digest{};
    if (CRFPInitialize(&context, CR_FP_TYPE_SHA256) == -1 || CRFPAppend(&context, bytes, size) == -1 ||
        CRFPFinalize(&context) == -1 || !CRFPGetDigest_r(&context, &digest)) {
        throw Cr_ErrnoException(*__cr_errno_location());
    }
    return digest;
}

void Write(char const* path, void const* bytes, unsigned long size) {
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.write(static_cast<char const*>(bytes), static_cast<std::streamsize>(size)).flush();
}

void Describe(char const* input, char const* recordPath, char const* formPath) {
    std::ifstream file(input, std::ios::binary);
    std::vector<Entry> entries;
    std::vector<char> segment(kSegmentSize);
    unsigned long offset = 0;
    while (file.read(segment.data(), kSegmentSize), file.gcount() > 0) {
        auto const size = static_cast<unsigned int>(file.gcount());
        entries.push_back({Fingerprint(segment.data(), size), size, offset});
        offset += size;
    }
    std::vector<unsigned long> const dcids(entries.size(), kContainer);
    DORecord record(kContainer, offset, kSegmentSize, 0, 0, 0, entries.data(),
                    static_cast<unsigned int>(entries.size()), dcids.data(), nullptr, CR_FP_TYPE_SHA256,
                    CR_DO_TYPE_8_BYTE_OFFSET);
    record.AppendBloomAndUniqueDCIDList();
    record.AddTaskID(17); // a task that keeps the object alive

    void* form = nullptr;
    unsigned long formSize = 0;
    if (record.Serialize(&form, &formSize, true) != CR_STATUS_OK) {
        throw std::bad_alloc();
    }
    Write(formPath, form, formSize);
    DORecord::SerializedDORecordFree(&form);
    record.HostToNetwork(0);
    Write(recordPath, record.GetHeader(), record.GetHeaderSize());
    std::cout << record.GetNfp() << " segments, record of " << record.GetHeaderSize() << " bytes\n";
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: writer FILE RECORD FORM\n";
        return 2;
    }
    Describe(argv[1], argv[2], argv[3]);
} catch (std::exception const& error) {
    std::cerr << "writer: " << error.what() << "\n";
    return 1;
}
