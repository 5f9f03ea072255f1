// Whose turn of a site may hold a master's updates, and until when.
#include <gtest/gtest.h>

#include <string>

#include <server/registry/update_hold.h>

using namespace velia::server;

namespace {

constexpr int64_t now = 1000;

TEST(UpdateHold, LastsUntilItsMoment) {
    UpdateHold hold;
    EXPECT_EQ(hold.host(now), std::nullopt);
    EXPECT_TRUE(hold.take("beta#1", now, now + 10));
    EXPECT_EQ(hold.host(now + 9), "beta");
    EXPECT_EQ(hold.host(now + 10), std::nullopt);
    EXPECT_TRUE(hold.is_held_by("beta#1", now + 9));
    EXPECT_FALSE(hold.is_held_by("beta#1", now + 10));
    EXPECT_FALSE(hold.is_held_by("beta#2", now));
    EXPECT_TRUE(hold.take("beta#1", now + 5, now + 20));
    EXPECT_EQ(hold.host(now + 19), "beta");
    hold.clear();
    EXPECT_EQ(hold.host(now), std::nullopt);
}

TEST(UpdateHold, IsOfTurnsToOneHost) {
    UpdateHold hold;
    EXPECT_TRUE(hold.take("beta#1", now, now + 10));
    for (const char *turn : {"gamma#2", "gamma", ""}) {
        EXPECT_FALSE(hold.take(turn, now + 9, now + 100)) << turn;
        EXPECT_FALSE(hold.release(turn, now + 9)) << turn;
    }
    EXPECT_TRUE(hold.take("BETA#2", now + 9, now + 11)) << "hosts have no case";
    EXPECT_FALSE(hold.take("gamma#2", now + 10, now + 100)) << "the second one lasts";
    EXPECT_TRUE(hold.take("gamma#2", now + 11, now + 100)) << "they are over";
    EXPECT_EQ(hold.host(now + 11), "gamma");
}

// A tool that names no host is of before turns had names.
TEST(UpdateHold, WithoutANameIsATurnByItself) {
    UpdateHold hold;
    EXPECT_TRUE(hold.take("", now, now + 10));
    EXPECT_TRUE(hold.take("", now + 1, now + 11));
    EXPECT_FALSE(hold.take("beta#1", now + 1, now + 11));
    EXPECT_TRUE(hold.release("", now + 1));
    EXPECT_TRUE(hold.take("beta#1", now + 1, now + 11));
}

// Of two to one host, one that fails does not let updates in between what the other has copied and its promotion.
TEST(UpdateHold, EndsWithTheLastOfItsTurns) {
    UpdateHold hold;
    EXPECT_TRUE(hold.take("beta#1", now, now + 10));
    EXPECT_TRUE(hold.take("beta#2", now, now + 10));
    EXPECT_TRUE(hold.release("beta#1", now));
    EXPECT_EQ(hold.host(now), "beta");
    EXPECT_TRUE(hold.release("beta#3", now)) << "which holds nothing";
    EXPECT_EQ(hold.host(now), "beta");
    EXPECT_TRUE(hold.release("beta#2", now));
    EXPECT_EQ(hold.host(now), std::nullopt);
}

TEST(UpdateHold, HasABoundOnTurnsThatWereKilled) {
    UpdateHold hold;
    int taken = 0;
    while (taken < 1000 && hold.take("beta#" + std::to_string(taken), now, now + 10))
        ++taken;
    EXPECT_EQ(taken, 64);
    EXPECT_TRUE(hold.take("beta#0", now, now + 20)) << "one that is known";
    EXPECT_TRUE(hold.take("beta#new", now + 10, now + 20)) << "the others are over";
}

} // namespace
