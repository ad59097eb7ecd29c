// A new file that takes the place of another one when it is complete.

#pragma once

#include "io/file_facts.h"

#include <string>
#include <vector>

#include <sys/stat.h>

namespace crrecord::tool {

// Removes the file of an output that is not complete, if it has a name. For signal handlers too.
void RemoveUnfinishedOutput() noexcept;

// The new file has no name until it is complete, if the file system allows that; otherwise it has a random one, which
// an error or a signal removes. One at a time.
//
// It replaces the file `path`, with symbolic links resolved, and keeps its owner, group and mode for reading, writing
// and executing. Without the right to change the owner or group, or if the former file has an access control list, only
// the owner's rights are kept. Set-user-id, set-group-id and sticky bits, the list itself and other extended attributes
// are not kept. If there is no former file the mode is that of a new file whose content comes from `inputs`
// (ReadersOf). At no time has the new file a wider mode than in the end.
//
// Names are resolved once: whoever moves files and links meanwhile gets no file with the access of another one.
class Replacement {
public:
    // Throws: Failure if the file cannot be created, or `path` leads to something that is no regular file.
    Replacement(std::string path, std::vector<std::string> const& inputs);
    ~Replacement();
    Replacement(Replacement const&) = delete;
    Replacement& operator=(Replacement const&) = delete;

    // The descriptor to write to.
    int File() const { return file_; }

    // The file is complete: moves it to its place and syncs it and its folder to disk.
    // Throws: Failure; also if another file has taken the former one's place since the beginning.
    // On failure: a former file is unchanged, unless only the folder could not be synced.
    void Commit();

private:
    std::string path_; // as the user named it
    std::string base_; // the target's name in its folder
    int folder_ = -1;  // the target's folder, in which everything happens
    int former_ = -1;  // the former file, if there is one: for its facts only
    int file_ = -1;
    std::string temporary_; // the file's present name in its folder, if it has one

    // Makes an object that holds nothing yet, which the destructor clears up if the other constructor fails.
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
