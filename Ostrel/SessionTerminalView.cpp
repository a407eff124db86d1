// Output path (engine, scanner, marker search) and input path of a session's terminal.
#include "Ostrel/SessionTerminalView.h"

#include "OstrelCore/Text.h"

namespace Ostrel {
namespace {

constexpr std::uint8_t ESC = 0x1B;

// All markers in one set, so that a chunk is searched once whatever callbacks are set.
constexpr std::size_t portBit = 0;
constexpr std::size_t limitBit = portBit + SessionTerminalView::portMarkers.size();
constexpr std::size_t modelBit = limitBit + SessionTerminalView::limitMarkers.size();
constexpr std::size_t markerCount = modelBit + SessionTerminalView::modelMarkers.size();
static_assert(markerCount <= OstrelCore::ByteSearch::MarkerSet::maxMarkers);

constexpr std::uint32_t bits(std::size_t first, std::size_t count) {
    return ((1u << count) - 1u) << first;
}
constexpr std::uint32_t portBits = bits(portBit, SessionTerminalView::portMarkers.size());
constexpr std::uint32_t limitBits = bits(limitBit, SessionTerminalView::limitMarkers.size());
constexpr std::uint32_t modelBits = bits(modelBit, SessionTerminalView::modelMarkers.size());

const OstrelCore::ByteSearch::MarkerSet& markers() {
    static const OstrelCore::ByteSearch::MarkerSet set = [] {
        std::array<std::string_view, markerCount> all{};
        std::size_t i = 0;
        for (auto marker : SessionTerminalView::portMarkers)
            all[i++] = marker;
        for (auto marker : SessionTerminalView::limitMarkers)
            all[i++] = marker;
        for (auto marker : SessionTerminalView::modelMarkers)
            all[i++] = marker;
        return OstrelCore::ByteSearch::MarkerSet(all);
    }();
    return set;
}

// Calls through a copy: a callback may clear itself (the port scan ends once a port is known).
void call(const std::function<void(std::string_view)>& callback, std::string_view text) {
    auto copy = callback;
    copy(text);
}

} // namespace

std::shared_ptr<SessionTerminalView> SessionTerminalView::create(TerminalEngine::TerminalOptions options) {
    std::shared_ptr<SessionTerminalView> self(new SessionTerminalView());
    self->terminal_ = std::make_unique<TerminalEngine::Terminal>(
        std::weak_ptr<TerminalEngine::TerminalDelegate>(self), std::move(options));
    self->process_ =
        TerminalEngine::LocalProcess::create(std::weak_ptr<TerminalEngine::LocalProcessDelegate>(self));
    return self;
}

void SessionTerminalView::startProcess(const std::string& executable, const std::vector<std::string>& args,
                                       const std::vector<std::string>& environment, const std::string& cwd) {
    process_->startProcess(executable, args, environment, std::nullopt, cwd);
}

void SessionTerminalView::send(std::span<const std::uint8_t> bytes) {
    if ((bytes.empty() || bytes.front() != ESC) && onUserInput) onUserInput();
    process_->send(bytes);
}

void SessionTerminalView::send(std::string_view text) {
    send(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

void SessionTerminalView::terminate() {
    process_->terminate();
}

void SessionTerminalView::resize(int columns, int rows) {
    terminal_->resize(columns, rows);
    process_->resize(getWindowSize());
}

void SessionTerminalView::processTerminated(TerminalEngine::LocalProcess&,
                                            std::optional<std::int32_t> exitCode) {
    if (onExit) onExit(exitCode);
}

void SessionTerminalView::dataReceived(std::span<const std::uint8_t> slice) {
    receivedBytes_ += slice.size();
    terminal_->parse(slice);
    const std::string_view chunk(reinterpret_cast<const char*>(slice.data()), slice.size());
    const auto seen = scanner.scan(chunk);
    if (seen.bell && onBell) onBell();
    if (seen.printable && onActivity) onActivity();
    scanMarkers(chunk);
}

std::uint32_t SessionTerminalView::findMarkers(std::string_view chunk, std::uint32_t wantedGroups) {
    std::uint32_t wanted = 0;
    if (wantedGroups & portGroup) wanted |= portBits;
    if (wantedGroups & limitGroup) wanted |= limitBits;
    if (wantedGroups & modelGroup) wanted |= modelBits;
    if (wanted == 0) return 0;
    const std::uint32_t found = markers().scan(chunk, wanted);
    return ((found & portBits) ? portGroup : 0u) | ((found & limitBits) ? limitGroup : 0u) |
           ((found & modelBits) ? modelGroup : 0u);
}

void SessionTerminalView::scanMarkers(std::string_view chunk) {
    const std::uint32_t wanted = (onPortCandidate ? portGroup : 0u) | (onLimitCandidate ? limitGroup : 0u) |
                                 (onModelCandidate ? modelGroup : 0u);
    if (wanted == 0) return;
    const std::uint32_t found = findMarkers(chunk, wanted);
    if (found == 0 || !OstrelCore::Text::isValidUtf8(chunk)) return;
    // Each callback is looked at again: an earlier one may have changed the set.
    if ((found & portGroup) && onPortCandidate) call(onPortCandidate, chunk);
    if ((found & limitGroup) && onLimitCandidate) call(onLimitCandidate, chunk);
    if ((found & modelGroup) && onModelCandidate) call(onModelCandidate, chunk);
}

TerminalEngine::WindowSize SessionTerminalView::getWindowSize() {
    return {static_cast<std::uint16_t>(terminal_->rows), static_cast<std::uint16_t>(terminal_->cols),
            frameWidth, frameHeight};
}

void SessionTerminalView::send(TerminalEngine::Terminal&, std::span<const std::uint8_t> data) {
    // Replies to the program's queries: never typing.
    process_->send(data);
}

void SessionTerminalView::setTerminalTitle(TerminalEngine::Terminal&, const std::string& title) {
    if (onTitle) onTitle(title);
}

void SessionTerminalView::hostCurrentDirectoryUpdated(TerminalEngine::Terminal& source) {
    if (onDirectory && source.hostCurrentDirectory) onDirectory(*source.hostCurrentDirectory);
}

} // namespace Ostrel
