// crrecord schema: the JSON Schema of the JSON form.

#include "verbs/verbs.h"

namespace crrecord::tool {

// The text of formats/crrecord.schema.json; the build makes a source file of it.
extern char const kJsonSchemaText[];

void AddSchema(CLI::App& app, Action& chosen) {
    CLI::App* const verb = app.add_subcommand("schema", "Print the JSON Schema of the records' JSON form");
    verb->footer(
        "It describes a line of show --json and of convert --to json; each line that other verbs print with --json\n"
        "has a definition in its $defs, such as findingsLine, annotateLine or buildLine.\n\n"
        "Example:\n  crrecord schema >crrecord.schema.json");
    verb->callback([&chosen] {
        chosen = [](Output& out) {
            out.Write(kJsonSchemaText);
            return ExitCode::AllWell;
        };
    });
}

} // namespace crrecord::tool
