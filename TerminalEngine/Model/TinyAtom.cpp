// The process-wide atom table behind TinyAtom.
#include "TerminalEngine/Model/TinyAtom.h"

#include <mutex>
#include <unordered_map>

namespace TerminalEngine {
namespace {

struct AtomTable {
    std::mutex lock;
    std::unordered_map<std::uint16_t, std::string> values;
    std::uint16_t lastCode = 0;
};

AtomTable& table() {
    static AtomTable instance;
    return instance;
}

} // namespace

std::optional<TinyAtom> TinyAtom::lookup(std::string_view value) {
    auto& t = table();
    std::lock_guard guard(t.lock);
    if (t.values.size() >= maxCode) return std::nullopt;
    // Walk forward from the last code handed out, wrapping, to the next free one. Until codes are
    // released this is simply the next counter value.
    std::uint16_t code = t.lastCode;
    do {
        code = code >= maxCode ? 1 : static_cast<std::uint16_t>(code + 1);
    } while (t.values.contains(code));
    t.lastCode = code;
    t.values.emplace(code, std::string(value));
    return TinyAtom(code);
}

void TinyAtom::release(std::uint16_t code) {
    auto& t = table();
    std::lock_guard guard(t.lock);
    t.values.erase(code);
}

std::size_t TinyAtom::liveCount() {
    auto& t = table();
    std::lock_guard guard(t.lock);
    return t.values.size();
}

std::optional<std::string> TinyAtom::target() const {
    if (code == 0) return std::nullopt;
    auto& t = table();
    std::lock_guard guard(t.lock);
    auto it = t.values.find(code);
    if (it == t.values.end()) return std::nullopt;
    return it->second;
}

} // namespace TerminalEngine
