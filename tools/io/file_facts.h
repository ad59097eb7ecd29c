// What the system knows of a file before it is opened.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace crrecord::tool {

// The facts of the file `name`, symbolic links followed; "-" is the standard file of number `standard`.
// Returns: nothing for a file that does not exist.
std::optional<struct stat> FactsOf(std::string const& name, int standard);

// True for two names of one regular file. In `out`, "-" is standard output, in `input` it is standard input.
bool IsSameFile(std::string const& input, std::string const& out);

// Who may read all of some inputs.
struct Readers {
    mode_t mode = 0666;        // the largest mode of a new file with their content that has all of `groups`
    std::vector<gid_t> groups; // of the inputs that not everybody may read

    // The largest mode of a new file of that group: with another group its bits would be for other users.
    mode_t ModeFor(gid_t group) const;
};

// The readers of regular files and block devices, found by name. Folders' permissions don't count, nor do pipes. A file
// with an access control list counts as readable by its owner only.
Readers ReadersOf(std::vector<std::string> const& inputs);

// The mode of the open file `file`, whose facts are `facts`, for the rights of user, group and others. With an access
// control list the group's bits of `facts` are the list's mask, which says nothing of the group's own rights: only the
// owner's rights are left. So it is without /proc, if the file is open for its facts only.
mode_t PlainMode(struct stat const& facts, int file);

// A name of an open file, through /proc.
std::string NameOf(int file);

// The extended attribute that holds a file's access control list.
inline constexpr char kAccessList[] = "system.posix_acl_access";

} // namespace crrecord::tool
