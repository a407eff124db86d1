// User folders and whole-file writes.
#include "Ostrel/Paths.h"

#include <algorithm>
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

// Opens a regular file for reading. The open never blocks (a FIFO or device planted where a
// file is expected is refused, not waited on) and the size comes with it.
struct RegularFile {
    int fd = -1;
    std::uint64_t size = 0;
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    explicit RegularFile(const std::string& path) {
        int opened = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (opened < 0) return;
        struct stat info {};
        if (::fstat(opened, &info) != 0 || !S_ISREG(info.st_mode)) {
            ::close(opened);
            return;
        }
        fd = opened;
        size = static_cast<std::uint64_t>(info.st_size);
    }
    ~RegularFile() {
        if (fd >= 0) ::close(fd);
    }
    bool isOpen() const { return fd >= 0; }
};

} // namespace

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
    RegularFile file(path);
    if (!file.isOpen() || file.size > limit) return std::nullopt;
    std::string out;
    out.reserve(static_cast<std::size_t>(file.size));
    char buffer[65536];
    while (true) {
        ssize_t n = ::read(file.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        // A file that grows past the limit while being read is refused as a whole.
        if (n < 0 || out.size() + static_cast<std::size_t>(n) > limit) return std::nullopt;
        if (n == 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

std::optional<Tail> readTail(const std::string& path, std::size_t count) {
    RegularFile file(path);
    if (!file.isOpen()) return std::nullopt;
    std::uint64_t start = file.size > count ? file.size - count : 0;
    Tail tail;
    tail.size = file.size;
    bool ok = ::lseek(file.fd, static_cast<off_t>(start), SEEK_SET) >= 0 &&
              readFully(file.fd, tail.bytes, static_cast<std::size_t>(file.size - start));
    if (!ok) return std::nullopt;
    return tail;
}

std::optional<std::string> readHead(const std::string& path, std::size_t count) {
    RegularFile file(path);
    if (!file.isOpen()) return std::nullopt;
    std::string head;
    // The buffer is sized by what the file holds, not by how much was asked for.
    if (!readFully(file.fd, head, static_cast<std::size_t>(std::min<std::uint64_t>(count, file.size))))
        return std::nullopt;
    return head;
}

} // namespace Ostrel::Paths
