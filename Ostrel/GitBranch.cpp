// Branch reading from .git/HEAD, following a worktree's gitdir pointer.
#include "Ostrel/GitBranch.h"

#include "Ostrel/Paths.h"
#include "OstrelCore/Text.h"

#include <filesystem>

namespace Ostrel::GitBranch {
namespace {

namespace Text = OstrelCore::Text;

constexpr std::string_view gitdirPrefix = "gitdir:";
constexpr std::string_view branchPrefix = "ref: refs/heads/";
constexpr std::size_t shortCommitLength = 7;
// HEAD and the gitdir pointer are one line; anything larger isn't what we look for.
constexpr std::size_t pointerFileLimit = 64 * 1024;

} // namespace

std::optional<std::string> read(const std::string& projectPath) {
    const std::filesystem::path git = std::filesystem::path(projectPath) / ".git";
    std::error_code error;
    const auto type = std::filesystem::status(git, error).type();
    std::filesystem::path folder;
    if (type == std::filesystem::file_type::directory) {
        folder = git;
    } else if (type == std::filesystem::file_type::regular) {
        auto pointer = Paths::readFile(git.string(), pointerFileLimit);
        if (!pointer || !Text::startsWith(*pointer, gitdirPrefix)) return std::nullopt;
        folder = std::string(Text::trim(std::string_view(*pointer).substr(gitdirPrefix.size())));
        // A relative gitdir is relative to the worktree.
        if (folder.is_relative()) folder = std::filesystem::path(projectPath) / folder;
    } else {
        return std::nullopt;
    }
    auto head = Paths::readFile((folder / "HEAD").string(), pointerFileLimit);
    if (!head) return std::nullopt;
    const std::string_view line = Text::trim(*head);
    if (line.empty()) return std::nullopt;
    if (Text::startsWith(line, branchPrefix)) return std::string(line.substr(branchPrefix.size()));
    return std::string(Text::prefix(line, shortCommitLength));
}

} // namespace Ostrel::GitBranch
