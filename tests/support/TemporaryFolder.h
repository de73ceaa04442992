#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace qel::test {

/// A folder of its own below the system's temporary one, removed with all it holds at the end.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "qel-test.XXXXXX").string();
        if (::mkdtemp(name.data()))
            path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + '/' + name; }

    /// Writes a file below the folder and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ + '/' + name, std::ios::binary) << text;
        return path_ + '/' + name;
    }
    static std::string read(const std::string& file) {
        std::ostringstream text;
        text << std::ifstream(file, std::ios::binary).rdbuf();
        return text.str();
    }

  private:
    std::string path_;
};

}  // namespace qel::test
