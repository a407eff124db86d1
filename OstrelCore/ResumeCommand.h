// The commands that resume an agent's session, in both directions: built from a session id for the
// saved state and the history, and read back from a start command, so that a resumed session knows
// its id before its transcript says anything.
#pragma once

#include "OstrelCore/SessionKind.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OstrelCore::ResumeCommand {

// "claude --resume 'ID'", "codex resume 'ID'", "gemini --resume 'ID'". The id is trimmed of white
// space and quoted for the shell; absent for an empty id and for kinds that aren't agents.
std::optional<std::string> resumeCommand(SessionKind kind, std::string_view id);

// `text` as one shell word: wrapped in "'", each "'" inside written as "'\''".
std::string shellQuoted(std::string_view text);

// The session id that `command` resumes when it starts the agent of `kind`. Reads the forms each
// agent accepts: claude "--resume ID", "--resume=ID", "-r ID" (and "--session-id ID", which names a
// new session's id up front; a "--fork-session" resume writes under a new id, so it names none);
// codex "resume ID" (also after global options and after "exec"); gemini "--resume ID",
// "--resume=ID", "-r ID", where "latest" and an index aren't ids. Words are split and unquoted as a
// POSIX shell does; leading "NAME=value" assignments and "exec"/"env"/"command" are passed over;
// the first ";", "&", "|", redirection or newline ends the command. Absent when the command starts
// another program, opens the agent's picker, or can't be split (an unclosed quote).
std::optional<std::string> resumeID(SessionKind kind, std::string_view command);

// The same with the agent taken from the program's name.
std::optional<std::string> resumeID(std::string_view command);

// Bytes of a Gemini transcript's head that hold its header record with the session's id.
inline constexpr std::size_t sessionIDHeadBytes = 4096;

// The id under which the agent resumes the session that writes a transcript. Claude names the file
// after the id ("<id>.jsonl"); Codex ends the name in it ("rollout-<date>-<36-character id>.jsonl",
// a shorter name holds none); Gemini records it as "sessionId" in the file's head (the first
// `sessionIDHeadBytes` bytes, passed as `head`). Absent when the transcript names none.
std::optional<std::string> transcriptSessionID(SessionKind kind, std::string_view fileName,
                                               std::string_view head);

// The words of the first simple command of `command`, unquoted; absent on an unclosed quote.
std::optional<std::vector<std::string>> shellWords(std::string_view command);

} // namespace OstrelCore::ResumeCommand
