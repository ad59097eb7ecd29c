#include "manual/manual.h"

#include <algorithm>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

// Escapes what man(7) interprets: backslashes, dots and quotes at the start of a line, and hyphens, which become
// dashes.
std::string Escaped(std::string_view text) {
    std::string escaped;
    bool lineStart = true;
    for (char const character : text) {
        if (lineStart && (character == '.' || character == '\'')) {
            escaped += "\\&";
        }
        if (character == '\\') {
            escaped += "\\e";
        } else if (character == '-') {
            escaped += "\\-";
        } else {
            escaped += character;
        }
        lineStart = character == '\n';
    }
    return escaped;
}

// "crrecord segments build".
std::string FullName(CLI::App const& verb) {
    return verb.get_parent() ? FullName(*verb.get_parent()) + " " + verb.get_name() : verb.get_name();
}

std::string Placeholder(CLI::Option const& option) {
    std::string const type = option.get_type_name();
    return option.get_positional() ? option.get_name() : type;
}

std::string Synopsis(CLI::App const& verb) {
    std::string text = fmt::format(".B {}\n", Escaped(FullName(verb)));
    if (!VerbsOf(verb).empty()) {
        return text + ".I VERB\n[\\fIOPTIONS\\fR] \\fIFILE\\fR...\n";
    }
    for (CLI::Option const* const option : verb.get_options()) {
        if (!option->get_positional() && option->get_required()) {
            std::string const name =
                option->get_snames().empty() ? "--" + option->get_lnames().front() : "-" + option->get_snames().front();
            text += fmt::format("\\fB{}\\fR \\fI{}\\fR\n", Escaped(name), Escaped(Placeholder(*option)));
        }
    }
    text += "[\\fIOPTIONS\\fR]\n";
    for (CLI::Option const* const option : verb.get_options()) {
        if (option->get_positional()) {
            std::string const name =
                fmt::format("\\fI{}\\fR{}", option->get_name(), option->get_expected_max() > 1 ? "..." : "");
            text += option->get_required() ? name + "\n" : "[" + name + "]\n";
        }
    }
    return text;
}

std::string Options(CLI::App const& verb) {
    std::string text;
    for (CLI::Option const* const option : verb.get_options()) {
        std::string const name =
            option->get_positional() ? option->get_name() : option->get_name(false, true); // "-o,--out"
        text += fmt::format(".TP\n\\fB{}\\fR", Escaped(name));
        if (!option->get_positional() && option->get_items_expected_max() > 0) {
            text += fmt::format(" \\fI{}\\fR", Escaped(Placeholder(*option)));
        }
        text += fmt::format("\n{}", Escaped(option->get_description()));
        std::string const standard = option->get_default_str();
        text += standard.empty() ? "\n" : fmt::format(" [{}]\n", Escaped(standard));
    }
    return text;
}

std::string Verbs(CLI::App const& app) {
    std::string text;
    for (CLI::App const* const verb : VerbsOf(app)) {
        text += fmt::format(".TP\n\\fB{}\\fR\n{}; see \\fB{}\\fR(1)\n", Escaped(verb->get_name()),
                            Escaped(verb->get_description()), Escaped(PageName(*verb)));
    }
    return text;
}

std::string Section(std::string_view name, std::string const& text) {
    return text.empty() ? "" : fmt::format(".SH {}\n{}", name, text);
}

} // namespace

std::vector<CLI::App const*> VerbsOf(CLI::App const& app) {
    return app.get_subcommands([](CLI::App const*) { return true; });
}

std::string PageName(CLI::App const& verb) {
    std::string name = FullName(verb);
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

std::string ManualPage(CLI::App const& verb) {
    // The footer of the help: paragraphs, then examples. The footer of the command itself is its exit status.
    std::string const closing = verb.get_footer();
    constexpr std::string_view kExample = "Example:\n";
    std::size_t const example = std::min(closing.find(kExample), closing.size());
    std::string words = closing.substr(0, example);
    words.erase(words.find_last_not_of('\n') + 1);
    std::string const examples =
        example == closing.size() ? "" : ".nf\n" + Escaped(closing.substr(example + kExample.size())) + "\n.fi\n";
    std::string page = fmt::format(".TH {} 1\n", Escaped(PageName(verb)));
    page += Section("NAME", fmt::format("{} \\- {}\n", Escaped(PageName(verb)), Escaped(verb.get_description())));
    page += Section("SYNOPSIS", Synopsis(verb));
    page += Section("DESCRIPTION", words.empty() || !verb.get_parent() ? "" : Escaped(words) + "\n");
    page += Section("VERBS", Verbs(verb));
    page += Section("OPTIONS", Options(verb));
    page += Section("EXAMPLES", examples);
    page += Section("EXIT STATUS", ".TP\n0\nall well\n.TP\n1\na record is bad, or something differs\n"
                                   ".TP\n2\nthe command could not do its work\n");
    page += verb.get_parent() ? Section("SEE ALSO", ".BR crrecord (1)\n") : "";
    return page;
}

} // namespace crrecord::tool
