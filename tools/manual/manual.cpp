// Writes the manual pages and the shell completion to a folder: man1/*.1, completions/crrecord.

#include "manual/manual.h"
#include "verbs/verbs.h"

#include <filesystem>
#include <fstream>
#include <iostream>

using namespace crrecord::tool;

namespace {

void Write(std::filesystem::path const& file, std::string const& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file);
    stream.exceptions(std::ios::failbit | std::ios::badbit);
    stream << text;
    stream.close();
}

void WritePages(std::filesystem::path const& folder, CLI::App const& verb) {
    Write(folder / (PageName(verb) + ".1"), ManualPage(verb));
    for (CLI::App const* const part : VerbsOf(verb)) {
        WritePages(folder, *part);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: crrecord_manual FOLDER\n";
        return 2;
    }
    try {
        Action unused;
        CLI::App app;
        AddVerbs(app, unused);
        std::filesystem::path const folder = argv[1];
        std::filesystem::remove_all(folder);
        WritePages(folder / "man1", app);
        Write(folder / "completions" / "crrecord", BashCompletion(app));
    } catch (std::exception const& error) {
        std::cerr << "crrecord_manual: " << error.what() << '\n';
        return 2;
    }
    return 0;
}
