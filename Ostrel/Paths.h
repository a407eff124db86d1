// Where the workspace keeps its files and where the agents keep theirs, for the current user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Ostrel::Paths {

// The user's home folder: $HOME, else the password database.
std::string home();
// $XDG_DATA_HOME/Ostrel (default ~/.local/share/Ostrel): state.json and the indexes.
std::string dataFolder();
// $XDG_CONFIG_HOME/Ostrel (default ~/.config/Ostrel): settings.json.
std::string configFolder();
// Creates a folder with its parents; false when it can't be made.
bool ensureFolder(const std::string& path);
// Writes a whole file through a temporary in the same folder and a rename, so that a crash never
// leaves half a file (no fsync: the files are small and rewritten often; a process crash is what
// they must survive). False on any failure (the old file then stays as it was).
bool writeFileAtomically(const std::string& path, std::string_view contents);
// The readers below take regular files only (a FIFO or device in a file's place gives none,
// without blocking). The whole file, or none when it can't be read or is over `limit`.
std::optional<std::string> readFile(const std::string& path, std::size_t limit = 64u << 20);
// The last `count` bytes of a file (all of a shorter one), with the file's size at the read.
struct Tail {
    std::string bytes;
    std::uint64_t size = 0;
};
std::optional<Tail> readTail(const std::string& path, std::size_t count);
// The first `count` bytes of a file (all of a shorter one).
std::optional<std::string> readHead(const std::string& path, std::size_t count);

} // namespace Ostrel::Paths
