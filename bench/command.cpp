// `crrecord build` on a large file in the page cache, compared with one hash call over its bytes.

#include "sides.h"

#include <filesystem>
#include <fstream>
#include <random>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSegment = 131'072;

// A file of random bytes, removed by the process that created it.
struct InputFile {
    explicit InputFile(std::size_t size) : bytes(size) {
        std::mt19937_64 random(size);
        for (std::size_t i = 0; i + 8 <= size; i += 8) {
            auto const value = random();
            std::memcpy(&bytes[i], &value, sizeof value);
        }
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
        Require(fs::file_size(path) == size, "the file can't be written");
    }
    ~InputFile() {
        std::error_code ignored;
        fs::remove(path, ignored);
        fs::remove(records, ignored);
    }
    std::string const path = CRRECORD_COMMAND "-input-" + std::to_string(::getpid());
    std::string const records = path + ".records";
    std::vector<char> bytes;
};

Comparison CommandOn(int cores, unsigned int n) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int core = 0; core < cores; ++core) {
        CPU_SET(core, &set);
    }
    Require(::sched_setaffinity(0, sizeof set, &set) == 0, "this machine has too few cores");
    auto const file = std::make_shared<InputFile const>(n * kSegment);
    std::shared_ptr<EVP_MD> const hash(EVP_MD_fetch(nullptr, "SHA256", nullptr), EVP_MD_free);
    return {{[file] {
                RunCommand({"build", file->path, "-o", file->records});
            }},
            {[file, hash] {
                unsigned char made[EVP_MAX_MD_SIZE];
                Require(EVP_Digest(file->bytes.data(), file->bytes.size(), made, nullptr, hash.get(), nullptr) == 1,
                        "no hash");
                benchmark::DoNotOptimize(made);
            }},
            CLOCK_MONOTONIC};
}

} // namespace

long RunCommand(std::vector<std::string> const& arguments) {
    std::vector<char*> words{const_cast<char*>(CRRECORD_COMMAND)};
    for (std::string const& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int const failed = ::posix_spawn(&child, words[0], &quiet, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    int status = -1;
    rusage usage{};
    Require(failed == 0 && ::wait4(child, &status, 0, &usage) == child && status == 0, "the command failed");
    return usage.ru_maxrss * 1024;
}

Comparison CommandOnOneCore(Shape, unsigned int n) {
    return CommandOn(1, n);
}

Comparison CommandOnTwoCores(Shape, unsigned int n) {
    return CommandOn(2, n);
}

} // namespace bench
