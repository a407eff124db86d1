// Test helper: a fresh folder under the system's temporary folder, removed with everything in it
// when the object goes.
#pragma once

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

namespace OstrelTest {

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ostrel-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path() const { return path_.string(); }
    std::string operator/(const std::string& relative) const { return (path_ / relative).string(); }

    // Writes the file, making the folders on its way; gives its path.
    std::string write(const std::string& relative, const std::string& content,
                      bool executable = false) const {
        const auto file = path_ / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
        if (executable) std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        return file.string();
    }
    std::optional<std::string> read(const std::string& relative) const {
        std::ifstream in(path_ / relative, std::ios::binary);
        if (!in) return std::nullopt;
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    std::filesystem::path path_;
};

} // namespace OstrelTest
