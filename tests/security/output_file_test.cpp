// Who may read and change the output files: owners, modes and access control lists. Files after an interruption.

#include "tool/tool.h"

#include "io/failure.h"
#include "io/output.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

namespace {

bool refuseUnnamed = false; // as a file system without O_TMPFILE
mode_t madeWith = 0;        // the mode of the file that was created last

} // namespace

// The linker gives the command's calls of openat to this function.
extern "C" int __real_openat(int folder, char const* path, int flags, ...);
extern "C" int __wrap_openat(int folder, char const* path, int flags, ...) {
    bool const unnamed = (flags & O_TMPFILE) == O_TMPFILE;
    if ((flags & O_CREAT) == 0 && !unnamed) {
        return __real_openat(folder, path, flags);
    }
    std::va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (refuseUnnamed && unnamed) {
        errno = EOPNOTSUPP;
        return -1;
    }
    int const file = __real_openat(folder, path, flags, mode);
    struct stat facts {};
    madeWith = file != -1 && fstat(file, &facts) == 0 ? facts.st_mode & 07777 : madeWith;
    return file;
}

namespace {

constexpr uid_t kSomebody = 65533; // neither this user nor the next one
constexpr uid_t kOther = 65534;

// An access control list in which the user kOther may read and write, and the group nothing.
Bytes List() {
    // Version; then tag, rights and id of owner, kOther, group, mask and others.
    return FromHex("02000000"
                   "01000600ffffffff"
                   "02000600feff0000"
                   "04000000ffffffff"
                   "10000600ffffffff"
                   "20000000ffffffff");
}

// With files that have no name while they are written, and as on file systems that lack them.
class OutputFiles : public Tool, public testing::WithParamInterface<bool> {
protected:
    OutputFiles() { refuseUnnamed = GetParam(); }

    bool SetList(std::string const& name, char const* attribute) {
        Bytes const list = List();
        return setxattr(PathOf(name).c_str(), attribute, list.data(), list.size(), 0) == 0;
    }

    // Writes "out" in a process of its own, as that user, and calls `halfway` before the file is complete.
    // Returns: the status from waitpid: exit 92 for a Failure, 91 if the file was open to more users when it was made
    // than in the end.
    int WriteOut(
        uid_t user, std::vector<std::string> const& inputs, std::function<void()> const& halfway = [] {}) {
        pid_t const child = fork();
        if (child == 0) {
            umask(022);
            if (user != geteuid() && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)) {
                _exit(90);
            }
            try {
                crrecord::tool::OutputFile file(PathOf("out"), inputs);
                file.Write("new", 3);
                file.Text().Flush();
                halfway();
                file.Commit();
            } catch (crrecord::tool::Failure const&) {
                _exit(92);
            }
            struct stat made {};
            _exit(stat(PathOf("out").c_str(), &made) == 0 && (madeWith & ~made.st_mode) == 0 ? 0 : 91);
        }
        int ended = 0;
        waitpid(child, &ended, 0);
        return ended;
    }

    // Mode and owner of "out" with its new content, and whether it has a list.
    std::string Facts() {
        struct stat facts {};
        if (stat(PathOf("out").c_str(), &facts) != 0 || String("out") != "new") {
            return "not written";
        }
        bool const list = getxattr(PathOf("out").c_str(), "system.posix_acl_access", nullptr, 0) > 0;
        return fmt::format("{:o} {}:{}{}", facts.st_mode & 07777, facts.st_uid, facts.st_gid, list ? " list" : "");
    }
};

INSTANTIATE_TEST_SUITE_P(Named, OutputFiles, testing::Bool());

// Set-user-id, set-group-id and sticky bits are cleared, and the rights of group and others if the owner changes.
TEST_P(OutputFiles, KeepAFormerFilesOwnerAndMode) {
    struct {
        mode_t mode;
        uid_t owner, writer;
        std::string expected;
    } const rows[] = {
        {0640, 0, 0, "640 0:0"},
        {07755, 0, 0, "755 0:0"},
        {0604, kSomebody, 0, "604 65533:65533"},
        {06755, kSomebody, 0, "755 65533:65533"},
        {0400, kSomebody, 0, "400 65533:65533"},
        {0664, kSomebody, kOther, "600 65534:65534"},
        {06777, kSomebody, kOther, "700 65534:65534"},
        {0664, kOther, kOther, "664 65534:65534"},
    };
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can write files as two users";
    }
    ASSERT_EQ(chmod(PathOf("").c_str(), 0777), 0);
    for (auto const& row : rows) {
        SCOPED_TRACE(fmt::format("{:o} {} {}", row.mode, row.owner, row.writer));
        std::filesystem::remove(PathOf("out"));
        Write("out", Text("former"));
        ASSERT_EQ(chown(PathOf("out").c_str(), row.owner, row.owner), 0);
        ASSERT_EQ(chmod(PathOf("out").c_str(), row.mode), 0);
        EXPECT_EQ(WriteOut(row.writer, {}), 0);
        EXPECT_EQ(Facts(), row.expected);
        EXPECT_EQ(Files(), "out ");
    }
}

// A user who exchanges two links meanwhile gets none of root's files: each file keeps its own owner and mode.
TEST_P(OutputFiles, GiveNoFileTheAccessOfAnother) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can write files as two users";
    }
    refuseUnnamed = false;
    std::filesystem::create_directory(PathOf("root"));
    std::filesystem::create_symlink("mine", PathOf("out"));
    std::filesystem::create_symlink("root/victim", PathOf("other"));
    Write("mine", {});
    Write("root/victim", {});
    ASSERT_EQ(chown(PathOf("mine").c_str(), kSomebody, kSomebody), 0);
    ASSERT_EQ(chmod(PathOf("mine").c_str(), 0666), 0);
    ASSERT_EQ(chmod(PathOf("root/victim").c_str(), 0600), 0);
    ASSERT_EQ(chown(PathOf("").c_str(), kSomebody, kSomebody), 0);
    std::string const link = PathOf("out");
    std::string const other = PathOf("other");
    std::jthread const exchange([&](std::stop_token const& stop) {
        while (!stop.stop_requested()) {
            renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
        }
    });
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    struct stat victim {};
    while (std::chrono::steady_clock::now() < end && victim.st_uid == 0) {
        WriteOut(0, {});
        ASSERT_EQ(stat(PathOf("root/victim").c_str(), &victim), 0);
        ASSERT_EQ(fmt::format("{:o} {}", victim.st_mode & 07777, victim.st_uid), "600 0");
    }
}

// The former file's access does not apply to a file that replaced it, or to the later target of a link.
TEST_P(OutputFiles, ReplaceOnlyTheFileTheyFound) {
    Write("out", Text("former"));
    Write("later", Text("later"));
    EXPECT_NE(WriteOut(geteuid(), {}, [this] { rename(PathOf("later").c_str(), PathOf("out").c_str()); }), 0);
    EXPECT_EQ(String("out") + Files(), "laterout ");
    std::filesystem::remove(PathOf("out"));
    std::filesystem::create_symlink("nothing", PathOf("out"));
    EXPECT_NE(WriteOut(geteuid(), {}), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(PathOf("out")));
    EXPECT_EQ(Files(), "out ");
    std::filesystem::create_directories(PathOf("folder/sub"));
    Write("folder/sub/file", Text("former"));
    std::filesystem::remove(PathOf("out"));
    std::filesystem::create_symlink("folder/sub/file", PathOf("out"));
    WriteOut(geteuid(), {}, [this] {
        rename(PathOf("folder").c_str(), PathOf("moved").c_str());
        std::filesystem::create_directories(PathOf("folder/sub"));
        Write("folder/sub/file", Text("other"));
    });
    EXPECT_EQ(String("moved/sub/file") + String("folder/sub/file"), "newother");
}

// Users who cannot read an input cannot read a new file with its content.
TEST_P(OutputFiles, AreAsPrivateAsTheirInputs) {
    std::string const owner = fmt::format(" {}:{}", geteuid(), getegid());
    Write("secret", {});
    Write("ours", {});
    Write("public", {});
    chmod(PathOf("secret").c_str(), 0600);
    chmod(PathOf("ours").c_str(), 0640);
    chmod(PathOf("public").c_str(), 0444);
    std::pair<std::vector<std::string>, std::string> const rows[] = {
        {{}, "644"}, {{"public"}, "644"}, {{"ours", "public"}, "640"}, {{"public", "ours", "secret"}, "600"}};
    for (auto const& [names, expected] : rows) {
        std::filesystem::remove(PathOf("out"));
        std::vector<std::string> inputs{"/dev/null", PathOf("none")};
        for (std::string const& name : names) {
            inputs.push_back(PathOf(name));
        }
        EXPECT_EQ(WriteOut(geteuid(), inputs), 0);
        EXPECT_EQ(Facts(), expected + owner);
    }
    // Rights of a group are for no other group, also if the folder gives the new file another one.
    if (geteuid() == 0) {
        std::filesystem::remove(PathOf("out"));
        ASSERT_EQ(chown(PathOf("ours").c_str(), 0, kOther), 0);
        EXPECT_EQ(WriteOut(0, {PathOf("ours")}), 0);
        EXPECT_EQ(Facts(), "600 0:0");
        std::filesystem::remove(PathOf("out"));
        ASSERT_EQ(chown(PathOf("").c_str(), 0, kOther), 0);
        ASSERT_EQ(chmod(PathOf("").c_str(), 02755), 0);
        EXPECT_EQ(WriteOut(0, {PathOf("ours")}), 0);
        EXPECT_EQ(Facts(), "640 0:65534");
        std::filesystem::remove(PathOf("out"));
        ASSERT_EQ(mknod(PathOf("disk").c_str(), S_IFBLK | 0600, makedev(7, 99)), 0);
        EXPECT_EQ(WriteOut(0, {PathOf("disk")}), 0);
        EXPECT_EQ(Facts(), "600 0:65534");
    }
    Write("data", Text("data"));
    chmod(PathOf("data").c_str(), 0600);
    for (std::string const line :
         {"build data -o made", "build - -o made <data", "segments build data -o made",
          "convert made --to host -o made2; mv made2 made", "redact made -o made2; mv made2 made",
          "refs made --add task:1 -o made2", "map made -o made2"}) {
        ASSERT_EQ(Run(line + "; chmod 600 made; stat -c %a made*; rm -f made2"), 0) << err;
        EXPECT_EQ(out.find("644"), out.npos) << line;
    }
}

TEST_P(OutputFiles, AccessControlListsWidenNothing) {
    std::string const owner = fmt::format(" {}:{}", geteuid(), getegid());
    Write("out", Text("former"));
    Write("in", {});
    if (!SetList("out", "system.posix_acl_access") || !SetList("in", "system.posix_acl_access")) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    EXPECT_EQ(WriteOut(geteuid(), {}), 0); // the mode's group was the list's mask
    EXPECT_EQ(Facts(), "600" + owner);
    std::filesystem::remove(PathOf("out"));
    EXPECT_EQ(WriteOut(geteuid(), {PathOf("in")}), 0);
    EXPECT_EQ(Facts(), "600" + owner);
    chmod(PathOf("out").c_str(), 0640);
    ASSERT_TRUE(SetList("", "system.posix_acl_default")); // which every new file gets
    EXPECT_EQ(WriteOut(geteuid(), {}), 0);
    EXPECT_EQ(Facts(), "640" + owner);
    Write("ours", {});
    ASSERT_TRUE(removexattr(PathOf("ours").c_str(), "system.posix_acl_access") == 0);
    chmod(PathOf("ours").c_str(), 0640);
    std::filesystem::remove(PathOf("out"));
    EXPECT_EQ(WriteOut(geteuid(), {PathOf("ours")}), 0);
    EXPECT_EQ(Facts(), "640" + owner);
}

// A signal leaves only the former file. So does SIGKILL if files have no name while they are written.
TEST_P(OutputFiles, InterruptedProcessLeavesOnlyTheFormerFile) {
    int const unnamed = open(PathOf("").c_str(), O_TMPFILE | O_WRONLY, 0600);
    for (int const signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGXCPU, SIGKILL}) {
        if (signal == SIGKILL && (GetParam() || unnamed == -1)) {
            continue;
        }
        Write("out", Text("former"));
        int const ended = WriteOut(geteuid(), {}, [signal] { raise(signal); });
        EXPECT_EQ(WIFSIGNALED(ended) ? WTERMSIG(ended) : 0, signal) << ended;
        EXPECT_EQ(String("out") + Files(), "formerout ") << signal;
    }
    close(unnamed);
}

} // namespace
