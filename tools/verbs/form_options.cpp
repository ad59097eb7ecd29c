#include "verbs/verbs.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>

namespace crrecord::tool {

void AddFormOptions(CLI::App& verb, FormOptions& options) {
    auto const range = [](unsigned int most) { return CLI::Range(0U, most).description(""); };
    auto* const serialized =
        verb.add_flag("--serialized", options.serialized, "The input is the exchange form of a DO record");
    auto* const dotype = verb.add_option("--dotype", options.dotype, "DO type of the exchange form")
                             ->check(range(CR_DO_TYPE_LAST))
                             ->type_name("N")
                             ->needs(serialized);
    auto* const fptype = verb.add_option("--fptype", options.fptype, "Fingerprint type of the exchange form")
                             ->check(range(CR_FP_TYPE_LAST))
                             ->type_name("N")
                             ->needs(serialized);
    serialized->needs(dotype)->needs(fptype);
    verb.add_flag("--checksum", options.checksum, "The exchange form has the checksum of itself in its head")
        ->needs(serialized);
}

} // namespace crrecord::tool
