// A new file that takes the place of another one when it is complete.

#pragma once

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
// (ModeForContentOf). At no time has the new file a wider mode than in the end.
class Replacement {
public:
    // Throws: Failure if the file cannot be created.
    Replacement(std::string path, std::vector<std::string> const& inputs);
    ~Replacement();
    Replacement(Replacement const&) = delete;
    Replacement& operator=(Replacement const&) = delete;

    // The descriptor to write to.
    int File() const { return file_; }

    // The file is complete: moves it to its place and syncs it and its folder to disk.
    // Throws: Failure.
    // On failure: a former file is unchanged.
    void Commit();

private:
    std::string path_;   // as the user named it
    std::string target_; // with symbolic links resolved
    std::string folder_;
    std::string temporary_; // the file's present name, if it has one
    int file_ = -1;

    void Create(mode_t mode);
    bool CreateUnnamed(mode_t mode);
    void CopyAccess(struct stat const& former) const;
    void Link();
    void SyncFolder() const;
    std::string RandomName() const;
    void RemoveWhenInterrupted(std::string const& name);
};

} // namespace crrecord::tool
