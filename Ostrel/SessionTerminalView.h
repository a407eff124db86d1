// The terminal of one session without a window: a Terminal fed by a child on a pseudo-terminal,
// and the cheap signals its byte stream carries (printable output, bells, marker texts) handed to
// the session controller. A view built later hosts the same object.
#pragma once

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/TerminalOutputScanner.h"
#include "TerminalEngine/Pty/LocalProcess.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Ostrel {

class SessionTerminalView : public TerminalEngine::TerminalDelegate,
                            public TerminalEngine::LocalProcessDelegate,
                            public std::enable_shared_from_this<SessionTerminalView> {
public:
    // The marker texts that make a chunk worth a closer look. Everything else costs one byte
    // search and no string work.
    static constexpr std::array<std::string_view, 3> portMarkers = {"localhost:", "127.0.0.1:", "0.0.0.0:"};
    static constexpr std::array<std::string_view, 4> limitMarkers = {"hit your", "usage limit",
                                                                     "exhausted your", "out of usage"};
    static constexpr std::array<std::string_view, 1> modelMarkers = {"model to "};

    // Which marker groups a chunk holds, among the wanted ones: one byte search for all of them.
    enum MarkerGroup : std::uint32_t { portGroup = 1, limitGroup = 2, modelGroup = 4 };
    static std::uint32_t findMarkers(std::string_view chunk, std::uint32_t wantedGroups);

    // The frame a session's terminal has before a view lays it out, in points.
    static constexpr std::uint16_t frameWidth = 800;
    static constexpr std::uint16_t frameHeight = 600;

    static std::shared_ptr<SessionTerminalView> create(TerminalEngine::TerminalOptions options);

    // Starts `executable` with `args` (argument zero is the executable) in `environment` and `cwd`.
    void startProcess(const std::string& executable, const std::vector<std::string>& args,
                      const std::vector<std::string>& environment, const std::string& cwd);

    // The input path, for bytes the person types. Anything that doesn't begin with ESC counts as
    // typing (an empty write too) and runs onUserInput first; ESC starts terminal replies,
    // function and arrow keys, which are not.
    void send(std::span<const std::uint8_t> bytes);
    void send(std::string_view text);

    // Stops reading and ends the child (SIGTERM, and the hang-up of its terminal).
    void terminate();
    void resize(int columns, int rows);

    TerminalEngine::Terminal& terminal() { return *terminal_; }
    TerminalEngine::LocalProcess& process() { return *process_; }
    // Bytes delivered to the engine so far; tests and diagnostics.
    std::uint64_t receivedBytes() const { return receivedBytes_; }

    OstrelCore::TerminalOutputScanner scanner;

    std::function<void()> onActivity;  // printable output in a chunk
    std::function<void()> onBell;      // a BEL outside any string or escape sequence
    std::function<void()> onUserInput; // the person typed
    // A chunk with a marker, as text; a chunk that isn't valid UTF-8 is passed over. Unset
    // callbacks cost nothing: their markers aren't searched for.
    std::function<void(std::string_view)> onPortCandidate;
    std::function<void(std::string_view)> onLimitCandidate;
    std::function<void(std::string_view)> onModelCandidate;
    std::function<void(const std::string&)> onTitle;     // OSC 0 / 2
    std::function<void(const std::string&)> onDirectory; // OSC 7, as the program sent it
    // The raw wait status, none when the system gave none.
    std::function<void(std::optional<std::int32_t>)> onExit;

    // LocalProcessDelegate
    void processTerminated(TerminalEngine::LocalProcess& source,
                           std::optional<std::int32_t> exitCode) override;
    void dataReceived(std::span<const std::uint8_t> slice) override;
    TerminalEngine::WindowSize getWindowSize() override;

    // TerminalDelegate
    void send(TerminalEngine::Terminal& source, std::span<const std::uint8_t> data) override;
    void setTerminalTitle(TerminalEngine::Terminal& source, const std::string& title) override;
    void hostCurrentDirectoryUpdated(TerminalEngine::Terminal& source) override;

private:
    SessionTerminalView() = default;
    void scanMarkers(std::string_view chunk);

    std::unique_ptr<TerminalEngine::Terminal> terminal_;
    std::shared_ptr<TerminalEngine::LocalProcess> process_;
    std::uint64_t receivedBytes_ = 0;
};

} // namespace Ostrel
