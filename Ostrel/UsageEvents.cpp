// Usage events as appended JSON lines, trimmed to the newer half when the file grows too large.
#include "Ostrel/UsageEvents.h"

#include "Ostrel/Paths.h"
#include "Ostrel/SettingKeys.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

bool appendLine(const std::string& path, const std::string& line) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd, line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        written += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return written == line.size();
}

// Keeps the newer half, cut at a line start.
void trim(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 ||
        static_cast<std::size_t>(info.st_size) <= UsageEvents::maxFileBytes)
        return;
    auto text = Paths::readFile(path, 4 * UsageEvents::maxFileBytes);
    if (!text) return;
    auto cut = text->find('\n', text->size() / 2);
    Paths::writeFileAtomically(path, cut == std::string::npos ? std::string_view{}
                                                              : std::string_view(*text).substr(cut + 1));
}

} // namespace

UsageEvents::UsageEvents(std::string path, const Settings& settings)
    : path_(std::move(path))
    , settings_(settings) {}

void UsageEvents::send(const Event& event) {
    if (!isOn(settings_, SettingKeys::telemetryEnabled)) return;
    nlohmann::json line{{"event", event.name}};
    if (event.kind) line["kind"] = OstrelCore::rawValue(*event.kind);
    if (event.seconds) line["seconds"] = *event.seconds;
    if (event.projects) line["projects"] = *event.projects;
    if (event.sessions) line["sessions"] = *event.sessions;
    line["time"] = utcNow();
    Paths::ensureFolder(std::filesystem::path(path_).parent_path().string());
    if (appendLine(path_, line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n"))
        trim(path_);
}

void UsageEvents::send(std::string_view name, std::optional<OstrelCore::SessionKind> kind) {
    send(Event{std::string(name), kind, std::nullopt, std::nullopt, std::nullopt});
}

void UsageEvents::recordPeak(std::size_t projects, std::size_t sessions) {
    if (projects <= peakProjects_ && sessions <= peakSessions_) return;
    peakProjects_ = std::max(peakProjects_, projects);
    peakSessions_ = std::max(peakSessions_, sessions);
    send(Event{"peak_usage", std::nullopt, std::nullopt, static_cast<std::int64_t>(peakProjects_),
               static_cast<std::int64_t>(peakSessions_)});
}

} // namespace Ostrel
