// The verbs of the command.

#pragma once

#include "io/failure.h"
#include "io/output.h"
#include "io/record_stream.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace crrecord::tool {

// What a chosen verb does; its output is standard output.
using Action = std::function<ExitCode(Output&)>;

// Makes `app` the whole command.
void AddVerbs(CLI::App& app, Action& chosen);

// Each adds its verb to `app`. The verb that the command line names sets `chosen`.
void AddBuild(CLI::App& app, Action& chosen);
void AddSegments(CLI::App& app, Action& chosen);
void AddShow(CLI::App& app, Action& chosen);
void AddValidate(CLI::App& app, Action& chosen);
void AddAnnotate(CLI::App& app, Action& chosen);
void AddConvert(CLI::App& app, Action& chosen);
void AddSchema(CLI::App& app, Action& chosen);
void AddDigest(CLI::App& app, Action& chosen);
void AddVerify(CLI::App& app, Action& chosen);
void AddStats(CLI::App& app, Action& chosen);
void AddRedact(CLI::App& app, Action& chosen);
void AddMap(CLI::App& app, Action& chosen);
void AddDiff(CLI::App& app, Action& chosen);
void AddRefs(CLI::App& app, Action& chosen);

// The closing line of a verb that wrote the file `path`. Where that was standard output the line would get between the
// records, so that it goes to standard error, and only when it was asked for.
inline void PrintClosing(Output& out, std::string const& path, bool asked, std::string const& line) {
    if (path != "-") {
        out.Print("{}\n", line);
    } else if (asked) {
        Output error(STDERR_FILENO, "standard error");
        error.Print("{}\n", line);
        error.Flush();
    }
}

// Adds the positional FILE, which takes one or more names of files of records.
CLI::Option* AddFiles(CLI::App& verb, std::vector<std::string>& files);

// Adds an option or a positional that takes the name of one file. Any name but the empty one is taken as it is.
CLI::Option* AddFile(CLI::App& verb, std::string const& option, std::string& file, std::string const& description);

// Adds an option that takes one text, as it is, each time it is given.
CLI::Option* AddTexts(CLI::App& verb, std::string const& option, std::vector<std::string>& texts,
                      std::string const& description);

// Takes an option's text as a decimal number from 0 to `most`. The parser alone reads more into it: "-1" and too many
// digits are the largest number to it, and "010" is 8.
CLI::Validator WholeNumber(std::uint64_t most);

// For inputs whose content would be lost. `written` names what would replace it; "-" is a standard file.
// Throws: Failure if `out` is one of the files.
void RefuseToReplace(std::vector<std::string> const& files, std::string const& out, std::string_view written);

// The options of verbs that read exchange forms too.
struct FormOptions {
    bool serialized = false;
    unsigned int dotype = 0;
    unsigned int fptype = 0;
    bool checksum = false;

    // What RecordStream wants to know.
    std::optional<FormFacts> Facts() const {
        return serialized ? std::optional<FormFacts>(
                                {static_cast<unsigned char>(dotype), static_cast<unsigned char>(fptype), checksum})
                          : std::nullopt;
    }
};

void AddFormOptions(CLI::App& verb, FormOptions& options);

// Calls visit(RecordStream&) for each input and returns the greatest exit code. An input that cannot be read is told
// and the others are still visited.
template <class Visit>
ExitCode ForEachInput(std::vector<std::string> const& names, FormOptions const& form, Visit visit) {
    ExitCode result = ExitCode::AllWell;
    for (std::string const& name : names) {
        try {
            RecordStream stream(name, form.Facts());
            result = std::max(result, visit(stream));
            stream.ThrowIfChanged();
        } catch (InputFailure const& failure) {
            Complain(failure.what());
            result = ExitCode::CouldNotWork;
        }
    }
    return result;
}

} // namespace crrecord::tool
