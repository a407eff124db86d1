// The branch a project folder has checked out, read from its .git files without running git: this
// runs for every project every 15 seconds.
#pragma once

#include <optional>
#include <string>

namespace Ostrel::GitBranch {

// The branch name, or the first 7 characters of the commit for a detached head. None when the
// folder isn't a repository or its files can't be read. A linked worktree's ".git" file points to
// the real git folder with "gitdir:".
std::optional<std::string> read(const std::string& projectPath);

} // namespace Ostrel::GitBranch
