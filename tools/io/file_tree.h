// The files of a folder.

#pragma once

#include "io/input.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>

namespace crrecord::tool {

// The regular files in a folder and the folders in it, in the order of the bytes of their names. Symbolic links are not
// followed, and special files are not opened.
//
// Each folder is opened in its parent, so a folder that is moved meanwhile, or replaced by a link, leads nowhere else.
class FileTree {
public:
    using Report = std::function<void(std::string const&)>;

    // Calls skip(text) for each file that is not a regular one, and fail(text) for each folder and file that cannot be
    // read.
    FileTree(std::string const& folder, Report skip, Report fail);

    // Returns: the next file, or null after the last one.
    std::unique_ptr<Input> Next();

private:
    struct Close {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    struct Folder {
        std::string path; // ends with a slash
        std::unique_ptr<DIR, Close> handle;
        std::vector<std::string> names; // a folder's ends with a slash
        std::size_t next = 0;
    };

    void Enter(int parent, std::string const& name, std::string path);
    bool List(Folder& folder) const;
    void AddName(Folder& folder, dirent const& entry) const;

    Report skip_;
    Report fail_;
    std::vector<Folder> open_; // from the first one to the current one
};

} // namespace crrecord::tool
