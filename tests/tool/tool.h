// Runs the command as a process, for tests of what it prints and writes, how it ends, and what it leaves behind.

#pragma once

#include "support/do_record.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <set>
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
    std::string PathOf(std::string const& name) { return folder_ / name; }
    std::string String(std::string const& name) {
        std::ostringstream content;
        content << std::ifstream(folder_ / name, std::ios::binary).rdbuf();
        return std::move(content).str();
    }
    Bytes Read(std::string const& name) { return Text(String(name)); }

    // The names of all files but the output's own.
    std::string Files() {
        std::set<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(folder_)) {
            names.insert(entry.path().filename().string() + " ");
        }
        std::string text;
        for (std::string const& name : names) {
            text += name == ".out " || name == ".err " ? "" : name;
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

// Fingerprints of "abc" and "12".
inline constexpr char const* kAbcAnd12[][2] = {
    {"900150983cd24fb0d6963f7d28e17f72", "c20ad4d76fe97759aa27a0c99bff6710"},
    {"a9993e364706816aba3e25717850c26c", "7b52009b64fd0a2a49e6d8a939753077"},
    {"ba7816bf8f01cfea414140de5dae2223", "6b51d431df5d7f141cbececcf79edf3d"},
    {"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
     "6b51d431df5d7f141cbececcf79edf3dd861c3b4069f0b11661a3eefacbba918"},
};

// `findings` of a line, each as "name offset field severity found expected;".
inline std::string FindingsOf(json const& line) {
    std::string text;
    for (json const& finding : line["findings"]) {
        for (char const* const member : {"name", "offset", "field", "severity", "found", "expected"}) {
            text += finding[member].get<std::string>() + (*member == 'e' ? ";" : " ");
        }
    }
    return text;
}

// For a shell in which memory is scarce.
#ifdef CRRECORD_TOOL_IS_SANITIZED
inline std::string const kMemoryLimit; // their shadow memory needs more than any limit that would tell
#else
inline std::string const kMemoryLimit = "ulimit -v 65536; ";
#endif
