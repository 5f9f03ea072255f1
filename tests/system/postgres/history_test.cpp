// Histories made by hand, of which it is known whether one registry can have told them.
#include <gtest/gtest.h>

#include <tests/system/postgres/history.h>

using namespace velia::system_test;

namespace {

using Kind = Operation::Kind;
using Answer = Operation::Answer;
using History = std::vector<Operation>;

struct At {
    int64_t begin_us;
    int64_t end_us;
};

Operation add(uint32_t value, At at, Answer answer = Answer::done) {
    return {Kind::add, answer, 1, value, 0, at.begin_us, at.end_us};
}
Operation removed(uint32_t value, At at, Answer answer = Answer::done) {
    return {Kind::remove, answer, 1, value, 0, at.begin_us, at.end_us};
}
Operation look_up(uint32_t value, At at) {
    return {Kind::look_up, Answer::done, 1, value, 0, at.begin_us, at.end_us};
}

} // namespace

TEST(History, OneAfterTheOtherIsLinearizable) {
    EXPECT_TRUE(is_linearizable(History{}));
    EXPECT_TRUE(is_linearizable(History{look_up(0, {0, 1}), add(7, {2, 3}), look_up(7, {4, 5}), removed(7, {6, 7}),
                                        look_up(0, {8, 9}), add(8, {10, 11}), look_up(8, {12, 13})}));
}

TEST(History, AnAcknowledgedAddThatIsNotFoundAfterwardsIsNot) {
    EXPECT_FALSE(is_linearizable(History{add(7, {0, 1}), look_up(0, {2, 3})}));
}

TEST(History, AReadAmidAnAddMayFindItOrNot) {
    EXPECT_TRUE(is_linearizable(History{add(7, {0, 9}), look_up(0, {2, 3}), look_up(7, {4, 5})}));
    EXPECT_FALSE(is_linearizable(History{add(7, {0, 9}), look_up(7, {2, 3}), look_up(0, {4, 5})}));
}

TEST(History, WhatWasNeverAddedIsNotFound) {
    EXPECT_FALSE(is_linearizable(History{look_up(7, {0, 1})}));
    EXPECT_FALSE(is_linearizable(History{look_up(7, {0, 1}), add(7, {2, 3})}));
}

TEST(History, AnAddThatWasMadeAndIsSaidToBeRefusedIsNot) {
    EXPECT_FALSE(is_linearizable(History{add(7, {0, 1}, Answer::refused), look_up(7, {2, 3})}));
    EXPECT_FALSE(is_linearizable(History{add(7, {0, 1}, Answer::refused)}));
    EXPECT_TRUE(is_linearizable(History{add(6, {0, 1}), add(7, {2, 3}, Answer::refused), look_up(6, {4, 5})}));
}

TEST(History, TwoAddsAtOnceAreNot) {
    EXPECT_FALSE(is_linearizable(History{add(6, {0, 9}), add(7, {0, 9})}));
    EXPECT_TRUE(is_linearizable(History{add(6, {0, 9}), add(7, {0, 9}), removed(7, {0, 9})}));
    EXPECT_FALSE(is_linearizable(History{add(6, {0, 9}), add(7, {0, 9}), removed(7, {10, 11}), look_up(7, {12, 13})}));
}

TEST(History, ARemovalIsOfItsOwnValue) {
    EXPECT_FALSE(is_linearizable(History{add(6, {0, 1}), removed(7, {2, 3})}));
    EXPECT_TRUE(is_linearizable(History{add(6, {0, 1}), removed(7, {2, 3}, Answer::refused)}));
    EXPECT_FALSE(is_linearizable(History{add(6, {0, 1}), removed(6, {2, 3}, Answer::refused)}));
    EXPECT_FALSE(is_linearizable(History{add(6, {0, 1}), removed(6, {2, 3}), removed(6, {4, 5})}));
}

TEST(History, WhatIsUncertainWasDoneAtAnyTimeAfterItsBeginningOrNever) {
    const Operation maybe = add(7, {2, 3}, Answer::uncertain);
    EXPECT_TRUE(is_linearizable(History{maybe}));
    EXPECT_TRUE(is_linearizable(History{maybe, look_up(0, {4, 5})}));
    EXPECT_TRUE(is_linearizable(History{maybe, look_up(7, {4, 5})}));
    EXPECT_TRUE(is_linearizable(History{maybe, look_up(0, {4, 5}), look_up(7, {6, 7})}));
    EXPECT_FALSE(is_linearizable(History{maybe, look_up(7, {4, 5}), look_up(0, {6, 7})}));
    EXPECT_FALSE(is_linearizable(History{look_up(7, {0, 1}), maybe}));
}

TEST(History, WhatIsUncertainWasDoneOnceAtMost) {
    const Operation maybe = add(7, {0, 1}, Answer::uncertain);
    EXPECT_FALSE(is_linearizable(History{maybe, look_up(7, {2, 3}), removed(7, {4, 5}), look_up(7, {6, 7})}));
    const Operation gone = removed(7, {2, 3}, Answer::uncertain);
    EXPECT_TRUE(is_linearizable(History{add(7, {0, 1}), gone, look_up(7, {4, 5}), look_up(0, {6, 7})}));
    EXPECT_FALSE(is_linearizable(History{add(7, {0, 1}), gone, look_up(0, {4, 5}), look_up(7, {6, 7})}));
}

TEST(History, ManyUncertainOnesAreJudgedToo) {
    History history;
    for (uint32_t i = 0; i < 12; ++i)
        history.push_back(add(100 + i, {0, 1}, Answer::uncertain));
    for (uint32_t i = 0; i < 11; ++i) {
        history.push_back(look_up(100 + i, {10 + 10 * i, 11 + 10 * i}));
        history.push_back(removed(100 + i, {12 + 10 * i, 13 + 10 * i}));
    }
    EXPECT_TRUE(is_linearizable(history));
    history.push_back(look_up(100, {1000, 1001}));
    EXPECT_FALSE(is_linearizable(history));
}

TEST(History, AKeyThatIsAtFaultIsFoundAmongOthers) {
    History history = {add(7, {0, 1}), look_up(7, {2, 3})};
    for (Operation other : {add(8, {0, 1}), look_up(0, {2, 3})}) {
        other.key = 2;
        history.push_back(other);
    }
    const Finding finding = judge(history);
    EXPECT_EQ(finding.operations, 4u);
    EXPECT_EQ(finding.keys, 2u);
    EXPECT_TRUE(finding.fault.starts_with("key 2:")) << finding.fault;
    history.pop_back();
    EXPECT_EQ(judge(history).fault, "");
}

TEST(History, TwoAddsOnOneStampAreAFault) {
    History history = {add(7, {0, 1}), add(8, {0, 1})};
    history[1].key = 2;
    history[0].stamp = 5;
    history[1].stamp = 6;
    EXPECT_EQ(judge(history).fault, "");
    history[1].stamp = 5;
    EXPECT_EQ(judge(history).fault, "two adds were made on one stamp");
    history[1].answer = Answer::refused;
    EXPECT_NE(judge(history).fault, "two adds were made on one stamp");
}
