// Runs a fuzz target without an engine.
//
//   replay TARGET FILE_OR_FOLDER...
//
// The first input is empty, as with an engine. Then each file is one input, in the order of the names.

#include "target.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace {

fuzz::Target const* Find(char const* name) {
    fuzz::Target const* target = fuzz::Target::first;
    while (target && std::strcmp(target->name, name) != 0) {
        target = target->next;
    }
    return target;
}

std::set<std::filesystem::path> FilesOf(std::span<char*> names) {
    std::set<std::filesystem::path> files;
    for (char const* const name : names) {
        if (!std::filesystem::is_directory(name)) {
            files.insert(name);
            continue;
        }
        for (auto const& entry : std::filesystem::directory_iterator(name)) {
            if (entry.is_regular_file()) {
                files.insert(entry.path());
            }
        }
    }
    return files;
}

} // namespace

int main(int count, char** arguments) {
    fuzz::Target const* const target = count < 3 ? nullptr : Find(arguments[1]);
    if (!target) {
        std::fprintf(stderr, "usage: replay TARGET FILE_OR_FOLDER...\n");
        return 2;
    }
    fuzz::BeSilent();
    target->run(fuzz::Block());
    std::size_t runs = 0;
    for (auto const& path : FilesOf({arguments + 2, arguments + count})) {
        std::ifstream file(path, std::ios::binary);
        fuzz::Block const bytes{std::istreambuf_iterator<char>(file), {}};
        if (!file) {
            std::fprintf(stderr, "%s: cannot read\n", path.c_str());
            return 2;
        }
        std::printf("%s\n", path.c_str()); // after an abort, the last line names the input
        std::fflush(stdout);
        target->run(bytes);
        ++runs;
    }
    std::printf("%s: %zu files\n", target->name, runs);
    return runs == 0 ? 1 : 0;
}
