// A new file that replaces another one when it is complete.

#pragma once

#include "io/file_facts.h"

#include <string>
#include <vector>

#include <sys/stat.h>

namespace crrecord::tool {

// Removes the file of an incomplete output, if it has a name. Safe in signal handlers.
void RemoveUnfinishedOutput() noexcept;

// The new file has no name until it is complete, if the file system allows that; otherwise it has a random one, which
// an error or a signal removes. One at a time.
//
// It replaces the file `path`, with symbolic links resolved, and keeps its owner, group and permissions. If the owner
// or group cannot be changed, or the former file has an access control list, only the owner's permissions are kept.
// Set-user-id, set-group-id and sticky bits, the list itself and other extended attributes are not kept. Without a
// former file the mode is that of a new file whose content comes from `inputs` (ReadersOf). The new file never has a
// wider mode than at the end.
//
// Names are resolved once: files and links that are moved meanwhile do not get the access of another file.
class Replacement {
public:
    // Throws: Failure if the file cannot be created, or `path` is not a regular file.
    Replacement(std::string path, std::vector<std::string> const& inputs);
    ~Replacement();
    Replacement(Replacement const&) = delete;
    Replacement& operator=(Replacement const&) = delete;

    // The descriptor to write to.
    int File() const { return file_; }

    // Replaces the former file and syncs the file and its folder to disk.
    // Throws: Failure; also if another program replaced or removed the former file meanwhile.
    // On failure: a former file is unchanged, unless only the folder could not be synced.
    void Commit();

private:
    std::string path_; // as the user named it
    std::string base_; // the target's name in its folder
    int folder_ = -1;  // the target's folder
    int former_ = -1;  // the former file, if there is one, opened with O_PATH
    int file_ = -1;
    std::string temporary_; // the new file's name in its folder, if it has one

    // Delegated to, so that the destructor runs if the other constructor throws.
    explicit Replacement(std::string path);
    void OpenFolder();
    void Create(mode_t mode);
    bool CreateUnnamed(mode_t mode);
    void CreateFor(Readers const& readers);
    void CopyAccess(struct stat const& former) const;
    bool RemoveList() const;
    void Link();
    void ThrowIfReplaced() const;
    void SyncFolder() const;
    void RemoveWhenInterrupted(std::string&& name);
};

} // namespace crrecord::tool
