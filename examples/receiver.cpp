// Reads the record and the exchange form that the writer stored. Validates both, lists containers and tasks, and
// compares the digests.
//
//   receiver RECORD FORM

#include <crrecord/DORecord.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

std::vector<char> Read(char const* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

crfp_digest_t DigestOf(DORecord const& record) {
    crt_digest_t* digest = record.GetDigest();
    crfp_digest_t const value = digest ? digest->digest : crfp_digest_t{};
    CRTDigestDelete(&digest);
    return value;
}

bool Compare(char const* recordPath, char const* formPath) {
    // FromBuffer is safe on untrusted bytes. It throws with the reason unless they are one valid record.
    std::vector<char> const stored = Read(recordPath);
    auto const record = DORecord::FromBuffer(stored.data(), stored.size());

    cr_dcid_size_map_t containers;
    record->GetUDCIDSizeList(containers);
    for (auto const& [dcid, bytes] : containers) {
        std::cout << "container " << dcid << ": " << bytes << " bytes\n";
    }
    for (auto task = record->GetTRefBegin(); task != record->GetTRefEnd(); ++task) {
        char text[CR_TREF_TEXT_SIZE];
        std::cout << "kept by " << CRTRefToString(text, sizeof text, (*task)->Get()) << "\n";
    }
    unsigned long bytes = 0;
    for (DOSegment const& segment : record->Segments()) {
        bytes += segment.size;
    }
    std::cout << record->GetNfp() << " segments, " << bytes << " bytes\n";

    // The exchange form stores neither the DO type nor the fingerprint type, so both sides must agree on them.
    std::vector<char> const form = Read(formPath);
    DORecord const received(record->GetDOType(), record->GetFPType(), nullptr, 0, form.data(), form.size(), false);
    crfp_digest_t const ours = DigestOf(*record);
    crfp_digest_t const theirs = DigestOf(received);
    bool const same = std::memcmp(&ours, &theirs, sizeof ours) == 0;
    char text[CRFPTextSize(CR_FP_TYPE_SHA256)];
    CRFPDigestToString_r(&theirs, received.GetFPType(), text, sizeof text);
    std::cout << "digest " << text << (same ? ", the same in the exchange form\n" : ", but not in the exchange form\n");
    return same;
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 3) {
        std::cerr << "usage: receiver RECORD FORM\n";
        return 2;
    }
    return Compare(argv[1], argv[2]) ? 0 : 1;
} catch (Cr_ErrnoException const& error) {
    std::cerr << "receiver: " << CRStatusToStringA(error.GetStatus()) << ": " << error.what() << "\n";
    return 1;
}
