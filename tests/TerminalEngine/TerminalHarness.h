// A terminal fed from strings, with a delegate that records what the terminal tells it.
#pragma once

#include "TerminalEngine/Terminal/Terminal.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace TerminalEngine::testing {

struct RecordingDelegate : TerminalDelegate {
    std::string sent;
    std::vector<std::string> titles;
    std::vector<std::string> iconTitles;
    std::vector<std::pair<std::string, std::string>> notifications;
    std::vector<ProgressReport> progress;
    std::vector<std::string> clipboard;
    std::optional<std::vector<std::uint8_t>> clipboardContent;
    std::vector<bool> synchronizedChanges;
    int bells = 0;
    int linefeeds = 0;
    int directoryUpdates = 0;
    int mouseModeChanges = 0;
    std::vector<CursorStyle> cursorStyles;

    void send(Terminal&, std::span<const std::uint8_t> data) override {
        sent.append(reinterpret_cast<const char*>(data.data()), data.size());
    }
    void setTerminalTitle(Terminal&, const std::string& title) override { titles.push_back(title); }
    void setTerminalIconTitle(Terminal&, const std::string& title) override { iconTitles.push_back(title); }
    void bell(Terminal&) override { ++bells; }
    void linefeed(Terminal&) override { ++linefeeds; }
    void hostCurrentDirectoryUpdated(Terminal&) override { ++directoryUpdates; }
    void mouseModeChanged(Terminal&) override { ++mouseModeChanges; }
    void notify(Terminal&, const std::string& title, const std::string& body) override {
        notifications.emplace_back(title, body);
    }
    void progressReport(Terminal&, const ProgressReport& report) override { progress.push_back(report); }
    void clipboardCopy(Terminal&, std::span<const std::uint8_t> content) override {
        clipboard.emplace_back(reinterpret_cast<const char*>(content.data()), content.size());
    }
    std::optional<std::vector<std::uint8_t>> clipboardRead(Terminal&) override { return clipboardContent; }
    void synchronizedOutputChanged(Terminal&, bool active) override { synchronizedChanges.push_back(active); }
    void cursorStyleChanged(Terminal&, CursorStyle style) override { cursorStyles.push_back(style); }
};

class TerminalHarness {
public:
    explicit TerminalHarness(int cols = 80, int rows = 25, TerminalOptions options = {})
        : delegate(std::make_shared<RecordingDelegate>()) {
        options.cols = cols;
        options.rows = rows;
        terminal = std::make_unique<Terminal>(delegate, options);
        terminal->silentLog = true;
    }

    TerminalHarness& feed(std::string_view bytes) {
        terminal->feed(bytes);
        return *this;
    }

    // Screen row as text, trailing blanks removed.
    std::string row(int y) const { return terminal->lineText(y); }
    std::vector<std::string> screen() const {
        std::vector<std::string> rows;
        for (int y = 0; y < terminal->rows; ++y)
            rows.push_back(row(y));
        return rows;
    }
    const CharData& cell(int x, int y) const { return terminal->getCharData(x, y); }
    int x() const { return terminal->buffer->x; }
    int y() const { return terminal->buffer->y; }
    std::string takeSent() { return std::exchange(delegate->sent, {}); }

    std::shared_ptr<RecordingDelegate> delegate;
    std::unique_ptr<Terminal> terminal;
};

// Everything observable after feeding: rows and the attributes of their cells, the attribute
// being written with, cursor, replies, titles.
struct Outcome {
    std::vector<std::string> screen;
    std::vector<Attribute> attributes;
    int x = 0, y = 0;
    std::string sent;
    std::vector<std::string> titles;
    bool operator==(const Outcome&) const = default;
};

inline Outcome outcomeOf(TerminalHarness& h) {
    std::vector<Attribute> attributes{h.terminal->curAttr};
    for (int y = 0; y < h.terminal->rows; ++y)
        for (int x = 0; x < h.terminal->cols; ++x)
            attributes.push_back(h.cell(x, y).attribute);
    return {h.screen(), std::move(attributes), h.x(), h.y(), h.delegate->sent, h.delegate->titles};
}

// Feeds `bytes` whole, then split at every position into two reads, and reports the first split
// whose outcome differs (-1 when none does).
inline int firstSplitThatDiffers(std::string_view bytes, int cols = 40, int rows = 10) {
    TerminalHarness whole(cols, rows);
    whole.feed(bytes);
    Outcome expected = outcomeOf(whole);
    for (std::size_t k = 1; k < bytes.size(); ++k) {
        TerminalHarness split(cols, rows);
        split.feed(bytes.substr(0, k)).feed(bytes.substr(k));
        if (!(outcomeOf(split) == expected)) return static_cast<int>(k);
    }
    return -1;
}

} // namespace TerminalEngine::testing
