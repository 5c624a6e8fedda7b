// Runs the program ternview as a person runs it.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

struct Outcome {
    int exitCode;  // 128 and the signal's number when a signal ended the program
    std::string out;
    std::string err;
};

inline std::string readFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();  // of a process that has just ended: nothing
    return content.str();
}

/// Runs the program in a directory of its own, with a directory for temporary files that must be empty afterwards.
class TernviewProgram : public testing::Test {
protected:
    void SetUp() override {
        std::string path = (std::filesystem::temp_directory_path() / "test-ternview-XXXXXX").string();
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        root_ = path;
        std::filesystem::create_directory(root_ / "work");
        std::filesystem::create_directory(root_ / "runtime");
    }

    void TearDown() override {
        EXPECT_TRUE(std::filesystem::is_empty(root_ / "runtime")) << "temporary files were left behind";
        std::filesystem::remove_all(root_);
    }

    /// Writes a file and the directories that lead to it.
    void write(const std::string& name, const std::string& bytes) {
        std::filesystem::create_directories(work(name).parent_path());
        std::ofstream(work(name), std::ios::binary) << bytes;
    }

    std::filesystem::path work(const std::string& name = {}) const {
        return name.empty() ? root_ / "work" : root_ / "work" / name;
    }

    /// @param arguments as in a shell
    /// @param prefix of the command, such as a variable
    Outcome run(const std::string& arguments, const std::string& prefix = {}) const {
        return runCommand(prefix + " '" TERNVIEW_PROGRAM "' " + arguments + " > ../out 2> ../err");
    }

    /// @param command for a shell; its outputs go to ../out and ../err
    Outcome runCommand(const std::string& command) const {
        const std::string all =
            "cd '" + work().string() + "' && XDG_RUNTIME_DIR='" + (root_ / "runtime").string() + "' " + command;
        const int status = std::system(all.c_str());
        return {WEXITSTATUS(status), readFile(root_ / "out"), readFile(root_ / "err")};
    }

    std::set<std::string> files(const std::filesystem::path& directory) const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }

private:
    std::filesystem::path root_;
};
