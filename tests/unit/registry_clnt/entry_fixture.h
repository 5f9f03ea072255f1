// What the tests of registry entries share: a world, flex entries as lists of pairs, and entries made from a flex text.
#pragma once

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/stg.h>
#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <veliaxdr/rgy_entry.h>

namespace {

using Items = std::vector<std::pair<std::string, std::string>>;

[[maybe_unused]] Items items_of(const rgy_flex_entry_t &flex) {
    Items items;
    for (int32_t i = 0; i < flex.count; ++i)
        items.emplace_back(flex.items[i].name, flex.items[i].value);
    return items;
}

// An entry as a fetch makes it; null if the text is malformed.
[[maybe_unused]] rgy_entry_t *make_entry(const char *flex_text) {
    auto *entry = static_cast<rgy_entry_t *>(stg_malloc(sizeof(rgy_entry_t)));
    *entry = {};
    entry->magic = RGY_ENTRY_MAGIC;
    entry->host = stg_strdup("alpha");
    EXPECT_EQ(rgy_expand_flex_entry(flex_text, &entry->flex), TBS_ST_OK) << flex_text;
    return entry;
}

class EntryTest : public testing::Test {
protected:
    ~EntryTest() override {
        if (entry != nullptr)
            rgy_delete_entry(&entry);
        EXPECT_EQ(world.live_blocks(), given_up);
    }

    rgy_entry_t *use(const char *flex_text) { return entry = make_entry(flex_text); }

    // Blocks that the library gives up by design: one for each value that was replaced.
    size_t given_up = 0;
    sim::World world;
    rgy_entry_t *entry = nullptr;
};

} // namespace
