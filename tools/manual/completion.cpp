#include "manual/manual.h"

#include <algorithm>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

// Without an offer of this function the shell offers file names.
constexpr char kScript[] = R"(# Completion of the command crrecord for bash.
_crrecord() {{
    local verb="" offered="" i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ ${{COMP_WORDS[i]}} == -* ]] && break
        case "$verb ${{COMP_WORDS[i]}}" in
        {}) verb="$verb ${{COMP_WORDS[i]}}" ;;
        *) break ;;
        esac
    done
    case "$verb:${{COMP_WORDS[COMP_CWORD - 1]}}" in
{}    *)
        case "$verb" in
{}        esac
        [[ ${{COMP_WORDS[COMP_CWORD]}} == -* || -z "$verb" || "$verb" == " segments" ]] || return
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "${{COMP_WORDS[COMP_CWORD]}}")
}}
complete -o bashdefault -o default -F _crrecord crrecord
)";

// The words after "crrecord": "", " build", " segments build".
std::string VerbPath(CLI::App const& verb) {
    return verb.get_parent() ? VerbPath(*verb.get_parent()) + " " + verb.get_name() : "";
}

struct Cases {
    std::string verbs;  // the patterns of all verbs
    std::string values; // offered after an option with few values
    std::string words;  // offered after a verb
};

void Collect(CLI::App const& app, Cases& cases) {
    std::string words;
    for (CLI::App const* const verb : VerbsOf(app)) {
        cases.verbs += fmt::format("{}\"{}\"", cases.verbs.empty() ? "" : " | ", VerbPath(*verb));
        words += verb->get_name() + " ";
        Collect(*verb, cases);
    }
    for (CLI::Option const* const option : app.get_options()) {
        for (std::string const& name : option->get_lnames()) {
            words += "--" + name + " ";
            std::string values = option->get_type_name();
            if (values.find('|') != std::string::npos) {
                std::replace(values.begin(), values.end(), '|', ' ');
                cases.values += fmt::format("    \"{}:--{}\") offered=\"{}\" ;;\n", VerbPath(app), name, values);
            }
        }
    }
    words.pop_back();
    cases.words += fmt::format("        \"{}\") offered=\"{}\" ;;\n", VerbPath(app), words);
}

} // namespace

std::string BashCompletion(CLI::App const& app) {
    Cases cases;
    Collect(app, cases);
    return fmt::format(kScript, cases.verbs, cases.values, cases.words);
}

} // namespace crrecord::tool
