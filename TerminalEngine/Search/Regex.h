// A compiled PCRE2 expression (8-bit, UTF mode, JIT when available) with its match data, for the
// searches of the scrollback and the link pattern. Bad patterns are a value, never an exception.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace TerminalEngine {

class Regex {
public:
    struct Options {
        bool caseless = false;
        bool literal = false;     // the pattern is plain text
        bool unicodeWords = true; // \w, \b and classes follow Unicode, not just ASCII
        bool operator==(const Options&) const = default;
    };
    // Byte offsets [start, end) of a match in the subject.
    struct Match {
        std::size_t start = 0;
        std::size_t end = 0;
        bool operator==(const Match&) const = default;
    };

    // None when the pattern does not compile; `error` then says why.
    static std::optional<Regex> compile(std::string_view pattern, Options options,
                                        std::string* error = nullptr);

    Regex(Regex&&) noexcept;
    Regex& operator=(Regex&&) noexcept;
    ~Regex();

    // The first match starting at or after `from`. The subject must be valid UTF-8 (the texts
    // built from cells always are); `from` must sit on a character boundary.
    std::optional<Match> find(std::string_view subject, std::size_t from = 0) const;

private:
    struct Compiled;
    explicit Regex(std::unique_ptr<Compiled> compiled);
    std::unique_ptr<Compiled> compiled_;
};

} // namespace TerminalEngine
