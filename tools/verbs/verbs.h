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

// Runs a verb. Its output is standard output.
using Action = std::function<ExitCode(Output&)>;

// Makes `app` the whole command.
void AddVerbs(CLI::App& app, Action& chosen);

// Each adds its verb to `app`. The verb on the command line sets `chosen`.
void AddBuild(CLI::App& app, Action& chosen);
void AddSegments(CLI::App& app, Action& chosen);
void AddShow(CLI::App& app, Action& chosen);
void AddValidate(CLI::App& app, Action& chosen);
void AddAnnotate(CLI::App& app, Action& chosen);
void AddConvert(CLI::App& app, Action& chosen);
void AddDigest(CLI::App& app, Action& chosen);
void AddVerify(CLI::App& app, Action& chosen);
void AddStats(CLI::App& app, Action& chosen);
void AddRedact(CLI::App& app, Action& chosen);
void AddMap(CLI::App& app, Action& chosen);
void AddDiff(CLI::App& app, Action& chosen);
void AddRefs(CLI::App& app, Action& chosen);
void AddLive(CLI::App& app, Action& chosen);
void AddFreed(CLI::App& app, Action& chosen);
void AddLost(CLI::App& app, Action& chosen);
void AddRecall(CLI::App& app, Action& chosen);
void AddExtract(CLI::App& app, Action& chosen);

// A verb's parser and its options. Lifetime: that of the whole command.
template <class Options>
struct Verb {
    CLI::App& app;
    Options& options;
};

template <class Options>
Verb<Options> AddVerb(CLI::App& app, Action& chosen, char const* name, char const* description,
                      ExitCode (*run)(Options const&, Output&)) {
    auto const options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand(name, description);
    verb->callback([=, &chosen] { chosen = [=](Output& out) { return run(*options, out); }; });
    return {*verb, *options};
}

// Prints the closing line of a verb that wrote the file `path`. If that is standard output, the line goes to standard
// error, and only if `requested`, so that it does not mix with the records.
void PrintClosing(Output& out, std::string const& path, bool requested, std::string const& line);

// Adds the positional FILE, for one or more files.
CLI::Option* AddFiles(CLI::App& verb, std::vector<std::string>& files,
                      std::string const& description = "Files of records, one after the other; - is standard input");

// Adds an option that may be repeated and takes one file name each time.
CLI::Option* AddRepeatedFile(CLI::App& verb, std::string const& option, std::vector<std::string>& files,
                             std::string const& description);

// Adds an option or a positional for one file name. Every name but the empty one is accepted literally.
CLI::Option* AddFile(CLI::App& verb, std::string const& option, std::string& file, std::string const& description);

// Adds the required option for the output file.
void AddOut(CLI::App& verb, std::string& out, std::string const& what = "file");

// Adds an option that may be repeated and takes one literal text each time.
CLI::Option* AddTexts(CLI::App& verb, std::string const& option, std::vector<std::string>& texts,
                      std::string const& description);

// Accepts a decimal number from 0 to `most`. CLI11 alone reads "-1" and numbers of too many digits as the largest
// number, and "010" as 8.
CLI::Validator WholeNumber(std::uint64_t most);

// Refuses to overwrite an input. `written` names the new content in the message; "-" is a standard file.
// Throws: Failure if `out` is one of the files.
void RefuseToReplace(std::vector<std::string> const& files, std::string const& out, std::string_view written);

// The options of verbs that also read exchange forms.
struct FormOptions {
    bool serialized = false;
    unsigned int dotype = 0;
    unsigned int fptype = 0;
    bool checksum = false;
    bool scan = false;

    std::optional<FormFacts> Facts() const {
        return serialized ? std::optional<FormFacts>(
                                {static_cast<unsigned char>(dotype), static_cast<unsigned char>(fptype), checksum})
                          : std::nullopt;
    }
};

// Returns: the number of processors that this process may use.
unsigned int Processors();

// Adds the option for the number of threads.
void AddJobs(CLI::App& verb, unsigned int& jobs);

void AddFormOptions(CLI::App& verb, FormOptions& options);

// Adds the option to search for records after bytes that are none.
void AddScan(CLI::App& verb, FormOptions& options);

// For verbs that write all records of `file` to `out`, with --scan only the valid ones.
// Throws: Failure if this would lose bytes of the only copy.
void RefuseToOmitInPlace(FormOptions const& options, std::string const& file, std::string const& out);
// Returns: true if the output is to be written. `records` is the number of its records.
bool IsWorthWriting(FormOptions const& options, ExitCode result, std::uint64_t records);
// Returns: the end of the closing line, as text or as JSON members; empty without --scan.
std::string OmittedText(FormOptions const& options, std::uint64_t bad);
std::string OmittedMembers(FormOptions const& options, std::uint64_t bad);

// Makes a stream scan if `options` say so, and print its gaps to `lines`, too, unless that is null.
void SetUp(RecordStream& stream, FormOptions const& options, Output* lines);

// Calls visit(RecordStream&) for each input. `lines` receives the gaps of the inputs as JSON, if it is not null.
// Reports an input that cannot be read and continues with the next one. Returns: the greatest exit code.
template <class Visit>
ExitCode ForEachInput(std::vector<std::string> const& names, FormOptions const& form, Output* lines, Visit visit) {
    ExitCode result = ExitCode::AllWell;
    for (std::string const& name : names) {
        try {
            RecordStream stream(name, form.Facts());
            SetUp(stream, form, lines);
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
