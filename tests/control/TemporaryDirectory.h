/// A directory of one test, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "control-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }

    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream{file(name)} << content;
        return file(name);
    }

private:
    std::string path_;
};
