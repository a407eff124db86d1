// Binding a live session to its transcript file, following it to a successor, and reading its tail.
#include "Ostrel/SessionTelemetry.h"

#include "Ostrel/LocalTimeZone.h"
#include "Ostrel/Paths.h"
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/ResumeCommand.h"
#include "OstrelCore/Text.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <span>
#include <sys/stat.h>
#include <unordered_map>
#include <unordered_set>

#include <fmt/format.h>

namespace Ostrel {

using namespace OstrelCore;

namespace {

// Every transcript some session holds, bound or abandoned, in the whole process, with the session
// that holds it.
struct Claims {
    std::mutex lock;
    std::unordered_map<std::string, std::uint64_t> paths;
};

std::uint64_t newClaimant() {
    static std::atomic<std::uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

Claims& claims() {
    static Claims shared;
    return shared;
}

Timestamp timestamp(const struct statx_timestamp& time) {
    return Timestamp(std::chrono::duration_cast<Timestamp::duration>(std::chrono::seconds(time.tv_sec) +
                                                                     std::chrono::nanoseconds(time.tv_nsec)));
}

bool isJsonl(std::string_view name) {
    return name.size() > 6 && Text::endsWith(name, ".jsonl");
}

// Claude Code 2.0 wrote the transcripts of its sub-agents beside the session's own, as
// "agent-<id>.jsonl"; they are never a session's transcript.
bool isClaudeSessionFile(std::string_view name) {
    return isJsonl(name) && !Text::startsWith(name, "agent-");
}

// Both forms of Gemini session: lines ("session-*.jsonl") and, from older CLIs still in use, one
// JSON document ("session-*.json"), read whole.
bool isGeminiSessionFile(std::string_view name) {
    return GeminiTranscript::isSessionFile(name);
}

bool isLegacyGeminiDocument(std::string_view path) {
    return Text::endsWith(path, ".json");
}

using NameFilter = bool (*)(std::string_view);

NameFilter nameFilter(SessionKind kind) {
    switch (kind) {
    case SessionKind::claude: return isClaudeSessionFile;
    case SessionKind::gemini: return isGeminiSessionFile;
    default: return isJsonl;
    }
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string parentFolder(std::string_view path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

std::string_view stem(std::string_view name) {
    std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

void appendUnique(std::vector<std::string>& list, std::string item) {
    if (std::find(list.begin(), list.end(), item) == list.end()) list.push_back(std::move(item));
}

// The project folder's name under ~/.claude/projects: every character that is neither a letter
// nor a number becomes "-", and the first (the root's "/") gives way to a leading "-".
std::string claudeFolderName(std::string_view projectPath) {
    std::vector<std::size_t> bounds = Text::clusterBoundaries(projectPath);
    std::string name = "-";
    for (std::size_t i = 1; i + 1 < bounds.size(); ++i) {
        std::string_view cluster = projectPath.substr(bounds[i], bounds[i + 1] - bounds[i]);
        std::size_t at = 0;
        char32_t first = Text::decode(cluster, at);
        if (Text::isLetter(first) || Text::isNumber(first))
            name += cluster;
        else
            name += '-';
    }
    return name;
}

// The name Claude Code itself gives the folder: it keeps ASCII letters and digits only, and
// replaces each UTF-16 unit of anything else, so "/home/josé" becomes "-home-jos-". For ASCII
// paths both names are the same.
std::string claudeCodeFolderName(std::string_view projectPath) {
    std::string name;
    for (std::size_t at = 0; at < projectPath.size();) {
        char32_t c = Text::decode(projectPath, at);
        bool kept = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (kept)
            name += static_cast<char>(c);
        else
            name.append(c > 0xFFFF ? 2 : 1, '-');
    }
    return name;
}

// Codex files each session under the local date of its start: "sessions/yyyy/MM/dd".
std::string codexDayFolder(std::string_view home, Timestamp time, const date::time_zone* zone) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    date::local_seconds local =
        zone != nullptr ? zone->to_local(seconds) : date::local_seconds(seconds.time_since_epoch());
    date::year_month_day day(std::chrono::floor<date::days>(local));
    return fmt::format("{}/.codex/sessions/{:04}/{:02}/{:02}", home, static_cast<int>(day.year()),
                       static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
}

// Runs `test` over the head lines of a file; an unreadable or undecodable head is an empty list.
template <typename Test>
bool headPasses(const TelemetryFileSystem& fileSystem, const std::string& path, std::size_t bytes,
                Test test) {
    std::optional<std::string> head = fileSystem.readHead(path, bytes);
    std::vector<std::string_view> lines;
    if (head)
        if (auto split = TranscriptTail::headLines(*head)) lines = std::move(*split);
    return test(std::span<const std::string_view>(lines));
}

bool byCreation(const ListedFile& a, const ListedFile& b) {
    if (!a.created || !b.created) return a.created.has_value() && !b.created.has_value();
    return *a.created < *b.created;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The real file system

Timestamp SystemFileSystem::now() const {
    return std::chrono::system_clock::now();
}

std::optional<FileAttributes> SystemFileSystem::attributes(const std::string& path) const {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_SIZE | STATX_MTIME, &status) != 0) return std::nullopt;
    if ((status.stx_mask & STATX_MTIME) == 0) return std::nullopt;
    return FileAttributes{status.stx_size, timestamp(status.stx_mtime)};
}

std::vector<ListedFile> SystemFileSystem::files(const std::string& folder,
                                                bool (*keep)(std::string_view name)) const {
    std::vector<ListedFile> out;
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) return out;
    const int fd = ::dirfd(directory);
    while (const dirent* entry = ::readdir(directory)) {
        std::string_view name = entry->d_name;
        if (entry->d_type == DT_DIR || !keep(name)) continue;
        ListedFile file{folder + "/" + std::string(name), std::string(name), std::nullopt};
        struct statx status {};
        if (::statx(fd, entry->d_name, 0, STATX_TYPE | STATX_MTIME | STATX_BTIME, &status) == 0) {
            if (!S_ISREG(status.stx_mode)) continue;
            bool birth =
                creationDate_ == CreationDate::birthTimeWhereKnown && (status.stx_mask & STATX_BTIME);
            file.created = timestamp(birth ? status.stx_btime : status.stx_mtime);
        }
        out.push_back(std::move(file));
    }
    ::closedir(directory);
    return out;
}

std::vector<std::string> SystemFileSystem::folders(const std::string& folder) const {
    std::vector<std::string> out;
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) return out;
    const int fd = ::dirfd(directory);
    while (const dirent* entry = ::readdir(directory)) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        bool isFolder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            struct statx status {};
            isFolder = ::statx(fd, entry->d_name, 0, STATX_TYPE, &status) == 0 && S_ISDIR(status.stx_mode);
        }
        if (isFolder) out.emplace_back(name);
    }
    ::closedir(directory);
    return out;
}

std::optional<std::string> SystemFileSystem::readHead(const std::string& path, std::size_t bytes) const {
    return Paths::readHead(path, bytes);
}

std::optional<std::string> SystemFileSystem::readTail(const std::string& path, std::size_t bytes) const {
    std::optional<Paths::Tail> tail = Paths::readTail(path, bytes);
    if (!tail) return std::nullopt;
    return std::move(tail->bytes);
}

TelemetryEnvironment TelemetryEnvironment::system() {
    static const auto shared = std::make_shared<const SystemFileSystem>();
    static const date::time_zone* zone = localTimeZone();
    return {shared, Paths::home(), zone};
}

// ---------------------------------------------------------------------------------------------
// Candidates

SessionTelemetry::SessionTelemetry(SessionKind kind, std::string projectPath, Timestamp startedAt,
                                   std::optional<std::string> resumeID, TelemetryEnvironment environment)
    : kind_(kind)
    // The agents record the working folder as the system gives it, without a trailing "/".
    , projectPath_(withoutTrailingSlashes(std::move(projectPath)))
    , startedAt_(startedAt)
    , resumeID_(std::move(resumeID))
    , claimant_(newClaimant())
    , environment_(std::move(environment)) {
    environment_.home = withoutTrailingSlashes(std::move(environment_.home));
    if (environment_.home == "/") environment_.home.clear();
}

std::vector<std::string> SessionTelemetry::candidateFolders() const {
    const std::string& home = environment_.home;
    std::vector<std::string> folders;
    switch (kind_) {
    case SessionKind::claude:
        appendUnique(folders, home + "/.claude/projects/" + claudeFolderName(projectPath_));
        appendUnique(folders, home + "/.claude/projects/" + claudeCodeFolderName(projectPath_));
        break;
    case SessionKind::codex:
        // A day of 25 hours at the end of summer time puts both dates in one folder.
        appendUnique(folders, codexDayFolder(home, startedAt_, environment_.zone));
        appendUnique(folders, codexDayFolder(home, startedAt_ + std::chrono::hours(24), environment_.zone));
        break;
    case SessionKind::gemini: {
        // Gemini names a project's folder in its registry, by default after the project's last
        // path component; versions before the registry used the hash of the path. A named folder
        // can be another project's of the same name: its marker file says whose it is. The
        // candidate directories already end in "chats", where the sessions are.
        std::vector<std::string> named;
        const std::string registry = home + "/.gemini/projects.json";
        if (auto text = fileSystem().readHead(registry, 1u << 20))
            if (auto folder = GeminiTranscript::transcriptDirectory(projectPath_, *text, home))
                appendUnique(named, std::move(*folder));
        const std::string hashed = GeminiTranscript::legacyTranscriptDirectory(projectPath_, home);
        for (std::string& folder : GeminiTranscript::candidateTranscriptDirectories(projectPath_, home))
            if (folder != hashed) appendUnique(named, std::move(folder));
        for (std::string& folder : named) {
            std::string marker =
                parentFolder(folder) + "/" + std::string(GeminiTranscript::projectRootMarkerName);
            auto owner = fileSystem().readHead(marker, 4096);
            if (!owner || GeminiTranscript::directoryOwnsProject(*owner, projectPath_))
                appendUnique(folders, std::move(folder));
        }
        appendUnique(folders, hashed);
        break;
    }
    case SessionKind::shell:
    case SessionKind::service: break;
    }
    return folders;
}

std::vector<ListedFile> SessionTelemetry::listFolders(const std::vector<std::string>& folders) const {
    std::vector<ListedFile> files;
    for (const std::string& folder : folders) {
        std::vector<ListedFile> listed = fileSystem().files(folder, nameFilter(kind_));
        files.insert(files.end(), std::make_move_iterator(listed.begin()),
                     std::make_move_iterator(listed.end()));
    }
    return files;
}

std::vector<ListedFile> SessionTelemetry::listCandidates() const {
    return listFolders(candidateFolders());
}

bool SessionTelemetry::ownsFile(const std::string& path) const {
    switch (kind_) {
    case SessionKind::codex:
        return headPasses(fileSystem(), path, headBytes, [&](std::span<const std::string_view> lines) {
            return CodexTranscript::belongsToProject(lines, projectPath_);
        });
    case SessionKind::gemini:
        return headPasses(fileSystem(), path, headBytes, [](std::span<const std::string_view> lines) {
            return !GeminiTranscript::isSubagentTranscript(lines);
        });
    default: return true;
    }
}

bool SessionTelemetry::namesResumedSession(const ListedFile& file) const {
    const std::string& id = *resumeID_;
    std::string_view name = stem(file.name);
    if (name.find(id) != std::string_view::npos) return true;
    // Gemini puts only the first eight characters of the id in the file's name; the head holds
    // the whole id.
    if (kind_ != SessionKind::gemini || id.size() < 8 || !Text::endsWith(name, "-" + id.substr(0, 8)))
        return false;
    return headPasses(fileSystem(), file.path, headBytes, [&](std::span<const std::string_view> lines) {
        for (std::string_view line : lines)
            if (auto value =
                    CodexTranscript::rawStringValue(GeminiTranscript::Schema::sessionIdentifier, line))
                return *value == id;
        return false;
    });
}

// Codex goes on writing a resumed session into the file of its first day, which can lie in any
// earlier day's folder: the newest folders are searched first.
std::optional<std::string> SessionTelemetry::olderResumedCodexFile() const {
    const std::string root = environment_.home + "/.codex/sessions";
    const std::vector<std::string> searched = candidateFolders();
    auto newestFirst = [&](const std::string& folder) {
        std::vector<std::string> names = fileSystem().folders(folder);
        std::erase_if(names, [](const std::string& name) {
            return name.empty() ||
                   !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
        });
        std::sort(names.begin(), names.end(), std::greater<>());
        return names;
    };
    for (const std::string& year : newestFirst(root)) {
        for (const std::string& month : newestFirst(root + "/" + year)) {
            for (const std::string& day : newestFirst(root + "/" + year + "/" + month)) {
                std::string folder = root + "/" + year + "/" + month + "/" + day;
                if (std::find(searched.begin(), searched.end(), folder) != searched.end()) continue;
                for (const ListedFile& file : fileSystem().files(folder, isJsonl))
                    if (stem(file.name).find(*resumeID_) != std::string_view::npos && !isClaimed(file.path))
                        return file.path;
            }
        }
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Binding

bool SessionTelemetry::bindByResumeID() {
    if (!resumeID_ || resumeID_->empty()) return false;
    {
        std::lock_guard guard(claims().lock);
        for (const ListedFile& file : listCandidates()) {
            if (claims().paths.contains(file.path) || !namesResumedSession(file)) continue;
            claims().paths.emplace(file.path, claimant_);
            rebind(file.path);
            return true;
        }
    }
    if (kind_ != SessionKind::codex) return false;
    // The walk over older days can take a while; it runs outside the lock, and the claim is
    // checked again under it.
    std::optional<std::string> older = olderResumedCodexFile();
    if (!older) return false;
    std::lock_guard guard(claims().lock);
    if (!claims().paths.emplace(*older, claimant_).second) return false;
    rebind(std::move(older));
    return true;
}

bool SessionTelemetry::bind() {
    if (bindByResumeID()) return true;
    const Timestamp earliest = startedAt_ - startGrace;
    // The lock spans the listing and the ownership tests, so that two sessions starting together
    // can't both take the same file.
    std::lock_guard guard(claims().lock);
    std::vector<ListedFile> files = listCandidates();
    // A file whose date can't be read is usually gone already; the next poll looks again.
    std::erase_if(files, [&](const ListedFile& file) {
        return !file.created || *file.created < earliest || claims().paths.contains(file.path);
    });
    std::stable_sort(files.begin(), files.end(), byCreation);
    for (const ListedFile& file : files) {
        if (!ownsFile(file.path)) continue;
        claims().paths.emplace(file.path, claimant_);
        rebind(file.path);
        return true;
    }
    return false;
}

void SessionTelemetry::reclaimAbandoned() {
    if (!abandonedURL_ || !abandonedMtime_) return;
    std::optional<FileAttributes> abandoned = fileSystem().attributes(*abandonedURL_);
    if (!abandoned || abandoned->modified <= *abandonedMtime_) return;
    // The agent went on writing the old file: the move was wrong. The old file is still claimed.
    if (boundURL_) {
        std::lock_guard guard(claims().lock);
        if (auto claim = claims().paths.find(*boundURL_);
            claim != claims().paths.end() && claim->second == claimant_)
            claims().paths.erase(claim);
    }
    rebind(std::move(abandonedURL_));
    abandonedURL_.reset();
    abandonedMtime_.reset();
}

// ---------------------------------------------------------------------------------------------
// Successors

std::vector<std::string> SessionTelemetry::successorFolders() const {
    const Timestamp now = fileSystem().now();
    std::vector<std::string> folders;
    switch (kind_) {
    case SessionKind::claude: folders.push_back(parentFolder(*boundURL_)); break;
    case SessionKind::codex:
        // A new Codex session goes into the folder of the day it starts, which for a session that
        // ran past midnight isn't the folder of the old file. A successor is at most
        // `successorWindow` old, so it stands in today's folder or, just after midnight, in
        // yesterday's.
        appendUnique(folders, codexDayFolder(environment_.home, now, environment_.zone));
        appendUnique(folders, codexDayFolder(environment_.home, now - successorWindow, environment_.zone));
        break;
    default: break; // A Gemini session keeps its file.
    }
    return folders;
}

bool SessionTelemetry::checkSuccessor(Timestamp boundMtime) {
    const Timestamp now = fileSystem().now();
    // The first of the watched folders that exists; today's Codex folder appears only with the
    // day's first session.
    for (const std::string& folder : successorFolders()) {
        std::optional<FileAttributes> watched = fileSystem().attributes(folder);
        if (!watched) continue;
        if (watched->modified != lastDirModified_) {
            lastDirModified_ = watched->modified;
            successorScanUntil_ = now + successorWindow;
        }
        break;
    }
    if (!successorScanUntil_ || !(now < *successorScanUntil_)) return false;
    std::optional<std::string> successor = findSuccessor(boundMtime);
    if (!successor) return false;
    {
        std::lock_guard guard(claims().lock);
        // Another session may have taken it since the search.
        if (!claims().paths.emplace(*successor, claimant_).second) return false;
    }
    // A further move leaves the claim of the file abandoned before this one in place: no other
    // session must read what this one wrote.
    abandonedURL_ = std::move(boundURL_);
    abandonedMtime_ = boundMtime;
    rebind(std::move(successor));
    return true;
}

std::optional<std::string> SessionTelemetry::findSuccessor(Timestamp boundMtime) const {
    std::vector<std::string> folders = successorFolders();
    if (folders.empty()) return std::nullopt;
    std::unordered_set<std::string> claimed;
    {
        std::lock_guard guard(claims().lock);
        for (const auto& claim : claims().paths)
            claimed.insert(claim.first);
    }
    const Timestamp now = fileSystem().now();
    std::vector<ListedFile> files = listFolders(folders);
    std::erase_if(files, [&](const ListedFile& file) {
        return file.path == boundURL_ || claimed.contains(file.path) || !file.created ||
               *file.created <= boundMtime - mtimeGrace || *file.created < startedAt_ - startGrace ||
               now - *file.created >= successorWindow;
    });
    std::stable_sort(files.begin(), files.end(), byCreation);
    for (const ListedFile& file : files) {
        bool passes =
            kind_ == SessionKind::codex
                ? headPasses(fileSystem(), file.path, headBytes,
                             [&](std::span<const std::string_view> lines) {
                                 return CodexTranscript::belongsToProject(lines, projectPath_);
                             })
                : headPasses(fileSystem(), file.path, successorHeadBytes, ClaudeTranscript::isClearSuccessor);
        if (passes) return file.path;
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Polling

std::optional<TranscriptReading> SessionTelemetry::read(const std::string& path) {
    if (kind_ == SessionKind::gemini && isLegacyGeminiDocument(path)) {
        if (lastSize_ > legacyDocumentBytes) return std::nullopt;
        std::optional<std::string> document = fileSystem().readHead(path, legacyDocumentBytes);
        if (!document) {
            lastModified_.reset(); // read again at the next poll
            lastSize_ = 0;
            return std::nullopt;
        }
        return GeminiTranscript::parseLegacyDocument(*document);
    }
    std::optional<std::string> tail = fileSystem().readTail(path, tailBytes);
    if (!tail) {
        // The file went away or couldn't be opened: nothing is known, and the next poll reads
        // again instead of taking the file for unchanged.
        lastModified_.reset();
        lastSize_ = 0;
        return std::nullopt;
    }
    // A window that starts inside a character gives no lines; it is read again after the next write.
    std::optional<std::vector<std::string_view>> lines = TranscriptTail::lines(*tail);
    if (!lines) return std::nullopt;
    switch (kind_) {
    case SessionKind::claude: return ClaudeTranscript::parse(*lines);
    case SessionKind::codex: return CodexTranscript::parse(*lines);
    case SessionKind::gemini: return GeminiTranscript::parse(*lines);
    default: return std::nullopt;
    }
}

std::optional<TranscriptReading> SessionTelemetry::poll() {
    if (!isAgent(kind_)) return std::nullopt;
    reclaimAbandoned();
    if (!boundURL_ && !bind()) return std::nullopt;
    std::optional<FileAttributes> seen = fileSystem().attributes(*boundURL_);
    if (!seen) return std::nullopt;
    if (seen->modified == lastModified_ && seen->size == lastSize_) {
        if (!checkSuccessor(seen->modified)) return std::nullopt;
        seen = fileSystem().attributes(*boundURL_); // the successor's
        if (!seen) return std::nullopt;
    }
    lastSize_ = seen->size;
    lastModified_ = seen->modified;
    if (!boundSessionID_) boundSessionID_ = sessionIDOf(*boundURL_);
    return read(*boundURL_);
}

TelemetryPoll SessionTelemetry::pollCopy(SessionTelemetry copy) {
    std::optional<TranscriptReading> reading = copy.poll();
    return {std::move(copy), std::move(reading)};
}

void SessionTelemetry::rebind(std::optional<std::string> path) {
    boundURL_ = std::move(path);
    boundSessionID_.reset();
    lastModified_.reset();
    lastSize_ = 0;
}

std::optional<std::string> SessionTelemetry::sessionIDOf(const std::string& path) const {
    std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    std::optional<std::string> head;
    // Only Gemini keeps the id inside the file; its header record comes first.
    if (kind_ == SessionKind::gemini) {
        head = fileSystem().readHead(path, ResumeCommand::sessionIDHeadBytes);
        if (!head) return std::nullopt;
    }
    return ResumeCommand::transcriptSessionID(kind_, name, head.value_or(std::string()));
}

void SessionTelemetry::release() {
    {
        std::lock_guard guard(claims().lock);
        std::erase_if(claims().paths, [&](const auto& claim) { return claim.second == claimant_; });
    }
    rebind(std::nullopt);
    abandonedURL_.reset();
    abandonedMtime_.reset();
}

bool SessionTelemetry::isClaimed(const std::string& path) {
    std::lock_guard guard(claims().lock);
    return claims().paths.contains(path);
}

bool SessionTelemetry::holds(const std::string& path) const {
    std::lock_guard guard(claims().lock);
    auto claim = claims().paths.find(path);
    return claim != claims().paths.end() && claim->second == claimant_;
}

void SessionTelemetry::resetClaimsForTesting() {
    std::lock_guard guard(claims().lock);
    claims().paths.clear();
}

} // namespace Ostrel
