// A terminal wired straight to a child process, with no view: output feeds the engine, replies
// go back to the child, and the owner hears when the child ends.
#pragma once

#include "TerminalEngine/Pty/LocalProcess.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TerminalEngine {

class HeadlessTerminal : public TerminalDelegate,
                         public LocalProcessDelegate,
                         public std::enable_shared_from_this<HeadlessTerminal> {
public:
    struct Image {
        std::vector<std::uint8_t> bytes;
        int width = 0;
        int height = 0;
    };

    static std::shared_ptr<HeadlessTerminal> create(std::optional<DispatchQueue> queue,
                                                    TerminalOptions options,
                                                    std::function<void(std::optional<std::int32_t>)> onEnd);

    void send(std::span<const std::uint8_t> data);
    void send(std::string_view text);
    void changeScrollback(std::optional<int> lines);
    // Resizes the terminal and tells the child (TIOCSWINSZ).
    void resize(int cols, int rows);

    std::unique_ptr<Terminal> terminal;
    std::shared_ptr<LocalProcess> process;
    std::function<void(std::optional<std::int32_t>)> onEnd;
    // Called after each chunk of output has gone through the terminal.
    std::function<void(std::span<const std::uint8_t>)> onOutput;
    std::optional<std::string> dir;
    std::vector<Image> images;

    // LocalProcessDelegate
    void processTerminated(LocalProcess& source, std::optional<std::int32_t> exitCode) override;
    void dataReceived(std::span<const std::uint8_t> slice) override;
    WindowSize getWindowSize() override;

    // TerminalDelegate
    void send(Terminal& source, std::span<const std::uint8_t> data) override;
    void hostCurrentDirectoryUpdated(Terminal& source) override;
    void createImageFromBitmap(Terminal& source, std::vector<std::uint8_t>& bytes, int width,
                               int height) override;

private:
    HeadlessTerminal() = default;
};

} // namespace TerminalEngine
