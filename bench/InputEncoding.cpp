// Encoding keys and mouse events: time per event, and the heap allocations each makes, counted
// with a replaced operator new. An encoder may allocate the reply it returns and nothing else,
// so replies short enough for the string's inline buffer cost no allocation at all.
#include "TerminalEngine/Terminal/Terminal.h"
#include "TimeReporter.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

static std::atomic<std::size_t> allocationCount{0};
// Kept out of line: inlined, g++ pairs the malloc and free it sees with the new and delete
// expressions around them and warns of a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
    std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using namespace TerminalEngine;
using FK = KittyFunctionalKey;
using M = KittyKeyboardModifiers;

struct NullDelegate : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {}
};

KittyKeyEvent key(KittyKey k, M mods = M::none, std::optional<std::string> text = std::nullopt) {
    KittyKeyEvent e;
    e.key = k;
    e.modifiers = mods;
    e.text = std::move(text);
    return e;
}

struct Sample {
    const char* name;
    int kittyFlags;
    KittyKeyEvent event;
};

const std::vector<Sample>& samples() {
    static const std::vector<Sample> all = {
        {"legacy letter", 0, key(KittyKey::unicode('a'), M::none, "a")},
        {"legacy ctrl-up", 0, key(KittyKey::functional(FK::up), M::ctrl)},
        {"legacy F20", 0, key(KittyKey::functional(FK::f20))},
        {"kitty ctrl-a", 1, key(KittyKey::unicode('a'), M::ctrl)},
        {"kitty all keys + text", 31, key(KittyKey::unicode('a'), M::shift | M::alt, "A")},
        {"kitty long text", 25, key(KittyKey::unicode('e'), M::none, "e\xcc\x81\xcc\x82\xcc\x83")},
    };
    return all;
}

Terminal& terminal() {
    static auto delegate = std::make_shared<NullDelegate>();
    static Terminal t(delegate, TerminalOptions{});
    return t;
}

void BM_EncodeKey(benchmark::State& state, const Sample* sample) {
    Terminal& t = terminal();
    t.keyboardMode().flags = sample->kittyFlags;
    for (auto _ : state)
        benchmark::DoNotOptimize(t.encodeKey(sample->event));
}

void BM_EncodeMouse(benchmark::State& state) {
    Terminal& t = terminal();
    t.feed("\x1b[?1003h\x1b[?1006h");
    MouseEvent e;
    e.action = MouseEvent::Action::motion;
    for (auto _ : state) {
        e.x = (e.x + 7) % 300;
        benchmark::DoNotOptimize(t.encodeMouse(e));
    }
}

// The anchor: the same reply as "kitty ctrl-a" written with snprintf into a string, the way a
// straightforward encoder would build it.
void BM_AnchorSnprintf(benchmark::State& state) {
    unsigned code = 97, modifiers = 5;
    for (auto _ : state) {
        char buffer[32];
        int n = std::snprintf(buffer, sizeof buffer, "\x1b[%u;%uu", code, modifiers);
        std::string reply(buffer, static_cast<std::size_t>(n));
        benchmark::DoNotOptimize(reply);
        benchmark::DoNotOptimize(code);
    }
}

// Allocations of one call, and whether they stay within the reply: none for a reply that fits
// the inline buffer, at most one otherwise.
template <typename Encode>
bool report(const char* name, Encode&& encode) {
    std::size_t before = allocationCount.load();
    std::string bytes = encode();
    std::size_t made = allocationCount.load() - before;
    std::size_t allowed = bytes.size() <= std::string().capacity() ? 0 : 1;
    std::printf("%-24s reply %3zu bytes  allocations %zu  %s\n", name, bytes.size(), made,
                made <= allowed ? "ok" : "MORE THAN THE REPLY");
    return made <= allowed;
}

} // namespace

int main(int argc, char** argv) {
    for (const Sample& s : samples())
        benchmark::RegisterBenchmark((std::string("key/") + s.name).c_str(), BM_EncodeKey, &s);
    benchmark::RegisterBenchmark("mouse/sgr motion", BM_EncodeMouse);
    benchmark::RegisterBenchmark("anchor/snprintf of a CSI u reply", BM_AnchorSnprintf);
    benchmark::Initialize(&argc, argv);
    TimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (double anchor = reporter.cpu("anchor/snprintf of a CSI u reply"); anchor > 0) {
        std::printf("\nprocessor time against the snprintf anchor:\n");
        for (const auto& [name, time] : reporter.times)
            if (!name.starts_with("anchor/"))
                std::printf("%-28s %6.2fx\n", name.c_str(), time.first / anchor);
    }

    std::printf("\n");
    Terminal& t = terminal();
    bool ok = true;
    for (const Sample& s : samples()) {
        t.keyboardMode().flags = s.kittyFlags;
        ok = report(s.name, [&] { return t.encodeKey(s.event); }) && ok;
    }
    t.keyboardMode().flags = 0;
    t.feed("\x1b[?1003h\x1b[?1006h");
    MouseEvent e;
    e.x = 2999;
    e.y = 999;
    ok = report("mouse sgr press", [&] { return t.encodeMouse(e).value_or(""); }) && ok;
    t.feed("\x1b[?1006l");
    ok = report("mouse x10 press", [&] { return t.encodeMouse(e).value_or(""); }) && ok;
    std::size_t before = allocationCount.load();
    t.sendKey(samples()[1].event);
    t.sendMouse(e);
    std::printf("%-24s allocations %zu\n", "send key and mouse", allocationCount.load() - before);
    std::printf("%s\n", ok ? "every encoder allocates at most its reply" : "some encoder allocates more");
    return 0;
}
