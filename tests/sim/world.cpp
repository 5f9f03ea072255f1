// The state of the simulated world, and what of it lasts as long as a test.
#include <tests/sim/world.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include <gtest/gtest.h>

#include <support/pfm.h>
#include <tests/sim/noted.h>

namespace sim {
namespace {

World *world;

std::string make_root() {
    std::string path = (std::filesystem::temp_directory_path() / "velia-sim-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no directory for the simulated world");
    return path;
}

void take_message(void *context, int severity, const char *subsystem, const imsg_table_t *table, int index,
                  const char *text) {
    auto &receiver = *static_cast<World *>(context);
    receiver.messages.emplace_back(severity, table, index, text, subsystem != nullptr ? subsystem : "");
    if (receiver.on_message)
        receiver.on_message(receiver.messages.back());
}

} // namespace

void PrintTo(const Message &message, std::ostream *out) {
    *out << "severity " << message.severity << ", "
         << (message.table != nullptr ? message.table->subsystem_name : "format") << " " << message.index << " of \""
         << message.subsystem << "\": \"" << message.text << '"';
}

World::World() : root_(make_root()) {
    world = this;
    noted() = {};
    hosts[host_name] = {"127.0.0.1"};
    services["rvzd"] = 3710;
    setenv("VELIA_ROOT", root_.c_str(), 1);
    for (const char *name : {"VELIA_HOSTNAME", "IVL_IP_VERSION", "IRONVALE_MIN_PORT", "IRONVALE_MAX_PORT"})
        unsetenv(name);
    imsg_set_sink(take_message, this);
}

World::~World() {
    EXPECT_EQ(noted().resolver_lists.size(), 0u) << "lists of the resolver that nobody gave back";
    imsg_set_sink(nullptr, nullptr);
    world = nullptr;
    std::filesystem::remove_all(root_);
}

bool World::exists() {
    return world != nullptr;
}

World &World::current() {
    if (world == nullptr) {
        fputs("an operation of the simulated world was called without a world\n", stderr);
        abort();
    }
    return *world;
}

void World::run_timers_for_s(int64_t seconds) {
    const int64_t end_us = now_us + seconds * 1'000'000;
    for (;;) {
        const auto next = std::min_element(timers.begin(), timers.end(),
                                           [](const Timer &a, const Timer &b) { return a.due_us < b.due_us; });
        if (next == timers.end() || next->due_us > end_us)
            break;
        const Timer due = *next;
        timers.erase(next);
        now_us = std::max(now_us, due.due_us);
        due.function(due.argument);
    }
    now_us = end_us;
}

void World::add_host(const std::string &name, std::vector<std::string> addresses) {
    hosts[name] = std::move(addresses);
}

std::vector<Message> World::take_messages() {
    return std::exchange(messages, {});
}

std::vector<Message> World::take_errors() {
    auto taken = take_messages();
    std::erase_if(taken, [](const Message &message) { return message.severity != IMSG_ERROR; });
    return taken;
}

void World::write_file(const std::string &path_below_root, const std::string &text) {
    const auto path = std::filesystem::path(root_) / path_below_root;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void World::fail_allocation(int number, Failing how_many) {
    allocations_left_ = number;
    failing_ = how_many;
    if (number != 0)
        allocations_failed_ = 0;
}

bool World::allocation_is_due() {
    if (allocations_left_ == 0 || --allocations_left_ > 0)
        return false;
    if (failing_ == Failing::all_further)
        allocations_left_ = 1;
    ++allocations_failed_;
    return true;
}

void World::raise_at_call(int number, int code) {
    calls_left_ = number;
    raise_code_ = code;
    raise_sent_ = false;
}

void World::support_call() {
    if (calls_left_ == 0 || --calls_left_ > 0)
        return;
    raise_sent_ = true;
    pfm_post_raise(raise_code_);
}

} // namespace sim
