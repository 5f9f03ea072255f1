// Jobs behind others: what it costs is counted, since thousands may be behind one.
#include <server/scheduler/followers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using velia::server::Followers;

namespace {

size_t compared = 0;

struct CountedId {
    sched_job_id_t number;
    bool operator<(const CountedId &other) const { return ++compared, number < other.number; }
    bool operator==(const CountedId &other) const { return ++compared, number == other.number; }
};

} // namespace

TEST(FollowersTest, AreThoseOfOneJobInTheOrderOfTheirNumbers) {
    Followers<> followers;
    followers.add(2, 9);
    followers.add(2, 1);
    followers.add(1, 7);
    followers.add(3, 8);
    EXPECT_THAT(followers.of(2), ElementsAre(1, 9));
    followers.remove(2, 9);
    followers.remove(2, 9);
    EXPECT_THAT(followers.of(2), ElementsAre(1));
    EXPECT_THAT(followers.of(4), IsEmpty());
}

TEST(FollowersTest, OneOfManyIsRemovedWithoutALookAtTheOthers) {
    constexpr sched_job_id_t many = 10000;
    constexpr size_t compared_most = size_t{many} * 256;
    Followers<CountedId> followers;
    for (sched_job_id_t id = 2; id <= many; ++id)
        followers.add({1}, {id});
    for (sched_job_id_t id = many; id >= 2; --id)
        followers.remove({1}, {id});
    EXPECT_EQ(followers.of({1}).size(), 0U);
    EXPECT_LT(compared, compared_most);
}
