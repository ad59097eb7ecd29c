#include "verbs/verbs.h"

#include "io/file_facts.h"

#include <charconv>

namespace crrecord::tool {

namespace {

constexpr int kMany = CLI::detail::expected_max_vector_size;

CLI::Validator NamesAFile() {
    return {[](std::string& name) { return name.empty() ? "found an empty name, expected that of a file" : ""; }, ""};
}

void AddToEachVerb(CLI::App& app, std::string const& flag, void (*callback)(), std::string const& description) {
    app.add_flag_callback(flag, callback, description);
    for (CLI::App* const verb : app.get_subcommands([](CLI::App const*) { return true; })) {
        AddToEachVerb(*verb, flag, callback, description);
    }
}

} // namespace

// The parser's vectors would take "[a,b]" for two texts and "{}" for none.
CLI::Option* AddTexts(CLI::App& verb, std::string const& option, std::vector<std::string>& texts,
                      std::string const& description) {
    CLI::callback_t const converted = [](CLI::results_t const&) { return true; };
    auto const take = [&texts, first = true](std::string const& text) mutable {
        if (std::exchange(first, false)) {
            texts.clear(); // of its default
        }
        texts.push_back(text);
    };
    return verb.add_option(option, converted, description)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1, kMany)
        ->each(take);
}

CLI::Option* AddFiles(CLI::App& verb, std::vector<std::string>& files) {
    // Without lists in brackets the parser gives a positional only as many texts as that expects at least.
    return AddTexts(verb, "FILE", files, "Files of records, one behind the other; - is standard input")
        ->expected(kMany - 1, kMany)
        ->check(NamesAFile())
        ->type_name("");
}

CLI::Option* AddFile(CLI::App& verb, std::string const& option, std::string& file, std::string const& description) {
    return verb.add_option(option, file, description)->check(NamesAFile())->type_name("");
}

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
        if (IsSameFile(file, out)) {
            throw Failure(fmt::format("{}: is an input itself, which the {} would replace",
                                      out == "-" ? "standard output" : out, written));
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
    AddToEachVerb(app, "--no-progress", Progress::Disable, "Draw no progress on the terminal");
}

} // namespace crrecord::tool
