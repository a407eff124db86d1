// Settings and whole-file writes in a temporary folder; localisation lookups.
#include "Ostrel/Settings.h"

#include "Ostrel/Localization.h"
#include "Ostrel/Paths.h"
#include "support/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace Ostrel {
namespace {

using OstrelTest::TemporaryFolder;

TEST(Settings, AbsentOrMistypedKeysTakeTheDefaultAndChangesSurviveAReload) {
    TemporaryFolder folder;
    std::string file = folder / "nested/settings.json";
    Settings settings(file);
    EXPECT_TRUE(settings.boolean("restore.enabled", true));
    EXPECT_FALSE(settings.boolean("sidebarHidden", false));
    settings.setBoolean("restore.enabled", false);
    settings.setString("remote.token", "abc");
    settings.setInteger("count", 3);
    Settings again(file);
    EXPECT_FALSE(again.boolean("restore.enabled", true));
    EXPECT_EQ(again.string("remote.token"), "abc");
    EXPECT_EQ(again.integer("count"), 3);
    EXPECT_EQ(again.integer("remote.token"), std::nullopt);
    EXPECT_TRUE(again.boolean("remote.token", true)); // a string is not a boolean
}

TEST(Settings, DamagedFileCountsAsEmptyAndIsReplacedAtTheNextChange) {
    TemporaryFolder folder;
    std::string file = folder / "settings.json";
    ASSERT_TRUE(Paths::writeFileAtomically(file, "{\"notif.enabled\": fal"));
    Settings settings(file);
    EXPECT_TRUE(settings.boolean("notif.enabled", true));
    settings.setBoolean("notif.enabled", false);
    auto text = Paths::readFile(file);
    ASSERT_TRUE(text);
    EXPECT_FALSE(nlohmann::json::parse(*text, nullptr, false).is_discarded());
}

TEST(Paths, AtomicWriteReplacesWholeAndLeavesNoTemporary) {
    TemporaryFolder folder;
    std::string file = folder / "state.json";
    ASSERT_TRUE(Paths::writeFileAtomically(file, "first"));
    ASSERT_TRUE(Paths::writeFileAtomically(file, "second"));
    EXPECT_EQ(Paths::readFile(file), "second");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
    EXPECT_FALSE(Paths::writeFileAtomically(folder / "missing/state.json", "x"));
}

TEST(Paths, ReadersTakeRegularFilesOnlyAndNeverBlock) {
    TemporaryFolder folder;
    std::string fifo = folder / "planted";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // A FIFO with no writer would block an ordinary open forever.
    EXPECT_FALSE(Paths::readFile(fifo));
    EXPECT_FALSE(Paths::readHead(fifo, 4096));
    EXPECT_FALSE(Paths::readTail(fifo, 4096));
    EXPECT_FALSE(Paths::readHead(folder.path(), 16));

    std::string file = folder / "small";
    ASSERT_TRUE(Paths::writeFileAtomically(file, "0123456789"));
    EXPECT_EQ(Paths::readHead(file, 4u << 20), "0123456789");
    EXPECT_EQ(Paths::readHead(file, 4), "0123");
    EXPECT_EQ(Paths::readTail(file, 3)->bytes, "789");
    EXPECT_FALSE(Paths::readFile(file, 9)); // over the limit
}

TEST(Localization, FallsBackToEnglishAndShowsUnknownKeys) {
    EXPECT_EQ(Localization::text("status.waiting", Language::fr), "En attente");
    EXPECT_EQ(Localization::text("status.waiting", Language::en), "Waiting");
    EXPECT_EQ(Localization::text("no.such.key", Language::de), "no.such.key");
    Localization::setCurrent(Language::de);
    EXPECT_EQ(Localization::format("status.failed", 3), "Fehlgeschlagen (3)");
    Localization::setCurrent(Language::en);
}

TEST(Localization, LanguageComesFromTheLocaleVariables) {
    struct Case {
        const char *all, *messages, *lang;
        Language expected;
    } cases[] = {
        {nullptr, nullptr, "fr_FR.UTF-8", Language::fr},
        {"de_DE.UTF-8", nullptr, "fr_FR.UTF-8", Language::de},
        {nullptr, "pt_BR", "es_ES", Language::pt},
        {nullptr, nullptr, "C.UTF-8", Language::en},
        {nullptr, nullptr, nullptr, Language::en},
    };
    for (const auto& c : cases) {
        for (auto [name, value] :
             {std::pair{"LC_ALL", c.all}, {"LC_MESSAGES", c.messages}, {"LANG", c.lang}}) {
            if (value)
                ::setenv(name, value, 1);
            else
                ::unsetenv(name);
        }
        EXPECT_EQ(Localization::languageFromEnvironment(), c.expected);
    }
}

} // namespace
} // namespace Ostrel
