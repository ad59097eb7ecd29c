// Facts about files before they are opened.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace crrecord::tool {

// Returns: the status of the file `name`, after symbolic links, or std::nullopt if there is none. "-" is the standard
// file with number `standard`.
std::optional<struct stat> FactsOf(std::string const& name, int standard);

// Returns: true for two names of one regular file. "-" is standard input in `input` and standard output in `out`.
bool IsSameFile(std::string const& input, std::string const& out);

// The users who may read all inputs.
struct Readers {
    mode_t mode = 0666;        // the largest mode of a new file with their content if its group is the one in `groups`
    std::vector<gid_t> groups; // of the inputs that are not readable by everyone

    // Returns: the largest mode of a new file of that group. The bits for another group would be for other users.
    mode_t ModeFor(gid_t group) const;

    // Excludes users who cannot read the open file `file`, whose status is `facts`, if it is a regular file or a block
    // device.
    void Restrict(struct stat const& facts, int file);
};

// Returns: the readers of the inputs that are regular files or block devices. Permissions of folders are ignored. A
// file with an access control list counts as readable by its owner only.
Readers ReadersOf(std::vector<std::string> const& inputs);

// Returns: the permissions of the open file `file`, whose status is `facts`. With an access control list the group's
// bits are the list's mask and not the group's permissions, so only the owner's permissions are returned; also without
// /proc, if the file was opened with O_PATH.
mode_t PlainMode(struct stat const& facts, int file);

// Returns: a name of an open file in /proc.
std::string NameOf(int file);

// The extended attribute that holds a file's access control list.
inline constexpr char kAccessList[] = "system.posix_acl_access";

} // namespace crrecord::tool
