// The `bitmapfilter` program run as a user runs it: a test fixture that
// starts the real binary with arguments and collects its exit status and
// output, and small helpers over its files.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "imagefile.hpp"
#include "support.hpp"

extern char** environ;

namespace bf::cli {

struct Outcome {
    int status = -1;  // the exit status, or 1000 + signal number
    std::string out;
    std::string err;
};

inline std::string ReadText(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline std::vector<std::string> FolderContents(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

inline bool Same(const Image& a, const Image& b) {
    return a.format == b.format && a.pixels == b.pixels;
}

class Cli : public testing::Test {
protected:
    std::filesystem::path path(const std::string& name) const { return dir_ / name; }

    Outcome run(const std::vector<std::string>& args) { return finish(start(args)); }

    // Starts the program with Ctrl-C at its default, whatever this process does.
    pid_t start(std::vector<std::string> args) {
        args.insert(args.begin(), BF_CLI_FILE);
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        posix_spawnattr_setsigdefault(&attributes, &interrupt);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        pid_t pid = -1;
        if (posix_spawn(&pid, BF_CLI_FILE, &actions, &attributes, argv.data(), environ) != 0)
            pid = -1;
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    Outcome finish(pid_t pid) {
        Outcome result;
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid) return result;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        result.out = ReadText(out_);
        result.err = ReadText(err_);
        return result;
    }

    // Runs `apply ARGS -q`, expects a silent success and reads the output.
    Image applied(std::vector<std::string> args) {
        args.insert(args.begin(), "apply");
        args.push_back("-q");
        const Outcome result = run(args);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out + result.err, "");
        return result.status == 0 ? ReadImage(args[3]) : Image();
    }

    // Writes `image` to `name` in the folder and returns its path as text.
    std::string input(const std::string& name, const Image& image) {
        WriteImage(path(name), image);
        return path(name).string();
    }

    test::TempDir dir_;

private:
    test::TempDir capture_;
    const std::filesystem::path out_ = capture_ / "out";
    const std::filesystem::path err_ = capture_ / "err";
};

// Runs that must fail cleanly: a clear line, the right status, nothing written.
class CliFailure : public Cli {
protected:
    void SetUp() override {
        in_ = input("in.tif", test::RandomImage({16, 12, 3, ComponentType::F32, false}));
        out_ = path("out.tif").string();
    }
    // Runs, expects `status` and one error line containing `message`, and
    // that the folder still holds only what was there before.
    Outcome expect_failure(const std::vector<std::string>& args, int status,
                           const std::string& message) {
        const std::vector<std::string> before = FolderContents(dir_.path());
        const Outcome result = run(args);
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(Lines(result.err).size(), 1u) << result.err;
        EXPECT_TRUE(result.err.starts_with("bitmapfilter: ")) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(FolderContents(dir_.path()), before);
        return result;
    }
    std::string in_;
    std::string out_;
};

}  // namespace bf::cli
