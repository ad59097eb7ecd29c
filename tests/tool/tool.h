// Runs the command as a process, for tests of what it prints and writes, how it ends, and what it leaves behind.

#pragma once

#include "support/segment_bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <stdlib.h>
#include <sys/wait.h>

using nlohmann::json;

inline Bytes operator+(Bytes left, Bytes const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Text(std::string const& text) {
    return {text.begin(), text.end()};
}

// Runs the command in a folder of its own.
class Tool : public testing::Test {
protected:
    Tool() {
        std::string name = testing::TempDir() + "crrecord-XXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }
    ~Tool() override { std::filesystem::remove_all(folder_); }

    // Runs a line of the shell in which $T is the command; its output, complaints and status are in the members. The
    // output is in files that begin with a dot and don't count as left behind.
    int Shell(std::string const& line) {
        std::string const script =
            "cd '" + folder_.string() + "' && exec </dev/null >.out 2>.err; T='" CRRECORD_TOOL "'; " + line;
        int const ended = std::system(script.c_str());
        out = String(".out");
        err = String(".err");
        return WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    }
    int Run(std::string const& arguments) { return Shell("\"$T\" " + arguments); }

    void Write(std::string const& name, Bytes const& bytes) {
        std::ofstream(folder_ / name, std::ios::binary)
            .write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    std::string String(std::string const& name) {
        std::ifstream file(folder_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    Bytes Read(std::string const& name) { return Text(String(name)); }

    // The names of all files but the output's own.
    std::string Files() {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(folder_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        std::string text;
        for (std::string const& name : names) {
            text += name == ".out" || name == ".err" ? "" : name + " ";
        }
        return text;
    }

    std::vector<json> Lines() {
        std::vector<json> lines;
        std::istringstream text(out);
        for (std::string line; std::getline(text, line);) {
            lines.push_back(json::parse(line));
        }
        return lines;
    }

    std::string out, err;

private:
    std::filesystem::path folder_;
};

// For a shell in which memory is scarce.
#ifdef CRRECORD_TOOL_IS_SANITIZED
inline std::string const kMemoryLimit; // their shadow memory needs more than any limit that would tell
#else
inline std::string const kMemoryLimit = "ulimit -v 65536; ";
#endif
