#include "io/file_facts.h"

#include <sys/xattr.h>
#include <unistd.h>

namespace crrecord::tool {

std::optional<struct stat> FactsOf(std::string const& name, int standard) {
    struct stat facts {};
    int const result = name == "-" ? ::fstat(standard, &facts) : ::stat(name.c_str(), &facts);
    return result == 0 ? std::optional(facts) : std::nullopt;
}

bool IsSameFile(std::string const& input, std::string const& out) {
    auto const from = FactsOf(input, STDIN_FILENO);
    auto const to = FactsOf(out, STDOUT_FILENO);
    return from && to && S_ISREG(from->st_mode) && from->st_dev == to->st_dev && from->st_ino == to->st_ino;
}

mode_t ModeForContentOf(std::vector<std::string> const& inputs) {
    mode_t mode = 0666;
    for (std::string const& input : inputs) {
        auto const facts = FactsOf(input, STDIN_FILENO);
        if (facts && S_ISREG(facts->st_mode)) {
            mode_t const readable = PlainMode(*facts, input) & 0444;
            mode &= 0600 | readable | readable >> 1;
        }
    }
    return mode;
}

mode_t PlainMode(struct stat const& facts, std::string const& name) {
    ssize_t const size = name == "-" ? ::fgetxattr(STDIN_FILENO, kAccessList, nullptr, 0)
                                     : ::getxattr(name.c_str(), kAccessList, nullptr, 0);
    return facts.st_mode & (size > 0 ? 0700 : 0777);
}

} // namespace crrecord::tool
