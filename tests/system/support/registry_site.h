// Hosts of a site with a registry each, on one machine: a root directory, a name and an address of loopback for each.
#pragma once

#include <gmock/gmock.h>

#include <tests/system/support/registry_calls.h>
#include <tests/system/support/veliactl.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::system_test {

struct RegistrySite : VeliactlTest {
    std::unique_ptr<Daemon> standby;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        site.configure(std::string("option registry-copy 1\n") + trusted_hosts);
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", "standby");
        site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    }
    Words on_beta() const { return {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"}; }
    void start_alpha(const Words &environment = {}) {
        Child::Options options;
        options.environment = environment;
        daemon = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.1"}, options);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
    void start_beta() {
        Child::Options options;
        options.environment = on_beta();
        standby = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
        ASSERT_TRUE(standby->is_ready()) << standby->output();
    }
    static void stop(std::unique_ptr<Daemon> &stopped, int signal_number = SIGTERM) {
        stopped->signal(signal_number);
        stopped->wait();
        stopped.reset();
    }
    static bool comes_to_have(const char *host, const Words &names) {
        return eventually([&] { return names_of(RGY_DB_REGIONS, 100, host) == names; });
    }
    static tbs_status_t add_region(const std::string &name, const char *host = "alpha") {
        return add(RGY_DB_REGIONS, name_entry(name), host);
    }

    // What a host says of its registry.
    struct State {
        tbs_status_t status = TBS_ST_ERROR;
        int32_t role = 0;
        bool takes_updates = false;
        uint64_t term = 0;
        uint64_t heard_term = 0;
        std::string master;
        std::string heard_host;
        std::string failure;
        int64_t now = 0;
        int64_t current = 0;
    };
    static tbs_uuid_t registry_of(const char *host) {
        const auto handle = own_handle(host);
        rgy_dtm_pair_t stamps = {};
        tbs_uuid_t registry = {};
        tbs_uuid_t copy = {};
        EXPECT_EQ(rvzd_rgy_get_dtm(handle.get(), 0, RGY_PROTOCOL_VERSION, &stamps, &registry, &copy), TBS_ST_OK);
        return registry;
    }
    static State state_of(const char *host, uint64_t told_term = 0, const char *told_host = "",
                          const tbs_uuid_t &registry = {}) {
        State state;
        const auto handle = own_handle(host);
        if (handle == nullptr)
            return state;
        rvzd_registry_state_reply_t reply = {};
        state.status =
            rvzd_registry_state(handle.get(), told_term == 0 ? nullptr : &registry, told_term, told_host, &reply);
        if (state.status == TBS_ST_OK)
            state = {state.status,     reply.role,   reply.takes_updates != 0, reply.term,
                     reply.heard_term, reply.master, reply.heard_host,         reply.failure,
                     reply.now,        reply.current};
        rvzd_registry_state_free(&reply);
        return state;
    }
    static tbs_status_t turn(const char *host, int64_t op, uint32_t seconds, const char *other = "") {
        const auto handle = own_handle(host, 0);
        return handle == nullptr ? tbs_status_t{TBS_ST_NO_SERVER}
                                 : rvzd_registry_turn(handle.get(), op, seconds, other);
    }
};

} // namespace velia::system_test
