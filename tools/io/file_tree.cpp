#include "io/file_tree.h"

#include "io/failure.h"

#include <algorithm>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

constexpr char kNotRegular[] = ": is not a regular file: skipped";

} // namespace

FileTree::FileTree(std::string const& folder, Report skip, Report fail)
    : skip_(std::move(skip)), fail_(std::move(fail)) {
    Enter(AT_FDCWD, folder, folder.ends_with('/') ? folder : folder + '/');
}

std::unique_ptr<Input> FileTree::Next() {
    while (!open_.empty()) {
        Folder& folder = open_.back();
        if (folder.next == folder.names.size()) {
            open_.pop_back();
            continue;
        }
        std::string name = std::move(folder.names[folder.next++]);
        std::string path = folder.path + name;
        if (name.ends_with('/')) {
            name.pop_back();
            Enter(::dirfd(folder.handle.get()), name, std::move(path));
            continue;
        }
        try {
            // What has become a pipe meanwhile must not block.
            auto input = std::make_unique<Input>(path, Input::OpenIn(::dirfd(folder.handle.get()), name, O_NOFOLLOW));
            if (S_ISREG(input->Facts().st_mode)) {
                return input;
            }
            skip_(path + kNotRegular);
        } catch (InputFailure const& failure) {
            fail_(failure.what());
        }
    }
    return nullptr;
}

// Only the first folder may be a symbolic link.
void FileTree::Enter(int parent, std::string const& name, std::string path) {
    int const follow = open_.empty() ? 0 : O_NOFOLLOW;
    int const file = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
    Folder folder{std::move(path), nullptr, {}};
    if (file != -1) {
        folder.handle.reset(::fdopendir(file));
    }
    if (!folder.handle || !List(folder)) {
        fail_(ErrnoText(folder.path, "read"));
        return;
    }
    std::sort(folder.names.begin(), folder.names.end());
    open_.push_back(std::move(folder));
}

// Returns: false, with errno set, if the folder cannot be read.
bool FileTree::List(Folder& folder) const {
    for (;;) {
        errno = 0;
        dirent const* const entry = ::readdir(folder.handle.get());
        if (!entry) {
            return errno == 0;
        }
        std::string_view const name = entry->d_name;
        if (name != "." && name != "..") {
            AddName(folder, *entry);
        }
    }
}

void FileTree::AddName(Folder& folder, dirent const& entry) const {
    unsigned int type = entry.d_type;
    struct stat facts {};
    if (type == DT_UNKNOWN && ::fstatat(::dirfd(folder.handle.get()), entry.d_name, &facts, AT_SYMLINK_NOFOLLOW) == 0) {
        type = IFTODT(facts.st_mode);
    }
    switch (type) {
    case DT_DIR: folder.names.push_back(std::string(entry.d_name) + '/'); break;
    case DT_REG:
    case DT_UNKNOWN: folder.names.emplace_back(entry.d_name); break; // to report why it cannot be opened
    case DT_LNK: skip_(folder.path + entry.d_name + ": is a symbolic link: skipped"); break;
    default: skip_(folder.path + entry.d_name + kNotRegular);
    }
}

} // namespace crrecord::tool
