// ostrel inspect: the readers, the feed, the tool trace and the limit detector over one file.
#include "Ostrel/TranscriptInspector.h"

#include "Ostrel/Localization.h"
#include "Ostrel/Paths.h"
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/ContextWindowBudget.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/RateLimitSignals.h"
#include "OstrelCore/Text.h"
#include "OstrelCore/TranscriptTail.h"

#include <algorithm>

#include <date/tz.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace OstrelCore;

constexpr std::size_t headBytes = 8192;

TranscriptFeed::Provider feedProvider(SessionKind kind) {
    switch (kind) {
    case SessionKind::codex: return TranscriptFeed::Provider::codex;
    case SessionKind::gemini: return TranscriptFeed::Provider::gemini;
    default: return TranscriptFeed::Provider::claude;
    }
}

ToolTrace::Provider traceProvider(SessionKind kind) {
    switch (kind) {
    case SessionKind::codex: return ToolTrace::Provider::codex;
    case SessionKind::gemini: return ToolTrace::Provider::gemini;
    default: return ToolTrace::Provider::claude;
    }
}

RateLimitBlock::Provider limitProvider(SessionKind kind) {
    switch (kind) {
    case SessionKind::codex: return RateLimitBlock::Provider::codex;
    case SessionKind::gemini: return RateLimitBlock::Provider::gemini;
    default: return RateLimitBlock::Provider::claude;
    }
}

std::optional<TranscriptReading> parse(SessionKind kind, std::span<const std::string_view> lines) {
    switch (kind) {
    case SessionKind::codex: return CodexTranscript::parse(lines);
    case SessionKind::gemini: return GeminiTranscript::parse(lines);
    default: return ClaudeTranscript::parse(lines);
    }
}

bool looksLikeDocument(std::string_view head) {
    std::string_view trimmed = Text::trimStart(head);
    if (!trimmed.starts_with("{")) return false;
    // A JSON Lines file has a whole record on its first line; a document spreads over many.
    std::size_t newline = trimmed.find('\n');
    std::string_view first = trimmed.substr(0, newline);
    return nlohmann::json::parse(first, nullptr, false).is_discarded() &&
           trimmed.find("\"messages\"") != std::string_view::npos;
}

std::string localTime(std::chrono::system_clock::time_point time, const date::time_zone* zone) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    if (zone == nullptr) return date::format("%Y-%m-%d %H:%M:%S UTC", seconds);
    return date::format("%Y-%m-%d %H:%M:%S %Z", date::make_zoned(zone, seconds));
}

std::string withThousands(std::int64_t value) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    std::string out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return value < 0 ? "-" + out : out;
}

std::string_view phaseName(AgentPhase phase) {
    switch (phase) {
    case AgentPhase::running: return "inspect.phase.running";
    case AgentPhase::awaitingApproval: return "inspect.phase.awaitingApproval";
    case AgentPhase::turnEnded: return "inspect.phase.turnEnded";
    }
    return "inspect.phase.running";
}

std::string_view phaseRaw(AgentPhase phase) {
    switch (phase) {
    case AgentPhase::running: return "running";
    case AgentPhase::awaitingApproval: return "awaitingApproval";
    case AgentPhase::turnEnded: return "turnEnded";
    }
    return "running";
}

std::string oneLine(std::string_view text, std::size_t characters) {
    return Text::truncated(Text::collapseWhitespace(text), characters);
}

} // namespace

std::optional<SessionKind> TranscriptInspector::guessKind(const std::string& path, std::string_view head) {
    if (path.find("/.claude/") != std::string::npos) return SessionKind::claude;
    if (path.find("/.codex/") != std::string::npos) return SessionKind::codex;
    if (path.find("/.gemini/") != std::string::npos) return SessionKind::gemini;
    auto has = [&](std::string_view marker) { return head.find(marker) != std::string_view::npos; };
    if (has("\"type\":\"session_meta\"") || has("\"type\":\"turn_context\"") ||
        has("\"type\":\"response_item\"") || has("\"type\":\"event_msg\""))
        return SessionKind::codex;
    if (has("\"projectHash\"") || has("\"type\":\"gemini\"") || has("\"$set\"")) return SessionKind::gemini;
    if ((has("\"type\":\"user\"") || has("\"type\":\"assistant\"")) && has("\"message\""))
        return SessionKind::claude;
    return std::nullopt;
}

TranscriptInspector::Outcome TranscriptInspector::inspect(const std::string& path,
                                                          std::optional<SessionKind> kind, int feedEntries,
                                                          std::chrono::system_clock::time_point now,
                                                          const date::time_zone* zone) {
    auto head = Paths::readHead(path, headBytes);
    if (!head) return {std::nullopt, Localization::format("inspect.error.unreadable", path)};
    TranscriptInspection inspection;
    inspection.path = path;
    if (kind) {
        inspection.kind = *kind;
    } else if (auto guessed = guessKind(path, *head)) {
        inspection.kind = *guessed;
        inspection.kindGuessed = true;
    } else {
        return {std::nullopt, Localization::format("inspect.error.unknownKind", path)};
    }
    if (!isAgent(inspection.kind))
        return {std::nullopt, Localization::format("inspect.error.unknownKind", path)};

    auto whole = Paths::readTail(path, traceBytesLimit);
    if (!whole) return {std::nullopt, Localization::format("inspect.error.unreadable", path)};
    inspection.size = whole->size;
    std::string_view all = whole->bytes;
    inspection.legacyDocument = inspection.kind == SessionKind::gemini && looksLikeDocument(*head);

    if (inspection.legacyDocument) {
        inspection.reading = GeminiTranscript::parseLegacyDocument(all);
        inspection.feed = TranscriptFeed::legacyGeminiEntries(all, feedEntries);
    } else {
        // Exactly what a live session reads on a poll: the newest window, strictly decoded.
        std::string_view tail = all.substr(
            all.size() > TranscriptTail::windowBytes ? all.size() - TranscriptTail::windowBytes : 0);
        if (auto lines = TranscriptTail::lines(tail)) {
            inspection.reading = parse(inspection.kind, *lines);
            inspection.rateLimit = RateLimitSignals::detect(std::span<const std::string_view>(*lines),
                                                            limitProvider(inspection.kind), now, zone);
        } else {
            inspection.tailCutInCharacter = true;
        }
        std::string_view feedTail = all.substr(
            all.size() > TranscriptFeed::remoteTailBytes ? all.size() - TranscriptFeed::remoteTailBytes : 0);
        if (auto lines = TranscriptTail::lines(feedTail))
            inspection.feed = TranscriptFeed::entries(*lines, feedProvider(inspection.kind), feedEntries);
    }

    std::optional<std::string_view> model;
    if (inspection.reading && inspection.reading->model) model = *inspection.reading->model;
    inspection.contextWindow = inspection.reading && inspection.reading->contextWindow
                                   ? *inspection.reading->contextWindow
                                   : ContextWindowBudget::windowForModel(model, {});
    inspection.usableContext = ContextWindowBudget::usableLimit(inspection.contextWindow,
                                                                inspection.kind == SessionKind::claude
                                                                    ? ContextWindowBudget::Provider::claude
                                                                    : ContextWindowBudget::Provider::codex);

    if (inspection.legacyDocument) {
        // The whole document is one record to the tool trace.
        std::string_view document[] = {all};
        inspection.events =
            ToolTrace::events(std::span<const std::string_view>(document), traceProvider(inspection.kind));
    } else {
        inspection.events = ToolTrace::events(all, traceProvider(inspection.kind));
    }
    inspection.summary = ToolTrace::summarize(inspection.events, 8);
    inspection.files = ToolTrace::filesTouched(inspection.events, std::nullopt);
    inspection.sensitive = ToolTrace::sensitiveTouches(inspection.events);
    for (const auto& event : inspection.events)
        if (event.category == ToolCategory::execute && event.target &&
            ToolTrace::isDestructiveCommand(*event.target))
            inspection.destructive.push_back(event);
    return {std::move(inspection), {}};
}

std::string TranscriptInspector::text(const TranscriptInspection& r, const date::time_zone* zone) {
    auto t = [](std::string_view key) { return std::string(Localization::text(key)); };
    std::string out;
    out += fmt::format("{} ({} {}, {}{})\n", r.path, withThousands(static_cast<std::int64_t>(r.size)),
                       t("inspect.bytes"), rawValue(r.kind),
                       r.kindGuessed ? ", " + t("inspect.kindGuessed") : "");

    out += "\n" + t("inspect.reading") + "\n";
    if (r.tailCutInCharacter) {
        out += "  " + t("inspect.tailCut") + "\n";
    } else if (!r.reading) {
        out += "  " + t("inspect.nothingRead") + "\n";
    } else {
        const TranscriptReading& reading = *r.reading;
        auto row = [&](std::string_view key, const std::string& value) {
            out += fmt::format("  {:<18} {}\n", t(key), value);
        };
        if (reading.model) row("inspect.model", *reading.model);
        if (reading.contextUsed) {
            double percent = r.usableContext > 0 ? 100.0 * static_cast<double>(*reading.contextUsed) /
                                                       static_cast<double>(r.usableContext)
                                                 : 0.0;
            row("inspect.context", fmt::format("{} / {} ({:.0f}%)", withThousands(*reading.contextUsed),
                                               withThousands(r.usableContext), std::min(percent, 100.0)));
        }
        if (reading.phase) {
            std::string phase = t(phaseName(*reading.phase));
            if (reading.pendingToolName)
                phase += " · " + *reading.pendingToolName +
                         (reading.pendingToolTarget && !reading.pendingToolTarget->empty()
                              ? ": " + oneLine(*reading.pendingToolTarget, 80)
                              : "");
            row("inspect.phase", phase);
        }
        if (reading.permissionMode) row("inspect.permissionMode", *reading.permissionMode);
        if (reading.sessionTitle) row("inspect.title", *reading.sessionTitle);
    }

    out += "\n" + Localization::format("inspect.feed", r.feed.size()) + "\n";
    for (const auto& entry : r.feed) {
        std::string when = entry.at ? localTime(*entry.at, zone).substr(11, 8) : std::string(8, ' ');
        std::string what = entry.tool ? *entry.tool + (entry.target ? " " + *entry.target : "") : entry.text;
        out += fmt::format("  {} {:<9} {}\n", when, TranscriptFeed::roleName(entry.role), oneLine(what, 100));
    }

    out += "\n" +
           Localization::format("inspect.trace", r.summary.total, r.files.size(), r.summary.failures,
                                r.summary.running) +
           "\n";
    if (!r.summary.topTools.empty()) {
        std::string tools;
        for (const auto& tool : r.summary.topTools)
            tools += (tools.empty() ? "" : ", ") + fmt::format("{} ×{}", tool.name, tool.count);
        out += "  " + t("inspect.topTools") + " " + tools + "\n";
    }
    std::vector<FileTouch> files = r.files;
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.edits > b.edits; });
    for (std::size_t i = 0; i < files.size() && i < 12; ++i)
        out += fmt::format("  {:>4} × {}\n", files[i].edits, files[i].path);
    if (files.size() > 12) out += "  " + Localization::format("inspect.moreFiles", files.size() - 12) + "\n";
    for (const auto& event : r.sensitive)
        out +=
            "  ! " + Localization::format("inspect.sensitive", event.name, event.target.value_or("")) + "\n";
    for (const auto& event : r.destructive)
        out += "  ! " + Localization::format("inspect.destructive", oneLine(event.target.value_or(""), 100)) +
               "\n";

    out += "\n" + t("inspect.rateLimit") + "\n";
    if (!r.rateLimit) {
        out += "  " + t("inspect.none") + "\n";
    } else {
        const RateLimitBlock& block = *r.rateLimit;
        out += fmt::format("  {} ({})\n", RateLimitBlock::rawValue(block.provider),
                           RateLimitBlock::rawValue(block.confidence));
        if (block.resumeAt)
            out += "  " + Localization::format("inspect.resumesAt", localTime(*block.resumeAt, zone)) + "\n";
        out += "  \"" + oneLine(block.rawMessage, 160) + "\"\n";
    }
    return out;
}

std::string TranscriptInspector::json(const TranscriptInspection& r) {
    using nlohmann::json;
    json doc;
    doc["path"] = r.path;
    doc["size"] = r.size;
    doc["kind"] = rawValue(r.kind);
    doc["kindGuessed"] = r.kindGuessed;
    doc["legacyDocument"] = r.legacyDocument;
    doc["tailStartsInsideACharacter"] = r.tailCutInCharacter;
    if (r.reading) {
        json reading = json::object();
        const auto& x = *r.reading;
        if (x.model) reading["model"] = *x.model;
        if (x.contextUsed) reading["contextUsed"] = *x.contextUsed;
        if (x.contextWindow) reading["contextWindow"] = *x.contextWindow;
        if (x.permissionMode) reading["permissionMode"] = *x.permissionMode;
        if (x.phase) reading["phase"] = phaseRaw(*x.phase);
        if (x.sessionTitle) reading["sessionTitle"] = *x.sessionTitle;
        if (x.pendingToolName) reading["pendingToolName"] = *x.pendingToolName;
        if (x.pendingToolTarget) reading["pendingToolTarget"] = *x.pendingToolTarget;
        doc["reading"] = std::move(reading);
    } else {
        doc["reading"] = nullptr;
    }
    doc["contextWindow"] = r.contextWindow;
    doc["usableContext"] = r.usableContext;
    doc["feed"] = json::array();
    for (const auto& entry : r.feed)
        doc["feed"].push_back(TranscriptFeed::toJSON(entry));
    json trace;
    trace["total"] = r.summary.total;
    trace["failures"] = r.summary.failures;
    trace["running"] = r.summary.running;
    trace["subagents"] = r.summary.subagents;
    trace["byCategory"] = json::object();
    for (const auto& [category, count] : r.summary.countsByCategory)
        trace["byCategory"][std::string(toString(category))] = count;
    trace["topTools"] = json::array();
    for (const auto& tool : r.summary.topTools)
        trace["topTools"].push_back({{"name", tool.name}, {"count", tool.count}});
    trace["files"] = json::array();
    for (const auto& file : r.files)
        trace["files"].push_back({{"path", file.path}, {"edits", file.edits}});
    auto eventJson = [](const ToolEvent& e) {
        json j = {{"id", e.id}, {"name", e.name}, {"category", std::string(toString(e.category))}};
        if (e.target) j["target"] = *e.target;
        if (e.succeeded) j["succeeded"] = *e.succeeded;
        if (e.error) j["error"] = *e.error;
        return j;
    };
    trace["sensitive"] = json::array();
    for (const auto& e : r.sensitive)
        trace["sensitive"].push_back(eventJson(e));
    trace["destructive"] = json::array();
    for (const auto& e : r.destructive)
        trace["destructive"].push_back(eventJson(e));
    doc["toolTrace"] = std::move(trace);
    if (r.rateLimit) {
        json block = {{"provider", RateLimitBlock::rawValue(r.rateLimit->provider)},
                      {"confidence", RateLimitBlock::rawValue(r.rateLimit->confidence)},
                      {"rawMessage", r.rateLimit->rawMessage}};
        if (r.rateLimit->resumeAt)
            block["resumeAt"] =
                date::format("%FT%TZ", std::chrono::floor<std::chrono::seconds>(*r.rateLimit->resumeAt));
        doc["rateLimit"] = std::move(block);
    } else {
        doc["rateLimit"] = nullptr;
    }
    return doc.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace Ostrel
