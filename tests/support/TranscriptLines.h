// Test helper: transcript fixtures written as owned strings, handed to readers as views.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace OstrelTest {

struct Lines {
    std::vector<std::string> owned;
    std::vector<std::string_view> views;

    Lines(std::initializer_list<std::string> lines)
        : owned(lines) {
        refresh();
    }
    explicit Lines(std::vector<std::string> lines)
        : owned(std::move(lines)) {
        refresh();
    }
    Lines(const Lines& other)
        : owned(other.owned) {
        refresh();
    }
    Lines& operator=(const Lines& other) {
        owned = other.owned;
        refresh();
        return *this;
    }

    void refresh() { views.assign(owned.begin(), owned.end()); }
};

} // namespace OstrelTest
