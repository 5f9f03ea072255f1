// What waits is taken in turn; what there is no memory for leaves nothing behind.
#include <new>

#include <gtest/gtest.h>

#include <server/loop/fair_queue.h>

using namespace velia::server;

namespace {

struct Reluctant {
    explicit Reluctant(int its_number) : number(its_number) {}
    Reluctant(Reluctant &&other) : number(other.number) {
        if (refuses)
            throw std::bad_alloc();
    }
    Reluctant &operator=(Reluctant &&) = default;

    static inline bool refuses = false;
    int number;
};

} // namespace

TEST(FairQueue, WhatThereIsNoMemoryForLeavesTheOthersAsTheyWere) {
    FairQueue<Reluctant> queue({10, 10, 10});
    const Sender one = {{1, 0}, 1};
    ASSERT_TRUE(queue.push(one, Reluctant(1)));
    for (const Sender &sender : {one, Sender{{1, 0}, 2}, Sender{{2, 0}, 1}}) {
        Reluctant item(2);
        Reluctant::refuses = true;
        EXPECT_THROW(queue.push(sender, std::move(item)), std::bad_alloc);
        Reluctant::refuses = false;
        EXPECT_EQ(queue.size(), 1U);
    }
    EXPECT_EQ(queue.pop()->number, 1);
    EXPECT_FALSE(queue.pop());
}
