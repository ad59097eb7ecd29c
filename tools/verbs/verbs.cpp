#include "verbs/verbs.h"

#include <charconv>
#include <filesystem>

namespace crrecord::tool {

CLI::Validator WholeNumber(std::uint64_t most) {
    auto const refusal = [most](std::string& text) {
        std::uint64_t number = 0;
        std::from_chars(text.data(), text.data() + text.size(), number);
        bool const whole = number <= most && text == std::to_string(number);
        return whole ? std::string()
                     : fmt::format("found \"{}\", expected a whole number of 0 to {}", Printable(text), most);
    };
    return {refusal, ""};
}

void RefuseToReplace(std::vector<std::string> const& files, std::string const& out, std::string_view written) {
    for (std::string const& file : files) {
        std::error_code unknown; // of a file that is not there
        if (file != "-" && out != "-" && std::filesystem::equivalent(file, out, unknown)) {
            throw Failure(fmt::format("{}: is an input itself, which the {} would replace", out, written));
        }
    }
}

void AddVerbs(CLI::App& app, Action& chosen) {
    app.name("crrecord");
    app.description("Builds, shows, checks, changes and converts the records of a deduplicating content store.");
    app.set_version_flag("--version", "crrecord " CRRECORD_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 all well; 1 a record is bad, or something differs; 2 the command could not do its work.");
    AddBuild(app, chosen);
    AddShow(app, chosen);
    AddValidate(app, chosen);
    AddAnnotate(app, chosen);
    AddConvert(app, chosen);
    AddSchema(app, chosen);
    AddDigest(app, chosen);
    AddVerify(app, chosen);
    AddRefs(app, chosen);
    AddDiff(app, chosen);
    AddStats(app, chosen);
    AddRedact(app, chosen);
    AddMap(app, chosen);
    AddSegments(app, chosen);
}

} // namespace crrecord::tool
