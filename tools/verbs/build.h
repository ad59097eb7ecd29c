// The options of crrecord build.

#pragma once

#include "record/record_builder.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

struct BuildOptions {
    std::vector<std::string> files;
    std::vector<std::string> folders;
    std::string list; // a file of names
    std::string out;
    std::string names;
    std::vector<std::string> known;
    std::string segmentsOut;
    FormOptions knownForm; // of --known, without its form
    CutOptions cut;
    bool choseContainer = false; // the first container is the user's choice
    ObjectFacts object;
    bool json = false;

    // Whether there may be records of several files, with deduplication.
    bool IsRun() const {
        return files.size() != 1 || !folders.empty() || !list.empty() || !names.empty() || !known.empty() ||
               !segmentsOut.empty();
    }

    // Only DO type 3 can leave out holes.
    Holes ForHoles() const { return object.dotype == CR_DO_TYPE_8_BYTE_OFFSET ? Holes::AreGaps : Holes::AreZeros; }
};

// Writes the records of many files.
ExitCode BuildFiles(BuildOptions const& options, Output& out);

} // namespace crrecord::tool
