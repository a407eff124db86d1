// The working state of one feed read, shared by the decoding handlers and the raw scanners: the
// entries so far, which tool call made which entry, and how records become ids.
#pragma once

#include "OstrelCore/TranscriptFeed.h"

#include <array>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

namespace OstrelCore::TranscriptFeed {

// Keys of a tool's input that name what it works on, most telling first.
inline constexpr std::array<std::string_view, 12> targetKeys = {
    "file_path", "notebook_path", "pattern", "url",     "query",       "command",
    "cmd",       "path",          "skill",   "subject", "description", "prompt"};

// The first target key of `input` with a non-empty text (or array of texts, joined by blanks).
std::optional<std::string> targetOf(const nlohmann::json& input);

// The file that an apply_patch call changes: the text behind its first file header, to the end of
// that line.
std::optional<std::string> patchTarget(std::string_view patch);

class Run;

// What the person typed, as the agent's interface wrote it: a slash command becomes "/name args";
// texts that the interface injected ("<...>", "[...]", "Caveat: ...") give no entry.
void addUserText(Run& run, std::string_view text);

class Run {
public:
    explicit Run(int limit);

    // Starts the entries of one record; its pieces get `identifier`, `identifier#1`, ... An empty
    // identifier is replaced by a digest of the line, so that the id survives a moving window.
    void beginRecord(std::string_view identifier, std::string_view line, std::optional<Date> at);
    // The same for a record that its agent rewrites under one identifier as a turn proceeds: the
    // entries of an earlier version are replaced where they stand.
    void beginRewritableRecord(std::string_view identifier, std::string_view line, std::optional<Date> at);

    // A readable text, clamped; nothing when it ends up empty.
    void addText(Role role, std::string_view text);
    // A tool call; `callId` lets a later result fail it.
    void addTool(Role role, std::optional<std::string> tool, std::optional<std::string> target,
                 std::string_view callId, std::string text = {}, std::optional<Date> at = std::nullopt);
    // A call's result reported failure: its entry becomes an error, in place.
    void fail(std::string_view callId, std::string_view text);

    std::vector<Entry> finish() &&;

private:
    void add(Entry entry, std::string_view callId);
    std::string nextId();
    void trimIfNeeded();

    std::size_t limit_;
    std::size_t cap_;
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> owner_;                   // rewritable record of each entry, 0 for none
    std::unordered_map<std::string, std::size_t> index_; // tool call id to absolute position
    std::size_t dropped_ = 0;
    std::unordered_set<std::string> usedIds_;
    std::unordered_map<std::string, std::size_t> repeats_; // last suffix given to a repeated id
    std::unordered_map<std::string, std::uint32_t> rewritable_;
    std::uint32_t nextHandle_ = 1;

    // The record being read.
    std::string base_;
    std::size_t piece_ = 0;
    std::optional<Date> at_;
    std::uint32_t handle_ = 0;
    std::optional<std::size_t> insertAt_; // absolute position, while replacing in place
};

} // namespace OstrelCore::TranscriptFeed
