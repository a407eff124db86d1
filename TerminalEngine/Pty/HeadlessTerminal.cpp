// HeadlessTerminal wiring.
#include "TerminalEngine/Pty/HeadlessTerminal.h"

namespace TerminalEngine {

std::shared_ptr<HeadlessTerminal>
HeadlessTerminal::create(std::optional<DispatchQueue> queue, TerminalOptions options,
                         std::function<void(std::optional<std::int32_t>)> onEnd) {
    std::shared_ptr<HeadlessTerminal> self(new HeadlessTerminal());
    self->onEnd = std::move(onEnd);
    self->terminal = std::make_unique<Terminal>(std::weak_ptr<TerminalDelegate>(self), std::move(options));
    self->process = LocalProcess::create(std::weak_ptr<LocalProcessDelegate>(self), queue);
    return self;
}

void HeadlessTerminal::send(std::span<const std::uint8_t> data) {
    process->send(data);
}

void HeadlessTerminal::send(std::string_view text) {
    process->send({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void HeadlessTerminal::changeScrollback(std::optional<int> lines) {
    terminal->changeScrollback(lines);
}

void HeadlessTerminal::resize(int cols, int rows) {
    terminal->resize(cols, rows);
    process->resize(getWindowSize());
}

void HeadlessTerminal::processTerminated(LocalProcess&, std::optional<std::int32_t> exitCode) {
    if (onEnd) onEnd(exitCode);
}

void HeadlessTerminal::dataReceived(std::span<const std::uint8_t> slice) {
    terminal->parse(slice);
    if (onOutput) onOutput(slice);
}

WindowSize HeadlessTerminal::getWindowSize() {
    return {static_cast<std::uint16_t>(terminal->rows), static_cast<std::uint16_t>(terminal->cols), 16, 16};
}

void HeadlessTerminal::send(Terminal&, std::span<const std::uint8_t> data) {
    process->send(data);
}

void HeadlessTerminal::hostCurrentDirectoryUpdated(Terminal& source) {
    dir = source.hostCurrentDirectory;
}

void HeadlessTerminal::createImageFromBitmap(Terminal&, std::vector<std::uint8_t>& bytes, int width,
                                             int height) {
    images.push_back({bytes, width, height});
}

} // namespace TerminalEngine
