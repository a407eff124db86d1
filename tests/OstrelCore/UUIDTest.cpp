// UUID text form, parsing, version bits and hashing.
#include "OstrelCore/UUID.h"

#include <unordered_set>

#include <gtest/gtest.h>

using OstrelCore::UUID;

TEST(UUID, ParsingAcceptsTheCanonicalFormInEitherCaseOnly) {
    const std::pair<const char*, bool> cases[] = {
        {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", true},     {"e621E1F8-c36C-495a-93Fc-0C247a3E6e5F", true},
        {"E621E1F8C36C495A93FC0C247A3E6E5F", false},        {"{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", false},
        {" E621E1F8-C36C-495A-93FC-0C247A3E6E5F", false},   {"E621E1F8-C36C-495A-93FC-0C247A3E6E5", false},
        {"E621E1F8-C36C495A-93FC-0C247A3E6E5F0", false},    {"G621E1F8-C36C-495A-93FC-0C247A3E6E5F", false},
        {"E621E1F8-C36C-495A-93FC-0C247A3E6E5\xC3", false}, {"", false},
    };
    for (const auto& [text, valid] : cases)
        EXPECT_EQ(UUID::parse(text).has_value(), valid) << text;
    EXPECT_EQ(UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f")->uuidString(),
              "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
}

TEST(UUID, RandomIdsAreVersionFourDistinctAndReadBack) {
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 10000; ++i) {
        const UUID uuid = UUID::random();
        EXPECT_EQ(uuid.bytes[6] >> 4, 4);
        EXPECT_EQ(uuid.bytes[8] & 0xC0, 0x80);
        EXPECT_EQ(UUID::parse(uuid.uuidString()), uuid);
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 10000u);
}

TEST(UUID, OrderingFollowsTheBytesAndCounterIdsHashApart) {
    EXPECT_LT(UUID::parse("00000000-0000-0000-0000-0000000000FF"),
              UUID::parse("01000000-0000-0000-0000-000000000000"));
    // Hand-made ids (nil, counters) differ in one byte only; they mustn't share a hash.
    std::unordered_set<std::size_t> hashes;
    for (int i = 0; i < 256; ++i) {
        UUID uuid;
        uuid.bytes[15] = static_cast<std::uint8_t>(i);
        hashes.insert(std::hash<UUID>{}(uuid));
    }
    EXPECT_EQ(hashes.size(), 256u);
}
