// The notifier against a real notification server on a private session bus: what is sent, what
// replaces what, what the switches hold back, and how the server's signals come back as answers.
#include "Ostrel/Notifier.h"

#include "NotificationServer.h"
#include "Ostrel/Localization.h"
#include "Ostrel/Settings.h"
#include "support/Waiting.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

namespace Ostrel {
namespace {

using namespace std::chrono_literals;
using OstrelCore::SessionStatus;
using OstrelCore::UUID;
using Decision = OstrelCore::ApprovalPolicy::Decision;
using Request = OstrelCore::ApprovalPolicy::Request;
using OstrelTest::NotificationServer;

const std::vector<std::string> withActions = {"actions", "body"};
const std::vector<std::string> waitingActions = {
    "ostrel.action.approve", "Approve", "ostrel.action.deny", "Deny", "default", "Show"};
const std::vector<std::string> revealOnly = {"default", "Show"};

struct Answer {
    UUID session;
    std::optional<Decision> decision; // none: a reveal
    bool onTestThread = false;
    bool operator==(const Answer&) const = default;
};

class NotifierTest : public ::testing::Test {
protected:
    NotifierTest() { Localization::setCurrent(Language::en); }

    void startNotifier(NotificationBus::Options options = {}) {
        notifier = std::make_unique<Notifier>(settings, context, options);
        auto record = [this](const UUID& session, std::optional<Decision> decision) {
            answers.push_back({session, decision, std::this_thread::get_id() == testThread});
        };
        notifier->onDecision = record;
        notifier->onReveal = [record](const UUID& session) { record(session, std::nullopt); };
        notifier->onUsageEvent = [this](std::string_view event) { events.emplace_back(event); };
        ASSERT_TRUE(runUntil([&] { return !notifier->checking(); }));
    }
    // Runs the loop until `done`; the deadline only guards against a hang.
    bool runUntil(const std::function<bool()>& done) { return OstrelTest::runUntil(context, done, 20s); }
    std::vector<OstrelTest::Received> awaitReceived(NotificationServer& on, std::size_t count) {
        EXPECT_TRUE(runUntil([&] { return on.received().size() >= count; }));
        return on.received();
    }
    static NotificationSubject subject(UUID session, SessionStatus status,
                                       std::optional<Request> request = {},
                                       std::optional<std::string> project = "shop") {
        return {session, "api", status, std::move(request), std::move(project)};
    }

    OstrelTest::PrivateBus bus;
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
    Settings settings{bus.folder() + "/settings.json"};
    std::thread::id testThread = std::this_thread::get_id();
    std::vector<Answer> answers;
    std::vector<std::string> events;
    std::unique_ptr<NotificationServer> server = std::make_unique<NotificationServer>(withActions);
    std::unique_ptr<Notifier> notifier;
};

TEST_F(NotifierTest, EachStatusSendsItsTitleBodyAndButtons) {
    struct Case {
        SessionStatus status;
        std::optional<Request> request;
        std::optional<std::string> project;
        std::optional<std::string> summary; // none: nothing is sent
        std::string body;
        std::int32_t expireTimeout = -1;
    };
    const Case cases[] = {
        {SessionStatus::waiting(), Request{"Bash", "rm -rf build"}, "shop", "api is waiting for you",
         "Bash: rm -rf build", 0},
        {SessionStatus::waiting(), Request{"Edit", ""}, "shop", "api is waiting for you", "Edit", 0},
        {SessionStatus::waiting(), std::nullopt, "shop", "api is waiting for you", "shop", 0},
        {SessionStatus::waiting(), std::nullopt, std::nullopt, "api is waiting for you", "", 0},
        {SessionStatus::ready(), std::nullopt, "shop", std::nullopt, ""},
        {SessionStatus::working(), std::nullopt, "shop", std::nullopt, ""},
        {SessionStatus::idle(), Request{"Bash", "ls"}, "shop", "api is idle", "shop"},
        {SessionStatus::done(), std::nullopt, "shop", "api has ended", "shop"},
        {SessionStatus::failed(3), std::nullopt, std::nullopt, "api failed (exit code 3)", ""},
    };
    startNotifier();
    ASSERT_TRUE(notifier->available());
    std::vector<std::pair<UUID, const Case*>> expected;
    for (const Case& c : cases) {
        UUID session = UUID::random();
        notifier->notify(subject(session, c.status, c.request, c.project));
        if (c.summary) expected.emplace_back(session, &c);
    }
    notifier->test(); // sent last: whatever the statuses that don't notify had sent would come before
    auto received = awaitReceived(*server, expected.size() + 1);
    ASSERT_EQ(received.size(), expected.size() + 1);
    EXPECT_EQ(received.back().summary, "Ostrel notifications work");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto& [session, c] = expected[i];
        SCOPED_TRACE(*c->summary + " / " + c->body);
        EXPECT_EQ(received[i].summary, *c->summary);
        EXPECT_EQ(received[i].body, c->body);
        const auto& buttons = c->status == SessionStatus::waiting() ? waitingActions : revealOnly;
        EXPECT_EQ(received[i].actions, buttons);
        EXPECT_EQ(received[i].hints["x-ostrel-session"], session.uuidString());
        EXPECT_EQ(received[i].hints["sound-name"], "message-new-instant");
        EXPECT_EQ(received[i].expireTimeout, c->expireTimeout);
        EXPECT_EQ(received[i].replacesId, 0u);
    }
    EXPECT_EQ(events, std::vector<std::string>(expected.size(), "notification"));
}

TEST_F(NotifierTest, BodyIsEscapedOnlyForServersThatReadMarkup) {
    server.reset(); // first, so that the new server owns the name at once
    server = std::make_unique<NotificationServer>(std::vector<std::string>{"actions", "body-markup"});
    startNotifier();
    notifier->notify(subject(UUID::random(), SessionStatus::waiting(), Request{"Bash", "a<b && c>d"}));
    EXPECT_EQ(awaitReceived(*server, 1).at(0).body, "Bash: a&lt;b &amp;&amp; c&gt;d");
}

TEST_F(NotifierTest, ASessionsNextNotificationReplacesItsLastOneUntilItIsCleared) {
    startNotifier();
    UUID a = UUID::random(), b = UUID::random();
    // Sent before any reply: the later ones of A wait for its id, and only the newest goes out.
    notifier->notify(subject(a, SessionStatus::waiting()));
    notifier->notify(subject(a, SessionStatus::idle()));
    notifier->notify(subject(a, SessionStatus::done()));
    notifier->notify(subject(b, SessionStatus::waiting()));
    auto received = awaitReceived(*server, 3);
    notifier->notify(subject(a, SessionStatus::failed(1)));
    received = awaitReceived(*server, 4);
    ASSERT_EQ(received.size(), 4u);
    EXPECT_EQ(received[0].replacesId, 0u);
    EXPECT_EQ(received[1].replacesId, 0u); // B is a session of its own
    EXPECT_NE(received[1].id, received[0].id);
    EXPECT_EQ(received[2].summary, "api has ended");
    EXPECT_EQ(received[2].replacesId, received[0].id);
    EXPECT_EQ(received[3].replacesId, received[0].id);

    // Clearing closes a notification, also one whose id is still on its way; the next one of that
    // session starts afresh.
    UUID c = UUID::random();
    notifier->clearDelivered(a);
    notifier->notify(subject(c, SessionStatus::waiting()));
    notifier->clearDelivered(c);
    ASSERT_TRUE(runUntil([&] { return server->closed().size() == 2; }));
    EXPECT_EQ(server->closed(), (std::vector<std::uint32_t>{received[0].id, server->received().at(4).id}));
    notifier->notify(subject(a, SessionStatus::idle()));
    EXPECT_EQ(awaitReceived(*server, 6).at(5).replacesId, 0u);
}

TEST_F(NotifierTest, OnlyASessionOnScreenInTheActiveApplicationCountsAsSeen) {
    struct Case {
        SessionVisibility visibility;
        Attention outcome;
    };
    const Case cases[] = {
        {{.selected = true, .applicationActive = true}, Attention::seen},
        {{.selected = true, .applicationActive = false}, Attention::pending},
        {{.selected = false, .applicationActive = true}, Attention::pending},
        {{.selected = false, .applicationActive = false}, Attention::pending},
    };
    startNotifier();
    SessionNotifications& store = *notifier;
    std::vector<std::string> expected;
    for (const Case& c : cases) {
        auto title =
            fmt::format("selected {} active {}", c.visibility.selected, c.visibility.applicationActive);
        EXPECT_EQ(store.attention({UUID::random(), title, SessionStatus::idle(), std::nullopt, "shop"},
                                  c.visibility),
                  c.outcome)
            << title;
        if (c.outcome == Attention::pending) expected.push_back(title + " is idle");
    }
    // A switch that holds the notification back still leaves the attention to the sidebar.
    settings.setBoolean("notif.type.idle", false);
    EXPECT_EQ(store.attention(subject(UUID::random(), SessionStatus::idle()), {}), Attention::pending);
    settings.remove("notif.type.idle");
    notifier->test();
    auto received = awaitReceived(*server, expected.size() + 1);
    std::vector<std::string> summaries;
    for (const auto& r : received)
        summaries.push_back(r.summary);
    expected.push_back("Ostrel notifications work");
    EXPECT_EQ(summaries, expected);
}

TEST_F(NotifierTest, AServerThatStopsAnsweringHoldsTheNextNotificationOnlyUntilTheCallTimesOut) {
    startNotifier({.callTimeout = 200ms});
    UUID a = UUID::random();
    server->leaveUnanswered(1);
    notifier->notify(subject(a, SessionStatus::waiting()));
    notifier->notify(subject(a, SessionStatus::idle())); // waits for the first one's id
    auto received = awaitReceived(*server, 2);
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].summary, "api is idle");
    EXPECT_EQ(received[1].replacesId, 0u); // the first id was never learnt
    notifier->clearDelivered(a);
    ASSERT_TRUE(runUntil([&] { return !server->closed().empty(); }));
    EXPECT_EQ(server->closed(), std::vector<std::uint32_t>{received[1].id});
}

TEST_F(NotifierTest, ALostBusIsSilentAndFoundAgain) {
    startNotifier({.reconnectDelay = 50ms});
    ASSERT_TRUE(notifier->available());
    UUID a = UUID::random();
    notifier->notify(subject(a, SessionStatus::waiting()));
    awaitReceived(*server, 1);
    bus.stop(); // the server is still there, but cut off with everyone else
    ASSERT_TRUE(runUntil([&] { return !notifier->available(); }));
    server.reset();
    notifier->notify(subject(a, SessionStatus::idle()));
    notifier->clearDelivered(a);
    context.run_for(200ms); // several failed attempts to connect again

    bus.start();
    server = std::make_unique<NotificationServer>(withActions);
    ASSERT_TRUE(runUntil([&] { return notifier->available(); }));
    notifier->notify(subject(a, SessionStatus::done()));
    auto received = awaitReceived(*server, 1);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].summary, "api has ended");
    EXPECT_EQ(received[0].replacesId, 0u); // the former server's ids mean nothing here
}

TEST_F(NotifierTest, OnlyTheServersSignalsAboutLiveSessionNotificationsAreAnswersOnTheLoopsThread) {
    startNotifier();
    UUID a = UUID::random(), b = UUID::random();
    notifier->notify(subject(a, SessionStatus::waiting()));
    notifier->notifyQuota({"Codex", "Weekly", 80, 75, std::nullopt, {}});
    notifier->notify(subject(b, SessionStatus::waiting()));
    auto received = awaitReceived(*server, 3);
    std::uint32_t idA = received[0].id, idQuota = received[1].id, idB = received[2].id;
    // Buttons and clicks reach the callbacks on the loop's thread. The server replies before it
    // signals: once these are back, every id is known.
    const std::pair<const char*, std::optional<Decision>> clicks[] = {
        {"ostrel.action.approve", Decision::approve},
        {"ostrel.action.deny", Decision::deny},
        {"default", std::nullopt},
        {"something-else", std::nullopt}};
    std::vector<Answer> expected;
    for (const auto& [action, decision] : clicks) {
        server->emitAction(idB, action);
        expected.push_back({b, decision, true});
    }
    ASSERT_TRUE(runUntil([&] { return answers.size() == expected.size(); }));
    EXPECT_EQ(answers, expected);
    answers.clear();

    // Another client impersonating the server; its round trip puts its signal ahead of the rest.
    sd_bus* stranger = nullptr;
    ASSERT_GE(sd_bus_open_user(&stranger), 0);
    sd_bus_emit_signal(stranger, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                       "ActionInvoked", "us", idA, "ostrel.action.approve");
    sd_bus_call_method(stranger, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "GetId", nullptr, nullptr, nullptr);
    sd_bus_flush_close_unref(stranger);

    server->emitAction(idQuota, "default");              // no session behind it
    server->emitAction(idB + 100, "ostrel.action.deny"); // not ours
    server->emitClosed(idA, 2);                          // dismissed: forgotten
    server->emitAction(idA, "ostrel.action.approve");
    server->emitAction(idB, "ostrel.action.deny");
    ASSERT_TRUE(runUntil([&] { return !answers.empty(); }));
    EXPECT_EQ(answers, (std::vector<Answer>{{b, Decision::deny, true}}));
    notifier->notify(subject(a, SessionStatus::idle()));
    EXPECT_EQ(awaitReceived(*server, 4).at(3).replacesId, 0u);
}

class NotifierWithoutService : public NotifierTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NotifierWithoutService, DropsEverythingUntilAServerWithActionsAppears) {
    server.reset();
    if (GetParam()) server = std::make_unique<NotificationServer>(std::vector<std::string>{"body"});
    startNotifier();
    EXPECT_FALSE(notifier->available());
    UUID a = UUID::random();
    notifier->notify(subject(a, SessionStatus::waiting()));
    notifier->notifyQuota({"Claude Code", "Session", 95, 90, std::nullopt, {}});
    notifier->notifyResumed("api");
    notifier->test();
    notifier->clearDelivered(a);
    if (server) server->stop();

    NotificationServer later(withActions);
    ASSERT_TRUE(runUntil([&] { return notifier->available(); }));
    notifier->notify(subject(UUID::random(), SessionStatus::done()));
    auto received = awaitReceived(later, 1);
    ASSERT_EQ(received.size(), 1u); // nothing was kept for later
    EXPECT_EQ(received[0].summary, "api has ended");
    EXPECT_TRUE(!server || server->received().empty());

    later.stop();
    EXPECT_TRUE(runUntil([&] { return !notifier->available(); }));
}

INSTANTIATE_TEST_SUITE_P(NoServerOrOneWithoutActions, NotifierWithoutService, ::testing::Bool());

TEST(NotifierWithoutBus, IsUnavailableAtOnceAndEveryCallIsSilent) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string savedRuntime = runtime != nullptr ? runtime : "";
    // Unset: a login without a session bus, where the bus would be the runtime folder's socket.
    for (const char* address : {"unix:path=/nonexistent/ostrel/bus", "not an address", "unset"}) {
        if (std::string_view(address) == "unset") {
            ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
            ::setenv("XDG_RUNTIME_DIR", "/nonexistent/ostrel/runtime", 1);
        } else {
            ::setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
        }
        asio::io_context context;
        Settings settings("/nonexistent/ostrel/settings.json");
        Notifier notifier(settings, context);
        EXPECT_FALSE(notifier.checking()) << address;
        EXPECT_FALSE(notifier.available()) << address;
        notifier.notify({UUID::random(), "api", SessionStatus::waiting(), std::nullopt, "shop"});
        notifier.clearDelivered(UUID::random());
        notifier.test();
        context.run_for(10ms); // only the next attempt to connect is pending
    }
    if (runtime != nullptr)
        ::setenv("XDG_RUNTIME_DIR", savedRuntime.c_str(), 1);
    else
        ::unsetenv("XDG_RUNTIME_DIR");
}

TEST_F(NotifierTest, SwitchesHoldBackTheirTypes) {
    struct Case {
        const char* key;
        std::vector<std::string> sent;
        std::size_t usageEvents; // one per session notification sent
    };
    const std::string waiting = "api is waiting for you", idle = "api is idle", done = "api has ended",
                      failed = "api failed (exit code 2)", quota = "Codex: Weekly is 90% used",
                      resumed = "api resumed after the rate limit", sample = "Ostrel notifications work";
    const Case cases[] = {
        {"notif.enabled", {sample}, 0},
        {"notif.type.waiting", {idle, done, failed, quota, resumed, sample}, 3},
        {"notif.type.idle", {waiting, done, failed, quota, resumed, sample}, 3},
        {"notif.type.done", {waiting, idle, failed, quota, resumed, sample}, 3},
        {"notif.type.failed", {waiting, idle, done, quota, resumed, sample}, 3},
        {"notif.type.quota", {waiting, idle, done, failed, sample}, 4},
    };
    startNotifier();
    std::size_t seen = 0;
    for (const Case& c : cases) {
        settings.setBoolean(c.key, false);
        events.clear();
        for (auto status : {SessionStatus::waiting(), SessionStatus::idle(), SessionStatus::done(),
                            SessionStatus::failed(2)})
            notifier->notify(subject(UUID::random(), status));
        notifier->notifyQuota({"Codex", "Weekly", 90, 90, std::nullopt, {}});
        notifier->notifyResumed("api");
        notifier->test(); // never held back
        auto received = awaitReceived(*server, seen + c.sent.size());
        // The quota, resumed and sample notifications replace last round's, so they may come late.
        std::vector<std::string> summaries;
        for (std::size_t i = seen; i < received.size(); ++i)
            summaries.push_back(received[i].summary);
        std::ranges::sort(summaries);
        auto expected = c.sent;
        std::ranges::sort(expected);
        EXPECT_EQ(summaries, expected) << c.key;
        EXPECT_EQ(events.size(), c.usageEvents) << c.key;
        seen = received.size();
        settings.remove(c.key);
    }
}

TEST_F(NotifierTest, QuotaWarningsReplaceEachOtherAndTellWhenTheWindowResets) {
    startNotifier();
    const auto now = std::chrono::system_clock::now();
    notifier->notifyQuota({"Claude Code", "Weekly", 75.9, 75, std::nullopt, now});
    notifier->notifyQuota({"Claude Code", "Weekly", 91, 90, now + 51h + 40min, now});
    notifier->notifyQuota({"Claude Code", "Session", 80, 75, now - 1min, now});
    auto received = awaitReceived(*server, 3);
    EXPECT_EQ(received[0].summary, "Claude Code: Weekly is 75% used");
    EXPECT_EQ(received[0].body, "75% of the window used.");
    EXPECT_EQ(received[1].summary, "Claude Code: Session is 75% used");
    EXPECT_EQ(received[1].body, "80% of the window used."); // a reset in the past is left out
    EXPECT_EQ(received[2].summary, "Claude Code: Weekly is 90% used");
    EXPECT_EQ(received[2].body, "91% of the window used. Resets in 2d 3h.");
    EXPECT_EQ(received[2].replacesId, received[0].id);
    EXPECT_TRUE(received[2].actions.empty());
}

TEST(NotificationStrings, EveryTranslationUsesEachValueOfItsEnglishText) {
    // A translation whose placeholders don't fit would quietly show the English text instead.
    for (const LocalizedText& entry : notificationStrings()) {
        const auto count = std::ranges::count(entry.en, '{');
        fmt::dynamic_format_arg_store<fmt::format_context> values;
        for (long i = 0; i < count; ++i)
            values.push_back(fmt::format("<{}>", i));
        for (std::string_view pattern : {entry.en, entry.fr, entry.de, entry.es, entry.pt}) {
            SCOPED_TRACE(std::string(entry.key) + ": " + std::string(pattern));
            EXPECT_FALSE(pattern.empty());
            std::string text;
            EXPECT_NO_THROW(text = fmt::vformat(pattern, values));
            for (long i = 0; i < count; ++i)
                EXPECT_NE(text.find(fmt::format("<{}>", i)), std::string::npos);
        }
    }
}

TEST(NotifierShortInterval, KeepsTheTwoLargestUnits) {
    struct Case {
        std::chrono::seconds interval;
        const char* text;
    };
    const Case cases[] = {
        {0s, "1m"},         {29s, "1m"},
        {90s, "2m"},        {59min, "59m"},
        {60min, "1h"},      {3h + 12min, "3h 12m"},
        {24h + 5min, "1d"}, {25h + 59min + 50s, "1d 2h"},
        {-5s, "1m"},
    };
    Localization::setCurrent(Language::en);
    for (const Case& c : cases)
        EXPECT_EQ(Notifier::shortInterval(c.interval), c.text) << c.interval.count();
    Localization::setCurrent(Language::fr);
    EXPECT_EQ(Notifier::shortInterval(51h + 40min), "2 j 3 h");
    Localization::setCurrent(Language::en);
}

} // namespace
} // namespace Ostrel
