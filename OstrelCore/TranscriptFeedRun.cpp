// The feed's accumulator: ids, the bounded buffer, failures and in-place rewrites.
#include "OstrelCore/TranscriptFeedRun.h"

#include "OstrelCore/JSONRead.h"
#include "OstrelCore/Text.h"

#include <algorithm>

namespace OstrelCore::TranscriptFeed {
namespace {

// Enough of a line to tell records apart; hashing all of a 20 MB line would cost more than the
// rest of its reading.
constexpr std::size_t digestWindowBytes = 4096;

std::string lineDigest(std::string_view line) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    auto mix = [&](std::string_view bytes) {
        for (unsigned char c : bytes) {
            h ^= c;
            h *= 0x100000001b3ULL;
        }
    };
    std::uint64_t size = line.size();
    mix(std::string_view(reinterpret_cast<const char*>(&size), sizeof size));
    if (line.size() <= 2 * digestWindowBytes) {
        mix(line);
    } else {
        mix(line.substr(0, digestWindowBytes));
        mix(line.substr(line.size() - digestWindowBytes));
    }
    static constexpr char hex[] = "0123456789abcdef";
    std::string out = "h";
    for (int shift = 60; shift >= 0; shift -= 4)
        out.push_back(hex[(h >> shift) & 0xF]);
    return out;
}

} // namespace

std::optional<std::string> targetOf(const nlohmann::json& input) {
    if (!input.is_object()) return std::nullopt;
    for (auto key : targetKeys) {
        const nlohmann::json* value = JSONRead::member(input, key);
        if (!value) continue;
        std::string joined;
        if (const std::string* text = JSONRead::text(*value)) {
            joined = *text;
        } else if (value->is_array() && !value->empty()) {
            bool allTexts = true;
            for (const auto& part : *value) {
                const std::string* text = JSONRead::text(part);
                if (!text) {
                    allTexts = false;
                    break;
                }
                if (!joined.empty()) joined += ' ';
                joined += *text;
            }
            if (!allTexts) continue;
        } else {
            continue;
        }
        std::string clamped = clamp(joined, targetCharacters);
        if (!clamped.empty()) return clamped;
    }
    return std::nullopt;
}

std::optional<std::string> patchTarget(std::string_view patch) {
    constexpr std::array<std::string_view, 4> headers = {
        "*** Update File: ", "*** Add File: ", "*** Delete File: ", "*** Move to: "};
    constexpr std::size_t maxCharacters = 299;
    for (std::size_t lineStart = 0; lineStart < patch.size();) {
        std::size_t lineEnd = patch.find('\n', lineStart);
        if (lineEnd == std::string_view::npos) lineEnd = patch.size();
        std::string_view line = patch.substr(lineStart, lineEnd - lineStart);
        for (auto header : headers) {
            if (!Text::startsWith(line, header)) continue;
            std::string_view file = Text::trim(line.substr(header.size()));
            if (file.empty()) break;
            return Text::sanitizeUtf8(Text::prefix(file, maxCharacters));
        }
        lineStart = lineEnd + 1;
    }
    return std::nullopt;
}

namespace {

// The text between `open` and `close` (or the end) after the first `open`; empty without `open`.
std::string_view between(std::string_view text, std::string_view open, std::string_view close) {
    std::size_t start = text.find(open);
    if (start == std::string_view::npos) return {};
    start += open.size();
    std::size_t end = text.find(close, start);
    return Text::trim(
        text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
}

} // namespace

void addUserText(Run& run, std::string_view text) {
    std::string_view s = Text::trimStart(text);
    // "<command-message>" may come first; the command's name is what the person typed.
    bool command = Text::startsWith(s, "<command-name>") ||
                   (Text::startsWith(s, "<command-") && s.find("<command-name>") != std::string_view::npos);
    if (command) {
        std::string_view name = between(s, "<command-name>", "</command-name>");
        std::string_view args = between(s, "<command-args>", "</command-args>");
        std::string joined(name);
        if (!args.empty()) {
            if (!joined.empty()) joined += ' ';
            joined += args;
        }
        run.addText(Role::user, joined);
        return;
    }
    if (Text::startsWith(s, "<") || Text::startsWith(s, "[") || Text::startsWith(s, "Caveat:")) return;
    run.addText(Role::user, s);
}

Run::Run(int limit)
    : limit_(static_cast<std::size_t>(std::max(limit, 0)))
    , cap_(static_cast<std::size_t>(std::clamp(limit, 0, maxCap))) {}

void Run::beginRecord(std::string_view identifier, std::string_view line, std::optional<Date> at) {
    base_ = identifier.empty() ? lineDigest(line) : std::string(identifier);
    piece_ = 0;
    at_ = at;
    handle_ = 0;
    insertAt_.reset();
}

void Run::beginRewritableRecord(std::string_view identifier, std::string_view line, std::optional<Date> at) {
    beginRecord(identifier, line, at);
    if (identifier.empty()) return;
    auto [it, isNew] = rewritable_.try_emplace(std::string(identifier), nextHandle_);
    if (isNew) ++nextHandle_;
    handle_ = it->second;
    if (isNew) return;

    // The entries of one record stand together; find them from the end, where rewrites happen.
    std::size_t end = owner_.size();
    while (end > 0 && owner_[end - 1] != handle_)
        --end;
    if (end == 0) return; // cut from the buffer already: the new version goes to the end
    std::size_t begin = end - 1;
    while (begin > 0 && owner_[begin - 1] == handle_)
        --begin;
    for (std::size_t i = begin; i < end; ++i)
        usedIds_.erase(entries_[i].id);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(begin),
                   entries_.begin() + static_cast<std::ptrdiff_t>(end));
    owner_.erase(owner_.begin() + static_cast<std::ptrdiff_t>(begin),
                 owner_.begin() + static_cast<std::ptrdiff_t>(end));
    std::size_t first = dropped_ + begin, removed = end - begin;
    std::erase_if(index_, [&](const auto& kv) { return kv.second >= first && kv.second < first + removed; });
    for (auto& kv : index_)
        if (kv.second >= first + removed) kv.second -= removed;
    insertAt_ = first;
}

std::string Run::nextId() {
    std::string id = piece_ == 0 ? base_ : base_ + "#" + std::to_string(piece_);
    ++piece_;
    // Ids double as identities: a record written twice must not make two entries with one id.
    if (usedIds_.contains(id)) {
        std::size_t& n = repeats_.try_emplace(id, 1).first->second;
        std::string unique;
        do
            unique = id + "~" + std::to_string(++n);
        while (usedIds_.contains(unique));
        id = std::move(unique);
    }
    usedIds_.insert(id);
    return id;
}

void Run::add(Entry entry, std::string_view callId) {
    entry.id = nextId();
    if (!entry.at) entry.at = at_;
    std::size_t position;
    if (insertAt_) {
        position = *insertAt_;
        std::size_t relative = position - dropped_;
        entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(relative), std::move(entry));
        owner_.insert(owner_.begin() + static_cast<std::ptrdiff_t>(relative), handle_);
        for (auto& kv : index_)
            if (kv.second >= position) ++kv.second;
        ++*insertAt_;
    } else {
        position = dropped_ + entries_.size();
        entries_.push_back(std::move(entry));
        owner_.push_back(handle_);
    }
    if (!callId.empty()) index_[std::string(callId)] = position;
    trimIfNeeded();
}

void Run::trimIfNeeded() {
    if (entries_.size() <= 4 * cap_ + 64) return;
    std::size_t removed = entries_.size() - (2 * cap_ + 32);
    entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(removed));
    owner_.erase(owner_.begin(), owner_.begin() + static_cast<std::ptrdiff_t>(removed));
    dropped_ += removed;
    std::erase_if(index_, [&](const auto& kv) { return kv.second < dropped_; });
    if (insertAt_ && *insertAt_ < dropped_) insertAt_ = dropped_;
}

void Run::addText(Role role, std::string_view text) {
    std::string clamped = clamp(text, textCharacters);
    if (clamped.empty()) return;
    Entry entry;
    entry.role = role;
    entry.text = std::move(clamped);
    add(std::move(entry), {});
}

void Run::addTool(Role role, std::optional<std::string> tool, std::optional<std::string> target,
                  std::string_view callId, std::string text, std::optional<Date> at) {
    Entry entry;
    entry.role = role;
    entry.text = std::move(text);
    entry.tool = std::move(tool);
    entry.target = std::move(target);
    entry.at = at;
    add(std::move(entry), callId);
}

void Run::fail(std::string_view callId, std::string_view text) {
    if (callId.empty()) return;
    auto it = index_.find(std::string(callId));
    if (it == index_.end() || it->second < dropped_) return; // unknown, or cut from the buffer
    Entry& entry = entries_[it->second - dropped_];
    if (entry.role != Role::tool) return;
    entry.role = Role::error;
    if (std::string clamped = clamp(text, textCharacters); !clamped.empty()) entry.text = std::move(clamped);
}

std::vector<Entry> Run::finish() && {
    if (entries_.size() > limit_)
        entries_.erase(entries_.begin(),
                       entries_.begin() + static_cast<std::ptrdiff_t>(entries_.size() - limit_));
    return std::move(entries_);
}

} // namespace OstrelCore::TranscriptFeed
