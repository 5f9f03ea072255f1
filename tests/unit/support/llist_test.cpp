#include <vector>

#include <gtest/gtest.h>

#include <support/llist.h>

namespace {

std::vector<int> owners(llist_d_head_t &list) {
    std::vector<int> values;
    for (llist_d_head_t *at = list.next; at != &list; at = at->next)
        values.push_back(*static_cast<int *>(reinterpret_cast<llist_d_elem_t *>(at)->owner));
    return values;
}

} // namespace

TEST(List, AppendsAtTheTailAndKeepsTheOwner) {
    llist_d_head_t list = {&list, &list};
    int values[] = {1, 2, 3};
    llist_d_elem_t elements[3] = {};
    for (int i = 0; i < 3; ++i)
        llist_d_insert(&list, &values[i], &elements[i], 0);
    EXPECT_EQ(owners(list), (std::vector<int>{1, 2, 3}));
}

TEST(List, AZeroedHeadIsAnEmptyList) {
    llist_d_head_t list = {};
    int value = 5;
    llist_d_elem_t element = {};
    llist_d_insert(&list, &value, &element, 0);
    EXPECT_EQ(owners(list), std::vector<int>{5});
}

TEST(List, RemovingFromTheMiddleKeepsTheRest) {
    llist_d_head_t list = {&list, &list};
    int values[] = {1, 2, 3};
    llist_d_elem_t elements[3] = {};
    for (int i = 0; i < 3; ++i)
        llist_d_insert(&list, &values[i], &elements[i], 0);
    llist_d_remove(&elements[1]);
    llist_d_remove(&elements[1]);
    EXPECT_EQ(owners(list), (std::vector<int>{1, 3}));
    EXPECT_EQ(elements[1].owner, &values[1]);
    llist_d_remove(&elements[0]);
    llist_d_remove(&elements[2]);
    EXPECT_EQ(list.next, &list);
    EXPECT_EQ(list.previous, &list);
}
