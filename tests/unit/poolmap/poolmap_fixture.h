// What the tests of pool maps share: a world, an area for the maps, and maps as lists of pairs.
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
#include <veliaxdr/poolmap.h>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Messages = std::vector<sim::Message>;

[[maybe_unused]] sim::Message message(int severity, int index, const std::string &text) {
    return {severity, &_poolmap_rvzd_msg_table, index, text};
}

// The outs of a cracking.
struct Cracked {
    size_t count = untouched_count;
    poolmap_elem_t *prefixes = untouched_elements();
    poolmap_elem_t *targets = untouched_elements();

    static constexpr size_t untouched_count = 12345;
    static poolmap_elem_t *untouched_elements() {
        static poolmap_elem_t nothing;
        return &nothing;
    }

    bool is_untouched() const {
        return count == untouched_count && prefixes == untouched_elements() && targets == untouched_elements();
    }

    // Also looks whether each element's lengths are those of its text.
    Pairs pairs() const {
        Pairs result;
        for (size_t i = 0; i < count; ++i) {
            for (const auto &element : {prefixes[i], targets[i]}) {
                EXPECT_EQ(element.length, strlen(element.text));
                EXPECT_EQ(element.size, element.length + 1);
            }
            result.emplace_back(prefixes[i].text, targets[i].text);
        }
        return result;
    }
};

class PoolMapTest : public testing::Test {
protected:
    ~PoolMapTest() override {
        stg_delete_area(&area);
        EXPECT_EQ(world.live_blocks(), 0u);
        EXPECT_EQ(world.take_messages(), Messages{});
    }

    // `text` is left as the cracking leaves it.
    tbs_status_t crack(std::string &text, bool check_slashes = true) {
        cracked = {};
        return poolmap_crack_mapstring_and_check(text.data(), area, check_slashes, &cracked.count, &cracked.prefixes,
                                                 &cracked.targets);
    }

    void use_map(std::string text, bool check_slashes = true) { ASSERT_EQ(crack(text, check_slashes), TBS_ST_OK); }

    struct Answer {
        tbs_status_t status;
        std::string name;

        bool operator==(const Answer &) const = default;
        friend void PrintTo(const Answer &answer, std::ostream *out) {
            *out << answer.status << " \"" << answer.name << '"';
        }
    };

    Answer translate(tbs_status_t (*operation)(const char *, size_t, const poolmap_elem_t *, const poolmap_elem_t *,
                                               size_t, char *),
                     const std::string &name, size_t size) const {
        std::vector<char> buffer(size, 'x'); // no byte more than told, so that one too many is seen
        const auto status =
            operation(name.c_str(), cracked.count, cracked.prefixes, cracked.targets, buffer.size(), buffer.data());
        return {status, std::string(buffer.data(), strnlen(buffer.data(), size))};
    }
    Answer pathname(const std::string &name, size_t size = 4096) const {
        return translate(poolmap_translate_pathname, name, size);
    }
    Answer poolname(const std::string &name, size_t size = 4096) const {
        return translate(poolmap_translate_poolname, name, size);
    }

    sim::World world;
    stg_area_t area = stg_create_area(256);
    Cracked cracked;
};

} // namespace
