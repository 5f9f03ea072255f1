// The read cache against a model of its rules, over long random histories: it calls exactly when the model says so, and
// what it answers was true not longer ago than an entry may live.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <deque>
#include <map>
#include <optional>
#include <random>

namespace {

constexpr int64_t second_us = 1'000'000;

struct Question {
    int key;
    uint32_t item;
    bool has_region;
};

// The rules, told with plain containers.
class Model {
public:
    // Whether the lookup at this time is answered without a call.
    bool answers(int64_t now_us, const Question &question) {
        if (cache_ && cache_->last_fill_us != 0 && !is_current(cache_->last_fill_us, now_us, 60))
            cache_.reset();
        if (!cache_ && is_enabled)
            cache_.emplace();
        if (!cache_)
            return false;
        const auto found = cache_->entries.find(question.key);
        if (found == cache_->entries.end())
            return false;
        if (is_valid(found->second, now_us, question))
            return true;
        cache_->entries.erase(found);
        return false;
    }

    void fill(int64_t now_us, const Question &question, uint8_t server_stamp) {
        if (!cache_ || !is_enabled)
            return;
        cache_->entries[question.key] = {now_us, question, server_stamp};
        cache_->last_fill_us = now_us;
        cache_->server_stamp = server_stamp;
    }

    void flush() { cache_.reset(); }
    void switch_off(int64_t now_us) {
        is_enabled = false;
        state_change_us_ = now_us;
    }

    bool is_enabled = true;

private:
    struct Entry {
        int64_t fill_us;
        Question question;
        uint8_t server_stamp;
    };
    struct Cache {
        std::map<int, Entry> entries;
        int64_t last_fill_us = 0;
        uint8_t server_stamp = 0;
    };

    bool is_current(int64_t filled_us, int64_t now_us, int64_t lifetime_s) const {
        return now_us >= filled_us && filled_us > state_change_us_ &&
               now_us / second_us - filled_us / second_us <= lifetime_s;
    }
    bool is_valid(Entry &entry, int64_t now_us, const Question &question) {
        if (entry.server_stamp != cache_->server_stamp)
            return false;
        if (!is_current(entry.fill_us, now_us, 5)) {
            if (!is_current(cache_->last_fill_us, now_us, 5))
                return false;
            entry.fill_us = cache_->last_fill_us;
        }
        return entry.question.item == question.item && entry.question.has_region == question.has_region;
    }

    std::optional<Cache> cache_;
    int64_t state_change_us_ = 0;
};

class ReadCacheModel : public RegistryTest, public testing::WithParamInterface<int> {
protected:
    ReadCacheModel() {
        world.write_file("host/config/rgy_hosts.conf", "alpha");
        world.peer.answer(RVZD_PROC_RGY_REMOVE_ENTRY, refusal(TBS_ST_OK));
        world.peer.on(RVZD_PROC_RGY_FINDBYSTRING_ENTRY, [this](const sim::Call &) {
            return batch({"-value=" + std::to_string(version) + ";"}, 0, stamps_of(1, static_cast<uint8_t>(version)));
        });
        history.push_back({world.now_us, version});
    }
    ~ReadCacheModel() override { rgy_cache_action(1); }

    // The version that the answer shows.
    int look_up(const Question &question) {
        rgy_cursor_t *cursor = nullptr;
        rgy_entry_t *entry = nullptr;
        int64_t count = 0;
        EXPECT_EQ(rgy_findbystring_entry(3, "alpha", question.has_region ? "r1" : nullptr, question.item,
                                         std::to_string(question.key).c_str(), &cursor, 1, &entry, &count),
                  TBS_ST_OK);
        const char *value = nullptr;
        EXPECT_EQ(rgy_getstring_from_entry_const(entry, RGY_ITEM_VALUE, &value), TBS_ST_OK);
        const int shown = std::stoi(value);
        rgy_delete_entry(&entry);
        rgy_close_cursor(&cursor);
        return shown;
    }

    void check_look_up(const Question &question) {
        const size_t before = world.peer.count(RVZD_PROC_RGY_FINDBYSTRING_ENTRY);
        const bool is_answered = model.answers(world.now_us, question);
        const int shown = look_up(question);
        ASSERT_EQ(world.peer.count(RVZD_PROC_RGY_FINDBYSTRING_ENTRY) - before, is_answered ? 0u : 1u);
        if (!is_answered)
            model.fill(world.now_us, question, static_cast<uint8_t>(version));
        ASSERT_TRUE(was_true_lately(shown)) << "version " << shown << " of " << version;
    }

    // Five seconds, and what is lost by comparing whole seconds.
    bool was_true_lately(int shown) const {
        for (size_t i = 0; i < history.size(); ++i) {
            const int64_t ended_us = i + 1 < history.size() ? history[i + 1].since_us : INT64_MAX;
            if (history[i].version == shown)
                return ended_us >= world.now_us - 6 * second_us;
        }
        return false;
    }

    void change_at_server() {
        ++version;
        history.push_back({world.now_us, version});
    }

    void change_by_this_process() {
        change_at_server();
        rgy_entry_t entry = {RGY_ENTRY_MAGIC, const_cast<char *>("alpha"), {}, 1, {}};
        ASSERT_EQ(rgy_remove_entry(3, &entry), TBS_ST_OK);
        model.flush();
    }

    void toggle() {
        if (model.is_enabled)
            model.switch_off(world.now_us);
        else
            model.is_enabled = true;
        rgy_cache_action(model.is_enabled ? 1 : 0);
    }

    struct Truth {
        int64_t since_us;
        int version;
    };

    Model model;
    int version = 1;
    std::deque<Truth> history;
};

INSTANTIATE_TEST_SUITE_P(Histories, ReadCacheModel, testing::Range(1, 9));

TEST_P(ReadCacheModel, CallsExactlyWhenTheRulesSaySo) {
    std::mt19937 engine(static_cast<uint32_t>(GetParam()));
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(engine() % bound); };
    for (int step = 0; step < 400; ++step) {
        switch (below(20)) {
        case 0:
            change_at_server();
            break;
        case 1:
            change_by_this_process();
            break;
        case 2:
            world.advance_s(55 + below(12));
            break;
        case 3:
            toggle();
            break;
        case 4:
        case 5:
        case 6:
        case 7:
            world.now_us += below(4'000'000);
            break;
        default:
            check_look_up({static_cast<int>(below(3)), RGY_ITEM_TAG + below(8) / 7, below(8) != 0});
            break;
        }
        if (HasFatalFailure())
            return;
    }
}

} // namespace
