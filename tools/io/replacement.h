// A new file that replaces another one when it is complete.

#pragma once

#include "io/file_facts.h"

#include <string>
#include <vector>

#include <sys/stat.h>

namespace crrecord::tool {

// Removes the files of incomplete outputs that have a name. Safe in signal handlers.
void RemoveUnfinishedOutput() noexcept;

// The new file has no name until it is complete, if the file system allows that; otherwise it has a random one, which
// an error or a signal removes. Up to kMost at a time.
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
    static constexpr std::size_t kMost = 4;

    // If `inputs` is null, a new file is private until WidenFor.
    // Throws: Failure if the file cannot be created, or `path` is not a regular file.
    Replacement(std::string path, std::vector<std::string> const* inputs);
    ~Replacement();
    Replacement(Replacement const&) = delete;
    Replacement& operator=(Replacement const&) = delete;

    // The descriptor to write to.
    int File() const { return file_; }

    // Gives a new file the mode for these readers of its content, without the access control list of its folder. A file
    // that replaces a former one keeps that one's access.
    void WidenFor(Readers const& readers);

    // Whether an open file with this status is the new file or the former one.
    bool IsFile(struct stat const& facts) const;

    // The steps of a commit. Each throws Failure, and leaves a former file unchanged if Publish was not called.
    // Syncs the new file to disk.
    void Sync() const;
    // Gives the new file a name. Throws also if another program replaced or removed the former file meanwhile.
    void Link();
    // Replaces the former file.
    void Publish();
    // Syncs the folder.
    void SyncFolder() const;

private:
    std::string path_; // as the user named it
    std::string base_; // the target's name in its folder
    int folder_ = -1;  // the target's folder
    int former_ = -1;  // the former file, if there is one, opened with O_PATH
    int file_ = -1;
    std::string temporary_; // the new file's name in its folder, if it has one
    std::size_t slot_ = 0;  // for the signal handler, if it has one

    // Delegated to, so that the destructor runs if the other constructor throws.
    explicit Replacement(std::string path);
    void OpenFolder();
    void Create(mode_t mode);
    bool CreateUnnamed(mode_t mode);
    void CreateFor(Readers const& readers);
    void CopyAccess(struct stat const& former) const;
    bool RemoveList() const;
    void ThrowIfReplaced() const;
    void RemoveWhenInterrupted(std::string&& name);
};

} // namespace crrecord::tool
