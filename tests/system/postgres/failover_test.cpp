// Two daemons on one database under load, while daemons and database servers are killed: what clients were told has to
// fit one registry that does one thing after the other. More of it: ./dev kills-database FAILOVERS OPERATIONS.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>

#include <tests/postgres/server.h>
#include <tests/system/postgres/history_clients.h>
#include <tests/system/postgres/two_hosts.h>
#include <tests/system/support/registry_calls.h>

using namespace velia::system_test;
using velia::postgres_test::Server;

namespace {

constexpr double patience_s = 60;
constexpr int64_t step_down = 13;
constexpr uint64_t updates_of_round = 40;

uint64_t wanted(const char *variable, uint64_t usual) {
    const char *text = getenv(variable);
    return text != nullptr ? strtoull(text, nullptr, 10) : usual;
}

struct Failover : TwoHosts {
    // Until so many more updates were acknowledged.
    static bool goes_on(const HistoryClients &clients, uint64_t updates = updates_of_round) {
        const uint64_t before = clients.updates();
        return eventually([&] { return clients.updates() >= before + updates; }, patience_s);
    }

    // All of it fits, and every entry that nothing but its number tells from others is there as often as it was added.
    static void expect_right(const std::vector<Operation> &history) {
        const Finding finding = judge(history);
        RecordProperty("operations", std::to_string(finding.operations));
        RecordProperty("uncertain", std::to_string(finding.uncertain));
        EXPECT_EQ(finding.fault, "");
        expect_titles_once(history);
    }
    static void expect_titles_once(const std::vector<Operation> &history) {
        size_t acknowledged = 0;
        std::map<uint32_t, Operation::Answer> told;
        for (const Operation &operation : history)
            if (operation.key >= HistoryClients::first_title_key)
                told[operation.key - HistoryClients::first_title_key] = operation.answer;
        const auto titles = HistoryClients::titles_now("alpha", told.empty() ? 0 : told.rbegin()->first + 1);
        ASSERT_FALSE(titles.empty());
        for (uint32_t title = 0; title < titles.size(); ++title) {
            const bool is_told = told.contains(title);
            const bool is_done = is_told && told[title] == Operation::Answer::done;
            acknowledged += is_done ? 1 : 0;
            EXPECT_GE(titles[title], is_done ? 1U : 0U) << "acknowledged and lost: " << title;
            EXPECT_LE(titles[title], is_told ? 1U : 0U) << "twice, or said not to be done: " << title;
        }
        RecordProperty("acknowledged_titles", std::to_string(acknowledged));
    }
};

} // namespace

TEST_F(Failover, OfAPrimaryToItsSynchronousStandbyLosesNothingAndDoublesNothing) {
    auto primary = std::make_unique<Server>();
    auto standby = std::make_unique<Server>(Server::StandbyOf{*primary});
    primary->demand_standby();
    keep_in("host=" + primary->directory().string() + "," + standby->directory().string() +
            " dbname=postgres user=tester");
    start_both();
    HistoryClients clients(site, {{"alpha", "beta"}});
    const uint64_t failovers = wanted("VELIA_TEST_FAILOVERS", 2);
    for (uint64_t failover = 0; failover < failovers; ++failover) {
        ASSERT_TRUE(goes_on(clients)) << alpha->output();
        primary->kill_all();
        standby->promote();
        ASSERT_TRUE(goes_on(clients)) << alpha->output() << beta->output();
        primary->follow(*standby);
        standby->demand_standby();
        std::swap(primary, standby);
    }
    RecordProperty("failovers", std::to_string(failovers));
    expect_right(clients.finish());
}

TEST_F(Failover, WhatIsSavedUnderLoadIsOfOneMoment) {
    Server database;
    keep_in(database.conninfo());
    start_both();
    HistoryClients clients(site, {{"alpha", "beta"}, 4});
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(goes_on(clients)) << alpha->output();
        const std::string file = site.path("saved-" + std::to_string(i));
        const Outcome saved =
            run(site, {RVZD_SERVER, "--config", site.path("rvzd_server.conf"), "--save-registry", file});
        EXPECT_EQ(saved.status, 0) << saved.output;
        const Outcome checked = run(site, {RVZD_SERVER, "--check-registry", file});
        EXPECT_EQ(checked.status, 0) << checked.output;
    }
    expect_right(clients.finish());
}

TEST_F(Failover, AHostThatStepsDownLeavesTheOthersAtWork) {
    Server database;
    keep_in(database.conninfo());
    start_both();
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("a"), "beta"), TBS_ST_OK);
    {
        const auto handle = own_handle("beta", 0);
        ASSERT_EQ(rvzd_rgy_svr_conf_change(handle.get(), RGY_PROTOCOL_VERSION, step_down, ""), TBS_ST_OK);
    }
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("b"), "beta"), TBS_ST_NO_SERVER);
    EXPECT_EQ(add(RGY_DB_REGIONS, name_entry("c"), "alpha"), TBS_ST_OK);
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "alpha"), (std::vector<std::string>{"a", "c"}));
}

TEST_F(Failover, TheHistoryOfTwoDaemonsOfWhichOneIsKilledIsLinearizable) {
    Server database;
    keep_in(database.conninfo());
    start_both();
    HistoryClients clients(site, {{"alpha", "beta"}, 16, static_cast<uint32_t>(wanted("VELIA_TEST_KEYS", 60))});
    const uint64_t operations = wanted("VELIA_TEST_OPERATIONS", 3000);
    const uint64_t between_faults = std::max<uint64_t>(operations / 200, 400);
    uint64_t faults = 0;
    for (; clients.operations() < operations; ++faults) {
        const uint64_t next = clients.operations() + between_faults;
        ASSERT_TRUE(eventually([&] { return clients.operations() >= next; }, patience_s)) << alpha->output();
        if (faults % 2 == 0)
            database.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                         "WHERE application_name = 'rvzd_server'");
        else
            kill_and_start_beta();
    }
    ASSERT_TRUE(goes_on(clients)) << alpha->output() << beta->output();
    RecordProperty("faults", std::to_string(faults));
    expect_right(clients.finish());
}
