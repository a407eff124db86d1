// Which transcript file belongs to a live agent session: found among the files the agent writes
// under the home folder, followed to the next file after a clear, and read at each poll.
#pragma once

#include "OstrelCore/SessionKind.h"
#include "OstrelCore/TranscriptReading.h"
#include "OstrelCore/TranscriptTail.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <date/tz.h>

namespace Ostrel {

using Timestamp = std::chrono::system_clock::time_point;

struct FileAttributes {
    std::uint64_t size = 0;
    Timestamp modified;

    bool operator==(const FileAttributes&) const = default;
};

struct ListedFile {
    std::string path;
    std::string name;
    std::optional<Timestamp> created; // none when the file's attributes couldn't be read

    bool operator==(const ListedFile&) const = default;
};

// Everything the binding asks of the system. Tests and benchmarks put their own in front of the
// real one to move the clock, place files in time and count what a poll costs.
class TelemetryFileSystem {
public:
    virtual ~TelemetryFileSystem() = default;

    // The wall clock, the one the file times are compared with.
    virtual Timestamp now() const = 0;
    // One attribute read: size and modification date of a file or folder.
    virtual std::optional<FileAttributes> attributes(const std::string& path) const = 0;
    // One listing: the regular files of `folder` whose names pass `keep`, in directory order, with
    // their creation dates. Empty when the folder can't be read.
    virtual std::vector<ListedFile> files(const std::string& folder,
                                          bool (*keep)(std::string_view name)) const = 0;
    // One listing: the names of the subfolders of `folder`.
    virtual std::vector<std::string> folders(const std::string& folder) const = 0;
    // At most `bytes` bytes from the start of the file.
    virtual std::optional<std::string> readHead(const std::string& path, std::size_t bytes) const = 0;
    // The last `bytes` bytes of the file, or all of a shorter one.
    virtual std::optional<std::string> readTail(const std::string& path, std::size_t bytes) const = 0;
};

// The real file system. A file's creation date is its birth time where the file system records
// one (statx), else its modification time; `modificationTime` always takes the latter, which lets
// tests place files in time with utimensat (a birth time can't be set).
class SystemFileSystem final : public TelemetryFileSystem {
public:
    enum class CreationDate : std::uint8_t { birthTimeWhereKnown, modificationTime };

    explicit SystemFileSystem(CreationDate creationDate = CreationDate::birthTimeWhereKnown)
        : creationDate_(creationDate) {}

    Timestamp now() const override;
    std::optional<FileAttributes> attributes(const std::string& path) const override;
    std::vector<ListedFile> files(const std::string& folder,
                                  bool (*keep)(std::string_view name)) const override;
    std::vector<std::string> folders(const std::string& folder) const override;
    std::optional<std::string> readHead(const std::string& path, std::size_t bytes) const override;
    std::optional<std::string> readTail(const std::string& path, std::size_t bytes) const override;

private:
    CreationDate creationDate_;
};

// Where and when a session looks for its transcript.
struct TelemetryEnvironment {
    std::shared_ptr<const TelemetryFileSystem> fileSystem;
    std::string home;
    // Codex files its sessions by the local date; null stands for UTC.
    const date::time_zone* zone = nullptr;

    // The real file system, the current user's home folder, the zone of TZ or /etc/localtime.
    static TelemetryEnvironment system();

    bool operator==(const TelemetryEnvironment&) const = default;
};

struct TelemetryPoll;

// A plain value owned by the session's controller. The only shared state is the process-wide set
// of claimed transcript paths, which keeps two sessions from reading the same file; each claim
// records the session that made it (copies of one session share that identity).
//
// Polling off the main thread. Every 4 s the controller hands a copy to the worker pool and
// adopts the polled copy back on the main thread:
//
//     WorkerPool::run([copy = *telemetry_, weak] {
//         TelemetryPoll update = SessionTelemetry::pollCopy(copy);        // pool thread
//         asio::post(mainContext, [weak, update = std::move(update)]() mutable {
//             auto self = weak.lock();
//             if (!self || self->shutDown) return update.telemetry.release();
//             self->telemetry_ = std::move(update.telemetry);             // replaces, never merges
//             if (update.reading) self->applyReading(*update.reading);
//             // resume id: update.telemetry's boundURL() / boundSessionID()
//         });
//     });
//
// Two rules make that safe. One poll at a time per session: a tick that finds the previous copy
// still out skips, or two copies could each claim a file. A copy that comes back after the
// controller released its telemetry is released too: it may have claimed a file meanwhile, and
// releasing it frees only this session's claims, never a file another session took since.
class SessionTelemetry {
public:
    // Bytes read from the end of the transcript at each read.
    static constexpr std::size_t tailBytes = OstrelCore::TranscriptTail::windowBytes;
    // A file may be this much older than its session: agents are quick to create it, but the
    // session's start is stamped before the shell has even run.
    static constexpr std::chrono::seconds startGrace{5};
    // Head read for the ownership tests.
    static constexpr std::size_t headBytes = 8192;
    // Head read for the Claude successor test: the "/clear" record follows the copied context.
    static constexpr std::size_t successorHeadBytes = 262144;
    // How long a change of the transcript folder keeps the successor search open, and the oldest a
    // successor may be.
    static constexpr std::chrono::seconds successorWindow{60};
    // A successor must have been created after the old file's last write, less this.
    static constexpr std::chrono::seconds mtimeGrace{2};
    // Older Gemini CLIs keep a session as one JSON document rewritten whole at every turn, so it
    // can only be read whole; one larger than this is left unread.
    static constexpr std::size_t legacyDocumentBytes = 4u << 20;

    SessionTelemetry(OstrelCore::SessionKind kind, std::string projectPath, Timestamp startedAt,
                     std::optional<std::string> resumeID,
                     TelemetryEnvironment environment = TelemetryEnvironment::system());

    // A fresh reading when the transcript changed or the session moved on to a new one; none when
    // nothing changed or nothing is known yet (the caller keeps the previous reading in force).
    // Safe on any thread for a copy that no other thread touches.
    std::optional<OstrelCore::TranscriptReading> poll();
    // Polls `copy` and hands back both the polled copy and the reading.
    static TelemetryPoll pollCopy(SessionTelemetry copy);
    // Gives up every claim this session holds (bound, abandoned, and files abandoned before), and
    // forgets the binding. A released value may poll again and bind afresh.
    void release();

    OstrelCore::SessionKind kind() const { return kind_; }
    const std::string& projectPath() const { return projectPath_; }
    Timestamp startedAt() const { return startedAt_; }
    const std::optional<std::string>& resumeID() const { return resumeID_; }
    // The transcript this session reads.
    const std::optional<std::string>& boundURL() const { return boundURL_; }
    const std::optional<Timestamp>& lastModified() const { return lastModified_; }
    std::uint64_t lastSize() const { return lastSize_; }
    const std::optional<std::string>& abandonedURL() const { return abandonedURL_; }
    const std::optional<Timestamp>& abandonedMtime() const { return abandonedMtime_; }
    const std::optional<Timestamp>& successorScanUntil() const { return successorScanUntil_; }
    const std::optional<Timestamp>& lastDirModified() const { return lastDirModified_; }
    // The agent's id of the session that writes the bound transcript, as the resume command names
    // it: learnt at the first read after each (re)binding; none until then, or when the transcript
    // names none (a Codex file whose name ends in no id, a Gemini head without "sessionId").
    const std::optional<std::string>& boundSessionID() const { return boundSessionID_; }

    // The folders in which this session's transcript can appear, in the order they are listed.
    std::vector<std::string> candidateFolders() const;

    // Whether some session holds the file, and whether this session does.
    static bool isClaimed(const std::string& path);
    bool holds(const std::string& path) const;
    static void resetClaimsForTesting();

    bool operator==(const SessionTelemetry&) const = default;

private:
    std::vector<ListedFile> listCandidates() const;
    std::vector<ListedFile> listFolders(const std::vector<std::string>& folders) const;
    bool ownsFile(const std::string& path) const;
    bool namesResumedSession(const ListedFile& file) const;
    std::optional<std::string> olderResumedCodexFile() const;
    std::vector<std::string> successorFolders() const;
    std::optional<OstrelCore::TranscriptReading> read(const std::string& path);
    std::optional<std::string> sessionIDOf(const std::string& path) const;
    void rebind(std::optional<std::string> path);
    const TelemetryFileSystem& fileSystem() const { return *environment_.fileSystem; }

    void reclaimAbandoned();
    bool bind();
    bool bindByResumeID();
    bool checkSuccessor(Timestamp boundMtime);
    std::optional<std::string> findSuccessor(Timestamp boundMtime) const;

    OstrelCore::SessionKind kind_;
    std::string projectPath_;
    Timestamp startedAt_;
    std::optional<std::string> resumeID_;
    std::optional<std::string> boundURL_;
    std::optional<Timestamp> lastModified_;
    std::uint64_t lastSize_ = 0; // 0: none
    std::optional<std::string> abandonedURL_;
    std::optional<Timestamp> abandonedMtime_;
    std::optional<Timestamp> successorScanUntil_;
    std::optional<Timestamp> lastDirModified_;
    std::optional<std::string> boundSessionID_;
    std::uint64_t claimant_; // shared by the copies of one session, unique among sessions
    TelemetryEnvironment environment_;
};

// What one poll brings back to the main thread.
struct TelemetryPoll {
    SessionTelemetry telemetry;                           // replaces the controller's value
    std::optional<OstrelCore::TranscriptReading> reading; // none: keep the previous reading
};

} // namespace Ostrel
