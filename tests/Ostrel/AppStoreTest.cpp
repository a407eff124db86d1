// The workspace store in a temporary HOME with real sessions: the state file and its damage, restore
// by pane slot, the quit flow, pane operations, attention, branches and usage events.
#include "Ostrel/AppStore.h"

#include "Ostrel/GitBranch.h"
#include "Ostrel/Paths.h"
#include "Ostrel/SettingKeys.h"
#include "WorkspaceHarness.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace Testing;
using OstrelCore::PaneAxis;
using OstrelCore::PaneDropZone;
using OstrelCore::PaneNode;

// Axes and fractions only: what survives a save.
std::string shape(const PaneNode& node) {
    if (node.isLeaf()) return "leaf";
    const auto& split = *node.asSplit();
    std::string text = std::string(OstrelCore::rawValue(split.axis)) + "(";
    for (std::size_t i = 0; i < split.children.size(); ++i)
        text += fmt::format("{}{}:{}", i ? "," : "", split.fractions[i], shape(split.children[i]));
    return text + ")";
}

class AppStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<AppStore> makeStore() {
        AppStore::Options options;
        options.prewarmLoginEnvironment = false;
        auto store = std::make_unique<AppStore>(statePath, settings, options);
        store->setPaneArea({1600, 1000});
        return store;
    }
    std::optional<nlohmann::json> stateFile() const {
        auto text = Paths::readFile(statePath);
        if (!text) return std::nullopt;
        return nlohmann::json::parse(*text, nullptr, false);
    }
    static AppStore::StartOptions command(std::string text) { return {std::move(text)}; }
    std::string folder(const std::string& name) const {
        std::filesystem::create_directories(home / name);
        return home / name;
    }

    TemporaryHome home;
    MainLoop main;
    std::string statePath = Paths::dataFolder() + "/state.json";
    Settings settings{Paths::configFolder() + "/settings.json"};
};

TEST_F(AppStoreTest, DamagedOrPartialStateFilesLoadWhatTheyCanAndAreKeptUntilTheNextSave) {
    const std::string first = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                      second = "0A1B2C3D-4E5F-4061-8071-2A3B4C5D6E7F";
    const auto project = [](const std::string& id, const std::string& name) {
        return R"({"id":")" + id + R"(","name":")" + name + R"(","path":"/)" + name + R"(","colorIndex":0})";
    };
    const std::string both = "[" + project(first, "a") + "," + project(second, "b") + "]";
    struct Case {
        const char* name;
        std::string text;
        std::size_t projects;
        std::optional<std::string> selected;
    };
    const Case cases[] = {
        {"undecodable", "{\"projects\": [" + project(first, "a"), 0, std::nullopt},
        {"damaged layout", R"({"projects":)" + both + R"(,"layouts":[")" + first + R"(",{"leaf":{}}]})", 0,
         std::nullopt},
        {"only projects", R"({"projects":)" + both + "}", 2, first},
        {"saved selection", R"({"projects":)" + both + R"(,"selectedProjectID":")" + second + R"("})", 2,
         second},
        {"selection of a removed project",
         R"({"projects":)" + both + R"(,"selectedProjectID":"11111111-2222-4333-8444-555555555555"})", 2,
         first},
    };
    for (const Case& c : cases) {
        Paths::ensureFolder(Paths::dataFolder());
        ASSERT_TRUE(Paths::writeFileAtomically(statePath, c.text));
        auto store = makeStore();
        store->launch();
        EXPECT_EQ(store->projects().size(), c.projects) << c.name;
        EXPECT_EQ(store->selectedProjectID() ? std::optional(store->selectedProjectID()->uuidString())
                                             : std::nullopt,
                  c.selected)
            << c.name;
        EXPECT_EQ(Paths::readFile(statePath), c.text) << c.name; // loading never writes
        store->save();
        EXPECT_TRUE(SavedState::decode(*Paths::readFile(statePath))) << c.name;
    }
}

TEST_F(AppStoreTest, AnEmptyStartSavesOnItsFirstChangeAndReadsBackWithItsShapesButNotItsIds) {
    UUID webID, apiID;
    std::string webShape;
    {
        auto store = makeStore();
        store->launch();
        EXPECT_TRUE(store->projects().empty() && store->sessions().empty());
        EXPECT_FALSE(store->selectedProjectID() || store->selectedSessionID());
        EXPECT_FALSE(stateFile()); // no state file: nothing is written until the first change
        const Project web = store->addProject(folder("web"));
        EXPECT_EQ(store->addProject(folder("web")), web);
        EXPECT_EQ(web.name, "web");
        webID = web.id;
        apiID = store->addProject(folder("api")).id;
        EXPECT_EQ(store->projects()[1].colorIndex, 1);
        ASSERT_TRUE(stateFile());
        EXPECT_EQ(stateFile()->at("projects").size(), 2u);
        store->renameProject(webID, "  Web site\n");
        store->renameProject(webID, "   ");
        store->setProjectColor(apiID, 4);
        const UUID leaf = store->ensureLayout(webID).leafIDs().front();
        store->split(leaf, PaneAxis::vertical, webID);
        store->split(leaf, PaneAxis::vertical, webID);
        store->saveTemplate("three rows", webID);
        store->setCollapsed(apiID, true);
        store->selectProject(apiID);
        webShape = shape(store->layouts().at(webID));
    }
    auto store = makeStore();
    EXPECT_EQ(store->projects().size(), 2u);
    EXPECT_EQ(store->projects()[0].name, "Web site");
    EXPECT_EQ(store->projects()[1].colorIndex, 4);
    EXPECT_EQ(store->selectedProjectID(), apiID);
    EXPECT_EQ(store->collapsedProjects(), std::set<UUID>{apiID});
    ASSERT_EQ(store->templates().size(), 1u);
    EXPECT_EQ(shape(store->templates()[0].node), webShape);
    EXPECT_EQ(shape(store->layouts().at(webID)), "vertical(0.25:leaf,0.25:leaf,0.5:leaf)");
    EXPECT_FALSE(store->layouts().at(webID).containsID(store->templates()[0].node.id()));
}

TEST_F(AppStoreTest, QuitSavesAliveSessionsAndTheNextLaunchPutsThemBackInTheirPanesUnlessRestoreIsOff) {
    UUID projectID;
    {
        auto store = makeStore();
        store->launch();
        projectID = store->addProject(folder("web")).id;
        auto service = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
        auto shell =
            store->startSession(SessionKind::shell, projectID, {.title = "my shell", .tintIndex = 2});
        auto finished = store->startSession(SessionKind::service, projectID, command("exit 0"));
        ASSERT_TRUE(main.runUntil([&] { return finished->hasExited(); }));
        shell->zoom(2);
        const auto leaves = store->layouts().at(projectID).leafIDs();
        ASSERT_EQ(leaves.size(), 3u);
        store->swapPanes(leaves[0], leaves[1], projectID); // the shell now comes first
        store->select(service);

        bool replied = false;
        store->onQuitReply = [&](bool quit) { replied = quit; };
        EXPECT_EQ(store->applicationShouldTerminate(), AppStore::TerminateReply::later);
        EXPECT_EQ(store->applicationShouldTerminate(), AppStore::TerminateReply::cancel);
        store->resolveQuit(true);
        EXPECT_TRUE(replied);
        store->shutdown();
    }
    const auto saved = stateFile();
    ASSERT_TRUE(saved);
    const auto& records = saved->at("restorable");
    ASSERT_EQ(records.size(), 2u);
    ASSERT_EQ(records[1].size(), 2u); // the finished service isn't kept
    EXPECT_EQ(records[1][0].at("command"), "exec sleep 30");
    EXPECT_EQ(records[1][0].at("visibleSlot"), 1);
    EXPECT_EQ(records[1][1].at("visibleSlot"), 0);
    EXPECT_FALSE(records[1][1].contains("command"));

    auto store = makeStore();
    ASSERT_EQ(store->pendingRestore().size(), 1u);
    store->launch();
    EXPECT_TRUE(store->pendingRestore().empty());
    ASSERT_EQ(store->sessions().size(), 2u);
    const auto& tree = store->layouts().at(projectID);
    const auto leaves = tree.leafIDs();
    const auto& service = store->sessions()[0];
    const auto& shell = store->sessions()[1];
    EXPECT_EQ(tree.session(leaves[1]), service->id());
    EXPECT_EQ(tree.session(leaves[0]), shell->id());
    EXPECT_EQ(shell->userTitle(), "my shell");
    EXPECT_EQ(shell->tintIndex(), 2);
    EXPECT_EQ(shell->fontSize(), 13.0);
    EXPECT_EQ(shell->cwd(), home / "web");
    EXPECT_EQ(store->selectedSessionID(), shell->id()); // the first pane of the selected project
    EXPECT_EQ(store->usageCounts().at("service"), 2);   // restores aren't counted as starts
    store->shutdown();
    store.reset();

    // Restore turned off: nothing comes back, and the next save drops the records.
    ASSERT_EQ(stateFile()->at("restorable").size(), 2u);
    settings.setBoolean(SettingKeys::restoreEnabled.key, false);
    store = makeStore();
    store->launch();
    EXPECT_TRUE(store->sessions().empty());
    store->save();
    EXPECT_TRUE(stateFile()->at("restorable").empty());
}

// Slots were counted among occupied panes and are used among all panes: with empty panes before
// the occupied ones a session comes back in an earlier pane. A slot past the last pane gives none,
// and the records of a project that is gone are dropped.
TEST_F(AppStoreTest, RestoreUsesSlotsAmongAllPanesAndDropsRecordsOfRemovedProjects) {
    const std::string project = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                      removed = "0A1B2C3D-4E5F-4061-8071-2A3B4C5D6E7F";
    const auto leaf = [](const char* id) { return std::string(R"({"leaf":{"id":")") + id + R"("}})"; };
    const auto record = [](int slot) {
        return R"({"kind":"service","title":"s)" + std::to_string(slot) +
               R"(","command":"exec sleep 30","fontSize":11,"visibleSlot":)" + std::to_string(slot) + "}";
    };
    const std::string text =
        R"({"projects":[{"id":")" + project + R"(","name":"web","path":")" + folder("web") +
        R"(","colorIndex":0}],"layouts":[")" + project +
        R"(",{"split":{"id":"11111111-1111-4111-8111-111111111111","axis":"horizontal","children":[)" +
        leaf("22222222-2222-4222-8222-222222222222") + "," + leaf("33333333-3333-4333-8333-333333333333") +
        R"(],"fractions":[0.5,0.5]}}],"restorable":[")" + project + R"(",[)" + record(1) + "," + record(5) +
        R"(],")" + removed + R"(",[)" + record(0) + "]]}";
    Paths::ensureFolder(Paths::dataFolder());
    ASSERT_TRUE(Paths::writeFileAtomically(statePath, text));
    auto store = makeStore();
    store->launch();
    ASSERT_EQ(store->sessions().size(), 2u);
    const auto& tree = store->layouts().at(*UUID::parse(project));
    EXPECT_EQ(tree.sessionIDs(), std::vector<UUID>{store->sessions()[0]->id()});
    EXPECT_EQ(tree.session(tree.leafIDs()[1]), store->sessions()[0]->id());
    EXPECT_EQ(store->sessions()[1]->userTitle(), "s5"); // alive, without a pane
    store->shutdown();
}

TEST_F(AppStoreTest, ResumeCommandsQuoteTheSessionIdForTheShell) {
    struct Case {
        SessionKind kind;
        std::string command;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {SessionKind::claude, "claude --resume \"it's\"", "claude --resume 'it'\\''s'"},
        {SessionKind::claude, "claude", std::nullopt},
        {SessionKind::service, "npm run dev", "npm run dev"},
    };
    // The commands are only read here: the sessions run /bin/true. Each agent's forms are the
    // resume command reader's own tests.
    AppStore::Options options;
    options.prewarmLoginEnvironment = false;
    options.session.shell = "/bin/true";
    AppStore store(statePath, settings, options);
    const UUID projectID = store.addProject(folder("web")).id;
    for (const Case& c : cases) {
        auto session = store.startSession(c.kind, projectID, command(c.command));
        EXPECT_EQ(AppStore::resumeCommand(*session), c.expected) << c.command;
    }
}

TEST_F(AppStoreTest, SessionsArePlacedSplitDroppedAndLaidOutByTemplate) {
    auto store = makeStore();
    const UUID projectID = store->addProject(folder("web")).id;
    auto first = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
    auto second = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
    EXPECT_EQ(shape(store->layouts().at(projectID)), "horizontal(0.5:leaf,0.5:leaf)");
    EXPECT_EQ(store->selectedSessionID(), second->id());

    // The launcher's empty pane gets the next session.
    const UUID leaf = store->layouts().at(projectID).leaf(first->id()).value();
    store->split(leaf, PaneAxis::vertical, projectID);
    const UUID empty = store->layouts().at(projectID).firstEmptyLeaf().value();
    store->setPendingPane(projectID, empty);
    auto third = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
    EXPECT_EQ(store->layouts().at(projectID).session(empty), third->id());
    EXPECT_FALSE(store->pendingPane());

    // Dropped on the right edge of the first pane, the third moves there and its pane closes.
    store->drop(*third, leaf, PaneDropZone::trailing);
    const auto& tree = store->layouts().at(projectID);
    EXPECT_EQ(tree.sessionIDs(), (std::vector<UUID>{first->id(), third->id(), second->id()}));
    EXPECT_EQ(store->focusedLeaf(projectID), tree.leaf(third->id()));

    // A template with fewer panes than sessions leaves the last one without a pane, alive.
    PaneNode two = PaneNode::emptyLeaf();
    two = two.splitting(two.id(), PaneAxis::vertical);
    store->applyTemplate(OstrelCore::PaneTemplate::make("two", two), projectID);
    EXPECT_EQ(store->layouts().at(projectID).sessionIDs(), (std::vector<UUID>{first->id(), second->id()}));
    EXPECT_TRUE(third->status().isAlive());

    // With no room left to split, a new session takes over the focused pane.
    store->setPaneArea({500, 100});
    auto fourth = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
    EXPECT_EQ(store->layouts().at(projectID).leafIDs().size(), 2u);
    EXPECT_EQ(store->layouts().at(projectID).sessionIDs(), (std::vector<UUID>{fourth->id(), second->id()}));

    // Closing every pane leaves one empty pane.
    for (const UUID& pane : store->layouts().at(projectID).leafIDs())
        store->closePane(pane, projectID);
    EXPECT_EQ(shape(store->layouts().at(projectID)), "leaf");

    store->close(fourth);
    EXPECT_EQ(store->selectedSessionID(), third->id()); // the last in creation order
    store->select(first);
    store->close(second);
    EXPECT_EQ(store->selectedSessionID(), first->id()); // another's close keeps the selection
    store->close(first);
    store->close(third);
    EXPECT_FALSE(store->selectedSessionID());
}

// Records what the store hands over; a session is "seen" when it is on screen in the active
// application, as the real notifier decides.
class RecordingNotifications final : public SessionNotifications {
public:
    Attention attention(const NotificationSubject& subject, SessionVisibility visibility) override {
        subjects.push_back(subject);
        visibilities.push_back(visibility);
        return visibility.selected && visibility.applicationActive ? Attention::seen : Attention::pending;
    }
    void clearDelivered(const UUID& sessionID) override { cleared.push_back(sessionID); }
    void notifyResumed(std::string_view) override {}

    std::vector<NotificationSubject> subjects;
    std::vector<SessionVisibility> visibilities;
    std::vector<UUID> cleared;
};

TEST_F(AppStoreTest, AttentionGoesToTheNotifierThatDecidesWhetherTheSessionWasSeen) {
    auto store = makeStore();
    RecordingNotifications notifications;
    store->setNotifications(&notifications);
    const UUID projectID = store->addProject(folder("web")).id;
    auto background = store->startSession(SessionKind::service, projectID, command("exit 4"));
    auto selected = store->startSession(SessionKind::service, projectID, command("exit 5"));
    ASSERT_TRUE(main.runUntil([&] { return background->hasExited() && selected->hasExited(); }));
    ASSERT_EQ(notifications.subjects.size(), 2u);
    for (const auto& subject : notifications.subjects) {
        EXPECT_EQ(subject.projectName, "web");
        EXPECT_EQ(subject.displayTitle, "Service");
    }
    const std::size_t first = notifications.subjects[0].sessionID == background->id() ? 0 : 1;
    EXPECT_EQ(notifications.subjects[first].status, SessionStatus::failed(4));
    EXPECT_FALSE(notifications.visibilities[first].selected);
    EXPECT_TRUE(background->needsAttention());
    EXPECT_FALSE(selected->needsAttention());
    EXPECT_EQ(store->attentionCount(), 1u);

    // A click on the notification brings its session up; closing a session takes its
    // notification away.
    notifications.onReveal(background->id());
    EXPECT_EQ(store->selectedSessionID(), background->id());
    EXPECT_FALSE(background->needsAttention());
    notifications.onReveal(UUID::random()); // gone: nothing happens
    store->close(background);
    EXPECT_EQ(notifications.cleared, std::vector<UUID>{background->id()});

    store->setApplicationActive(false);
    EXPECT_FALSE(store->branchTimerRunning());
    auto later = store->startSession(SessionKind::service, projectID, command("exit 6"));
    ASSERT_TRUE(main.runUntil([&] { return later->hasExited(); }));
    EXPECT_TRUE(notifications.visibilities.back().selected);
    EXPECT_FALSE(notifications.visibilities.back().applicationActive);
    EXPECT_TRUE(later->needsAttention());
    // Nothing alive: quitting needs no confirmation.
    EXPECT_EQ(store->applicationShouldTerminate(), AppStore::TerminateReply::now);
    store->setNotifications(nullptr);
    EXPECT_FALSE(notifications.onReveal);
}

TEST_F(AppStoreTest, BranchesAreReadFromGitFilesAndAFailedReadKeepsTheLastOne) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::optional<std::string> branch;
    };
    const Case cases[] = {
        {"branch", {{".git/HEAD", "ref: refs/heads/feature/x\n"}}, "feature/x"},
        {"detached head", {{".git/HEAD", "0123456789abcdef0123456789abcdef01234567\n"}}, "0123456"},
        {"linked worktree",
         {{".git", "gitdir: ../main/.git/worktrees/wt\n"},
          {"../main/.git/worktrees/wt/HEAD", "ref: refs/heads/wt\n"}},
         "wt"},
        {"bad pointer", {{".git", "nonsense"}}, std::nullopt},
        {"no HEAD", {{".git/config", ""}}, std::nullopt},
        {"no repository", {}, std::nullopt},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string project = "repos/" + std::to_string(n++) + "/p";
        std::filesystem::create_directories(home / project);
        for (const auto& [name, content] : c.files)
            home.write(project + "/" + name, content);
        EXPECT_EQ(GitBranch::read(home / project), c.branch) << c.name;
    }

    home.write("app/.git/HEAD", "ref: refs/heads/main\n");
    auto store = makeStore();
    store->launch();
    const UUID projectID = store->addProject(home / "app").id;
    ASSERT_TRUE(main.runUntil([&] { return store->gitBranches().count(projectID) > 0; }));
    EXPECT_EQ(store->gitBranches().at(projectID), "main");
    std::filesystem::remove(home / "app/.git/HEAD");
    store->refreshBranches();
    main.runFor(200ms);
    EXPECT_EQ(store->gitBranches().at(projectID), "main");
}

TEST_F(AppStoreTest, FormerDataFolderMovesOnlyWhenTheCurrentOneIsMissing) {
    const std::string current = home / "share/Ostrel", former = home / "share/Tessaly";
    home.write("share/Tessaly/state.json", "old");
    AppStore::moveFormerDataFolder(current);
    EXPECT_EQ(home.read("share/Ostrel/state.json"), "old");
    EXPECT_FALSE(std::filesystem::exists(former));
    home.write("share/Tessaly/state.json", "older");
    AppStore::moveFormerDataFolder(current);
    EXPECT_EQ(home.read("share/Ostrel/state.json"), "old");
    EXPECT_EQ(home.read("share/Tessaly/state.json"), "older");
}

TEST_F(AppStoreTest, UsageEventsAreWrittenLocallyOnlyWhileTelemetryIsOn) {
    auto store = makeStore();
    const std::string log = store->usageEvents().path();
    settings.setBoolean(SettingKeys::telemetryEnabled.key, false);
    store->addProject(folder("quiet"));
    EXPECT_FALSE(std::filesystem::exists(log));
    settings.remove(SettingKeys::telemetryEnabled.key);
    const UUID projectID = store->addProject(folder("web")).id;
    auto session = store->startSession(SessionKind::service, projectID, command("exec sleep 30"));
    store->close(session);
    std::vector<std::string> events;
    std::istringstream lines(*Paths::readFile(log));
    for (std::string line; std::getline(lines, line);) {
        auto json = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(json.is_object()) << line;
        events.push_back(json.at("event").get<std::string>() +
                         (json.contains("kind") ? ":" + json.at("kind").get<std::string>() : ""));
    }
    EXPECT_EQ(events, (std::vector<std::string>{"project_add", "peak_usage", "peak_usage",
                                                "session_duration:service", "session_close:service"}));
}

} // namespace
} // namespace Ostrel
