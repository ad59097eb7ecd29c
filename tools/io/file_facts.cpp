#include "io/file_facts.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
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

mode_t Readers::ModeFor(gid_t group) const {
    bool const same = std::all_of(groups.begin(), groups.end(), [group](gid_t other) { return other == group; });
    return mode & (same ? 0666 : 0600);
}

void Readers::Restrict(struct stat const& facts, int file) {
    if (!S_ISREG(facts.st_mode) && !S_ISBLK(facts.st_mode)) {
        return;
    }
    mode_t const readable = PlainMode(facts, file) & 0444;
    mode &= 0600 | readable | readable >> 1;
    if (readable != 0444 && (groups.empty() || groups.back() != facts.st_gid)) {
        groups.push_back(facts.st_gid);
    }
}

Readers ReadersOf(std::vector<std::string> const& inputs) {
    Readers readers;
    for (std::string const& input : inputs) {
        int const file = input == "-" ? ::dup(STDIN_FILENO) : ::open(input.c_str(), O_PATH | O_CLOEXEC);
        struct stat facts {};
        if (file != -1 && ::fstat(file, &facts) == 0) {
            readers.Restrict(facts, file);
        }
        if (file != -1) {
            ::close(file);
        }
    }
    return readers;
}

mode_t PlainMode(struct stat const& facts, int file) {
    ssize_t list = ::fgetxattr(file, kAccessList, nullptr, 0);
    if (list == -1 && errno == EBADF) { // opened with O_PATH
        list = ::getxattr(NameOf(file).c_str(), kAccessList, nullptr, 0);
    }
    bool const plain = list == -1 && (errno == ENODATA || errno == EOPNOTSUPP);
    return facts.st_mode & (plain ? 0777 : 0700);
}

std::string NameOf(int file) {
    return fmt::format("/proc/self/fd/{}", file);
}

} // namespace crrecord::tool
