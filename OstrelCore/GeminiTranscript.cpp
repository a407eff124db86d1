// Gemini session reader and project identity.
#include "OstrelCore/GeminiTranscript.h"

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/TabTitle.h"
#include "OstrelCore/Text.h"

#include <openssl/evp.h>

namespace OstrelCore::GeminiTranscript {
namespace {

using nlohmann::json;

// Nested content arrays deeper than this are foreign junk; flattening stops there.
constexpr int maxContentDepth = 16;

enum Marker : std::uint32_t {
    geminiLine = 1u << 0,
    userLine = 1u << 1,
    errorLine = 1u << 2,
    rewindLine = 1u << 3,
};
constexpr std::array<std::string_view, 4> markerTexts = {R"("type":"gemini")", R"("type":"user")",
                                                         R"("type":"error")", R"("$rewindTo")"};

const ByteSearch::MarkerSet& markers() {
    static const ByteSearch::MarkerSet set(markerTexts);
    return set;
}

// What the scan has found so far, and what it still looks for.
struct Scan {
    std::optional<std::string> model;
    std::optional<std::int64_t> contextUsed;
    std::optional<std::int64_t> contextWindow;
    std::optional<AgentPhase> phase;
    std::optional<std::string> sessionTitle;
    bool needPhase = true, needUsage = true, needTitle = true;

    bool needsMore() const { return needPhase || needUsage || needTitle; }

    std::optional<TranscriptReading> reading() const {
        if (!phase && !contextUsed && !sessionTitle) return std::nullopt;
        TranscriptReading r;
        r.model = model;
        r.contextUsed = contextUsed;
        r.contextWindow = contextWindow;
        r.phase = phase;
        r.sessionTitle = sessionTitle;
        return r;
    }
};

enum class Step { next, stop };

bool beginsWithCommand(std::string_view text) {
    return Text::startsWith(text, "/") || Text::startsWith(text, "?");
}

void flattenInto(const json& content, std::string& out, int depth) {
    if (const std::string* text = JSONRead::text(content)) {
        out += *text;
    } else if (content.is_object()) {
        if (const std::string* text = JSONRead::text(content, "text")) out += *text;
    } else if (content.is_array() && depth < maxContentDepth) {
        for (const auto& element : content)
            flattenInto(element, out, depth + 1);
    }
}

std::string flattenedContent(const json& record) {
    const json* content = JSONRead::member(record, Schema::content);
    return content ? flattenContent(*content) : std::string();
}

Step applyRecord(Scan& scan, const json& record) {
    if (JSONRead::text(record, Schema::rewind)) return Step::stop; // what came before was rewound
    const std::string* id = JSONRead::text(record, Schema::identifier);
    const std::string* type = JSONRead::text(record, Schema::kind);
    if (!id || !type) return Step::next;

    if (*type == Schema::userMessage) {
        std::string content = flattenedContent(record);
        std::string_view text = Text::trim(content);
        if (scan.needPhase && !text.empty()) {
            // A slash or help command is handled by the CLI itself and leaves the turn over.
            scan.phase = beginsWithCommand(text) ? AgentPhase::turnEnded : AgentPhase::running;
            scan.needPhase = false;
        }
        if (scan.needTitle && !text.empty() && !beginsWithCommand(text) &&
            !Text::startsWith(text, "<session_context>") && !Text::startsWith(text, "<hook_context>")) {
            if (auto title = TabTitle::clean(text)) {
                scan.sessionTitle = std::move(title);
                scan.needTitle = false;
            }
        }
    } else if (*type == Schema::geminiMessage) {
        if (scan.needPhase) {
            bool awaiting = false, pending = false;
            if (const json* calls = JSONRead::array(record, Schema::toolCalls)) {
                for (const auto& call : *calls) {
                    const std::string* status = JSONRead::text(call, Schema::toolCallStatus);
                    if (!status) continue;
                    awaiting = awaiting || *status == Schema::awaitingApproval;
                    for (auto p : Schema::pendingToolStatuses)
                        pending = pending || *status == p;
                }
            }
            scan.phase = awaiting                            ? AgentPhase::awaitingApproval
                         : pending                           ? AgentPhase::running
                         : !flattenedContent(record).empty() ? AgentPhase::turnEnded
                                                             : AgentPhase::running;
            scan.needPhase = false;
        }
        if (scan.needUsage) {
            const json* tokens = JSONRead::object(record, Schema::tokens);
            auto input = tokens ? JSONRead::integer(*tokens, Schema::promptTokens) : std::nullopt;
            if (input && *input >= 1) {
                scan.contextUsed = *input;
                if (const std::string* model = JSONRead::text(record, Schema::model)) {
                    scan.model = *model;
                    scan.contextWindow = contextWindow(*model);
                }
                scan.needUsage = false;
            }
        }
    } else if (*type == Schema::errorMessage) {
        if (scan.needPhase) {
            scan.phase = AgentPhase::turnEnded;
            scan.needPhase = false;
        }
    }
    return Step::next;
}

std::string withoutTrailingSlashes(std::string_view path) {
    while (path.size() >= 2 && path.back() == '/')
        path.remove_suffix(1);
    return std::string(path);
}

std::string tmpDirectory(std::string_view home) {
    std::string base = withoutTrailingSlashes(home);
    if (base == "/") base.clear();
    return base + "/.gemini/tmp/";
}

// A registry value names one folder under ~/.gemini/tmp; anything that could lead elsewhere is
// refused.
bool isSafeFolderName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\\') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

} // namespace

std::string flattenContent(const json& content) {
    std::string out;
    flattenInto(content, out, 0);
    return out;
}

std::optional<TranscriptReading> parse(std::span<const std::string_view> lines) {
    Scan scan;
    for (auto it = lines.rbegin(); it != lines.rend() && scan.needsMore(); ++it) {
        std::string_view line = *it;
        if (line.empty() || line.front() != '{') continue;
        // A rewind ends the scan whatever is still wanted: a title from before it would name a
        // conversation that no longer exists.
        std::uint32_t wanted = rewindLine;
        if (scan.needPhase || scan.needUsage) wanted |= geminiLine;
        if (scan.needPhase || scan.needTitle) wanted |= userLine;
        if (scan.needPhase) wanted |= errorLine;
        if (markers().scan(line, wanted) == 0) continue;
        auto record = JSONRead::parseObject(line);
        if (record && applyRecord(scan, *record) == Step::stop) break;
    }
    return scan.reading();
}

std::optional<TranscriptReading> parseLegacyDocument(std::string_view text) {
    auto document = JSONRead::parseObject(text);
    const json* messages = document ? JSONRead::array(*document, Schema::messages) : nullptr;
    if (!messages) return std::nullopt;
    Scan scan;
    for (auto it = messages->rbegin(); it != messages->rend() && scan.needsMore(); ++it)
        if (it->is_object() && applyRecord(scan, *it) == Step::stop) break;
    return scan.reading();
}

std::optional<std::int64_t> contextWindow(std::string_view model) {
    if (model.empty()) return std::nullopt;
    return Text::startsWith(model, "gemma-4") ? Schema::gemmaContextWindow : Schema::defaultContextWindow;
}

std::string canonicalPath(std::string_view path) {
    return Text::lowercased(withoutTrailingSlashes(path));
}

std::string projectHash(std::string_view projectPath) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(projectPath.data(), projectPath.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        return {};
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        out.push_back(hex[digest[i] >> 4]);
        out.push_back(hex[digest[i] & 0xF]);
    }
    return out;
}

std::string projectSlug(std::string_view projectPath) {
    std::string canonical = canonicalPath(projectPath);
    std::string_view component;
    for (auto part : Text::split(canonical, '/'))
        component = part;
    std::string slug;
    bool pendingDash = false;
    for (std::size_t i = 0; i < component.size();) {
        char32_t c = Text::decode(component, i);
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
            if (pendingDash && !slug.empty()) slug.push_back('-');
            pendingDash = false;
            slug.push_back(static_cast<char>(c));
        } else {
            pendingDash = true; // leading and trailing runs vanish with the dash they would make
        }
    }
    return slug.empty() ? "project" : slug;
}

std::string transcriptDirectory(std::string_view projectPath, std::string_view home) {
    return tmpDirectory(home) + projectSlug(projectPath) + "/chats";
}

std::string legacyTranscriptDirectory(std::string_view projectPath, std::string_view home) {
    return tmpDirectory(home) + projectHash(projectPath) + "/chats";
}

std::vector<std::string> candidateTranscriptDirectories(std::string_view projectPath, std::string_view home) {
    return {transcriptDirectory(projectPath, home), legacyTranscriptDirectory(projectPath, home)};
}

std::optional<std::string> registeredIdentifier(std::string_view projectPath, std::string_view registryJSON) {
    auto registry = JSONRead::parseObject(registryJSON);
    const json* projects = registry ? JSONRead::object(*registry, "projects") : nullptr;
    if (!projects) return std::nullopt;
    std::string key = canonicalPath(projectPath);
    const std::string* identifier = JSONRead::text(*projects, key);
    if (!identifier) {
        // The registry may spell the path in its own case; compare the canonical forms.
        for (auto it = projects->begin(); it != projects->end() && !identifier; ++it)
            if (canonicalPath(it.key()) == key) identifier = JSONRead::text(it.value());
    }
    if (!identifier || !isSafeFolderName(*identifier)) return std::nullopt;
    return *identifier;
}

std::optional<std::string> transcriptDirectory(std::string_view projectPath, std::string_view registryJSON,
                                               std::string_view home) {
    auto identifier = registeredIdentifier(projectPath, registryJSON);
    if (!identifier) return std::nullopt;
    return tmpDirectory(home) + *identifier + "/chats";
}

bool directoryOwnsProject(std::string_view projectRootMarker, std::string_view projectPath) {
    std::string_view recorded = Text::trim(projectRootMarker);
    return !recorded.empty() && canonicalPath(recorded) == canonicalPath(projectPath);
}

bool belongsToProject(std::span<const std::string_view> headLines, std::string_view projectPath) {
    for (std::string_view line : headLines) {
        if (!ByteSearch::contains(line, R"("projectHash")")) continue;
        std::optional<std::string> stored;
        if (auto record = JSONRead::parseObject(line))
            if (const std::string* hash = JSONRead::text(*record, Schema::projectHash)) stored = *hash;
        if (!stored) stored = CodexTranscript::rawStringValue(Schema::projectHash, line);
        if (!stored) continue;
        return *stored == projectHash(projectPath) || *stored == projectHash(canonicalPath(projectPath));
    }
    return false;
}

bool isSubagentTranscript(std::span<const std::string_view> headLines) {
    for (std::string_view line : headLines) {
        if (line.empty() || line.front() != '{' || !ByteSearch::contains(line, R"("kind")")) continue;
        auto record = JSONRead::parseObject(line);
        const std::string* kind = record ? JSONRead::text(*record, Schema::conversationKind) : nullptr;
        if (kind) return *kind == Schema::subagentConversation;
    }
    return false;
}

bool isSessionFile(std::string_view name) {
    return Text::startsWith(name, Schema::sessionFilePrefix) &&
           (Text::endsWith(name, ".jsonl") || Text::endsWith(name, ".json"));
}

} // namespace OstrelCore::GeminiTranscript
