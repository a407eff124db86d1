// PCRE2 behind Regex.
#include "TerminalEngine/Search/Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace TerminalEngine {

struct Regex::Compiled {
    pcre2_code* code = nullptr;
    pcre2_match_data* matchData = nullptr;
    bool jit = false;
    ~Compiled() {
        if (matchData) pcre2_match_data_free(matchData);
        if (code) pcre2_code_free(code);
    }
};

Regex::Regex(std::unique_ptr<Compiled> compiled)
    : compiled_(std::move(compiled)) {}
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;
Regex::~Regex() = default;

std::optional<Regex> Regex::compile(std::string_view pattern, Options options, std::string* error) {
    std::uint32_t flags = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF;
    if (options.caseless) flags |= PCRE2_CASELESS;
    if (options.literal) flags |= PCRE2_LITERAL;
    if (options.unicodeWords) flags |= PCRE2_UCP;
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    auto compiled = std::make_unique<Compiled>();
    compiled->code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), flags,
                                   &errorCode, &errorOffset, nullptr);
    if (compiled->code == nullptr) {
        if (error) {
            PCRE2_UCHAR message[256];
            pcre2_get_error_message(errorCode, message, sizeof message);
            *error = reinterpret_cast<const char*>(message);
        }
        return std::nullopt;
    }
    // Without JIT support the interpreter runs the same expression, only slower.
    compiled->jit = pcre2_jit_compile(compiled->code, PCRE2_JIT_COMPLETE) == 0;
    compiled->matchData = pcre2_match_data_create_from_pattern(compiled->code, nullptr);
    if (compiled->matchData == nullptr) return std::nullopt;
    return Regex(std::move(compiled));
}

std::optional<Regex::Match> Regex::find(std::string_view subject, std::size_t from) const {
    if (from > subject.size()) return std::nullopt;
    auto* text = reinterpret_cast<PCRE2_SPTR>(subject.data());
    // The JIT entry skips the checks of the general one, which count when a search calls it
    // once for each of a hundred thousand lines.
    int rc =
        compiled_->jit
            ? pcre2_jit_match(compiled_->code, text, subject.size(), from, 0, compiled_->matchData, nullptr)
            : pcre2_match(compiled_->code, text, subject.size(), from, 0, compiled_->matchData, nullptr);
    if (rc < 0) return std::nullopt;
    PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(compiled_->matchData);
    // \K in a look-behind can report an end before the start; such a match is worth nothing.
    if (ovector[1] < ovector[0]) return std::nullopt;
    return Match{ovector[0], ovector[1]};
}

} // namespace TerminalEngine
