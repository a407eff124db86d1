// User folders and whole-file writes.
#include "Ostrel/Paths.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <pwd.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace Ostrel::Paths {
namespace {

std::string fromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? std::string(value) : std::string();
}

} // namespace

std::string home() {
    if (const char* value = std::getenv("HOME"); value != nullptr && value[0] != '\0') return value;
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr)
        return entry->pw_dir;
    return "/";
}

std::string dataFolder() {
    std::string base = fromEnvironment("XDG_DATA_HOME");
    if (base.empty()) base = home() + "/.local/share";
    return base + "/Ostrel";
}

std::string configFolder() {
    std::string base = fromEnvironment("XDG_CONFIG_HOME");
    if (base.empty()) base = home() + "/.config";
    return base + "/Ostrel";
}

bool ensureFolder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    return std::filesystem::is_directory(path, error);
}

bool writeFileAtomically(const std::string& path, std::string_view contents) {
    std::filesystem::path target(path);
    std::random_device random;
    std::string temporary =
        (target.parent_path() / ("." + target.filename().string() + ".tmp-" + std::to_string(random())))
            .string();
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::size_t written = 0;
    bool ok = true;
    while (written < contents.size()) {
        ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        written += static_cast<std::size_t>(n);
    }
    ok = ::close(fd) == 0 && ok;
    if (ok) ok = ::rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(temporary.c_str());
    return ok;
}

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buffer[65536];
    while (true) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || out.size() + static_cast<std::size_t>(n) > limit) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return out;
}

namespace {

bool readFully(int fd, std::string& out, std::size_t count) {
    out.resize(count);
    std::size_t done = 0;
    while (done < count) {
        ssize_t n = ::read(fd, out.data() + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break; // the file shrank under us: keep what was there
        done += static_cast<std::size_t>(n);
    }
    out.resize(done);
    return true;
}

} // namespace

std::optional<Tail> readTail(const std::string& path, std::size_t count) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    auto size = static_cast<std::uint64_t>(info.st_size);
    std::uint64_t start = size > count ? size - count : 0;
    Tail tail;
    tail.size = size;
    bool ok = ::lseek(fd, static_cast<off_t>(start), SEEK_SET) >= 0 &&
              readFully(fd, tail.bytes, static_cast<std::size_t>(size - start));
    ::close(fd);
    if (!ok) return std::nullopt;
    return tail;
}

std::optional<std::string> readHead(const std::string& path, std::size_t count) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string head;
    bool ok = readFully(fd, head, count);
    ::close(fd);
    if (!ok) return std::nullopt;
    return head;
}

} // namespace Ostrel::Paths
