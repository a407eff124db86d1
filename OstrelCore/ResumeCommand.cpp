// Resume commands built from session ids, and session ids read back from start commands.
#include "OstrelCore/ResumeCommand.h"

#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/Text.h"

#include <algorithm>
#include <array>

namespace OstrelCore::ResumeCommand {
namespace {

// Codex's global options that take a value in the next word: that word is not the subcommand.
constexpr std::array<std::string_view, 18> codexValueOptions = {
    "-c", "--config",  "-i",        "--image",          "-m",       "--model",
    "-p", "--profile", "-s",        "--sandbox",        "-a",       "--ask-for-approval",
    "-C", "--cd",      "--add-dir", "--local-provider", "--enable", "--disable"};

// Unquoted characters that end a simple command: list and pipe operators, redirections,
// subshells.
constexpr std::string_view commandEnd = ";&|<>()\n";

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isAssignment(std::string_view word) {
    std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string_view::npos) return false;
    if (word[0] >= '0' && word[0] <= '9') return false;
    return std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(equals), [](char c) {
        return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
}

bool isOption(std::string_view word) {
    return word.size() > 1 && word.front() == '-';
}

std::string_view baseName(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The words after the program, and which agent the program is; absent when the command doesn't
// start an agent.
struct Invocation {
    SessionKind kind;
    std::vector<std::string> arguments;
};

std::optional<Invocation> invocation(std::string_view command) {
    auto words = shellWords(command);
    if (!words) return std::nullopt;
    std::size_t at = 0;
    while (at < words->size()) {
        const std::string& word = (*words)[at];
        if (isAssignment(word) || word == "exec" || word == "env" || word == "command")
            ++at;
        else
            break;
    }
    if (at == words->size()) return std::nullopt;
    auto kind = sessionKind(baseName((*words)[at]));
    if (!kind || !isAgent(*kind)) return std::nullopt;
    return Invocation{*kind, {words->begin() + static_cast<std::ptrdiff_t>(at) + 1, words->end()}};
}

// The value of `--name=value`, or of `--name value` / `-x value` when the next word isn't an
// option. `at` is moved past what was consumed.
std::optional<std::string> optionValue(const std::vector<std::string>& words, std::size_t& at,
                                       std::string_view longName, std::string_view shortName) {
    const std::string& word = words[at];
    if (word.size() > longName.size() && Text::startsWith(word, longName) && word[longName.size()] == '=')
        return word.substr(longName.size() + 1);
    if (word != longName && (shortName.empty() || word != shortName)) return std::nullopt;
    if (at + 1 < words.size() && !isOption(words[at + 1])) return words[++at];
    return std::string();
}

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    if (value && value->empty()) return std::nullopt;
    return value;
}

std::optional<std::string> claudeID(const std::vector<std::string>& words) {
    std::optional<std::string> resumed, named;
    bool fork = false;
    for (std::size_t at = 0; at < words.size(); ++at) {
        if (words[at] == "--") break;
        if (words[at] == "--fork-session") fork = true;
        if (auto value = optionValue(words, at, "--resume", "-r"))
            resumed = std::move(value);
        else if (auto id = optionValue(words, at, "--session-id", ""))
            named = std::move(id);
    }
    // A forked resume continues the old conversation in a new file under a new id.
    return nonEmpty(fork ? named : resumed ? resumed : named);
}

std::optional<std::string> codexID(const std::vector<std::string>& words) {
    // The positional words, with the values of options that take one left out.
    std::vector<std::string_view> positional;
    for (std::size_t at = 0; at < words.size(); ++at) {
        std::string_view word = words[at];
        if (word == "--") {
            for (++at; at < words.size(); ++at)
                positional.push_back(words[at]);
            break;
        }
        if (!isOption(word)) {
            positional.push_back(word);
        } else if (std::find(codexValueOptions.begin(), codexValueOptions.end(), word) !=
                   codexValueOptions.end()) {
            ++at;
        }
    }
    std::size_t at = 0;
    if (at < positional.size() && positional[at] == "exec") ++at;
    if (at >= positional.size() || positional[at] != "resume") return std::nullopt;
    if (at + 1 >= positional.size() || positional[at + 1].empty()) return std::nullopt; // picker or --last
    return std::string(positional[at + 1]);
}

std::optional<std::string> geminiID(const std::vector<std::string>& words) {
    std::optional<std::string> resumed;
    for (std::size_t at = 0; at < words.size(); ++at) {
        if (words[at] == "--") break;
        if (auto value = optionValue(words, at, "--resume", "-r")) resumed = std::move(value);
    }
    // Gemini also resumes "latest" and the n-th session of its list; neither names the session.
    if (!resumed || resumed->empty() || *resumed == "latest") return std::nullopt;
    if (std::all_of(resumed->begin(), resumed->end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return resumed;
}

std::optional<std::string> idFor(const Invocation& call) {
    switch (call.kind) {
    case SessionKind::claude: return claudeID(call.arguments);
    case SessionKind::codex: return codexID(call.arguments);
    case SessionKind::gemini: return geminiID(call.arguments);
    default: return std::nullopt;
    }
}

} // namespace

std::string shellQuoted(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '\'';
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

std::optional<std::string> resumeCommand(SessionKind kind, std::string_view id) {
    std::string_view trimmed = Text::trim(id);
    if (trimmed.empty()) return std::nullopt;
    switch (kind) {
    case SessionKind::claude: return "claude --resume " + shellQuoted(trimmed);
    case SessionKind::codex: return "codex resume " + shellQuoted(trimmed);
    case SessionKind::gemini: return "gemini --resume " + shellQuoted(trimmed);
    default: return std::nullopt;
    }
}

std::optional<std::string> transcriptSessionID(SessionKind kind, std::string_view fileName,
                                               std::string_view head) {
    std::size_t dot = fileName.rfind('.');
    std::string_view stem = dot == std::string_view::npos ? fileName : fileName.substr(0, dot);
    std::optional<std::string> id;
    switch (kind) {
    case SessionKind::claude: id = std::string(stem); break;
    case SessionKind::codex:
        // A uuid is 36 characters; the date before it is the file's, not the session's.
        if (Text::count(stem) >= 36) id = std::string(Text::suffix(stem, 36));
        break;
    case SessionKind::gemini:
        id = CodexTranscript::rawStringValue(GeminiTranscript::Schema::sessionIdentifier,
                                             head.substr(0, sessionIDHeadBytes));
        break;
    default: break;
    }
    // A name or a head is foreign data: an id that isn't text or is blank names nothing.
    if (id && (Text::trim(*id).empty() || !Text::isValidUtf8(*id))) return std::nullopt;
    return id;
}

std::optional<std::vector<std::string>> shellWords(std::string_view command) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    auto finish = [&] {
        if (inWord) words.push_back(std::move(word));
        word.clear();
        inWord = false;
    };
    for (std::size_t i = 0; i < command.size(); ++i) {
        char c = command[i];
        if (c == '\'') {
            std::size_t close = command.find('\'', i + 1);
            if (close == std::string_view::npos) return std::nullopt;
            word.append(command.substr(i + 1, close - i - 1));
            inWord = true;
            i = close;
        } else if (c == '"') {
            inWord = true;
            for (++i;; ++i) {
                if (i >= command.size()) return std::nullopt;
                char d = command[i];
                if (d == '"') break;
                // Inside double quotes a backslash escapes only these; elsewhere it stays.
                if (d == '\\' && i + 1 < command.size() &&
                    std::string_view("$`\"\\\n").find(command[i + 1]) != std::string_view::npos) {
                    if (command[++i] != '\n') word += command[i];
                    continue;
                }
                word += d;
            }
        } else if (c == '\\') {
            if (i + 1 >= command.size()) break;
            if (command[++i] == '\n') continue; // a continued line
            word += command[i];
            inWord = true;
        } else if (isBlank(c)) {
            finish();
        } else if (commandEnd.find(c) != std::string_view::npos || (c == '#' && !inWord)) {
            break;
        } else {
            word += c;
            inWord = true;
        }
    }
    finish();
    return words;
}

std::optional<std::string> resumeID(SessionKind kind, std::string_view command) {
    auto call = invocation(command);
    if (!call || call->kind != kind) return std::nullopt;
    return idFor(*call);
}

std::optional<std::string> resumeID(std::string_view command) {
    auto call = invocation(command);
    return call ? idFor(*call) : std::nullopt;
}

} // namespace OstrelCore::ResumeCommand
