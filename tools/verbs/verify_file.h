// Compares a file with its DO record.

#pragma once

#include "record/do_record.h"
#include "verbs/verbs.h"

#include <ctime>

namespace crrecord::tool {

struct VerifyOptions {
    std::string record;
    std::string file;
    std::string names;  // an index of the records, whose files are compared instead of `file`
    std::string folder; // of those files
    FormOptions form;
    std::string out; // of --stamp
    bool stamp = false;
    std::uint32_t start = static_cast<std::uint32_t>(std::time(nullptr));
    bool noCrc = false;
    bool json = false;
};

// Compares a file with its record, and prints the differences and the result. `place` is the place of the record if it
// is one of several; null otherwise.
// Throws: InputFailure if the file cannot be read to its end.
ExitCode VerifyFile(VerifyOptions const& options, DORecord const& record, Record const* place, Input& input,
                    Output& out);

} // namespace crrecord::tool
