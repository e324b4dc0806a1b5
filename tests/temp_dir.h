// Test helper: a private temporary directory, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace pmx_test {

class TempDir {
public:
    TempDir()
    {
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pmx-test.XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    // Writes a file under the directory (making its parents) and returns its path.
    std::string write(const std::string &rel, const std::string &content) const
    {
        const std::filesystem::path p = std::filesystem::path(path_) / rel;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << content;
        return p.string();
    }

private:
    std::string path_;
};

} // namespace pmx_test
