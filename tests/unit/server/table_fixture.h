// A server table with a launcher that starts nothing and remembers everything.
#pragma once

#include <map>
#include <set>
#include <unistd.h>

#include <arpa/inet.h>

#include <server/broker/server_table.h>
#include <tests/unit/server/messages_fixture.h>

namespace server_tests {

class FakeLauncher : public velia::server::Launcher {
public:
    velia::server::LaunchResult launch(const velia::server::Service &service) override {
        if (failure.message != 0)
            return failure;
        launched.push_back(service.path);
        return {next_pid++, 0, {}};
    }
    void cut_lifeline(int32_t pid) override { cut.push_back(pid); }
    int kill_now(int32_t pid) override {
        killed.push_back(pid);
        return kill_error;
    }
    bool exists(int32_t pid) override { return existing.contains(pid); }
    bool waits_for_calls(int32_t pid, const std::vector<velia::server::ServedPort> &ports, int64_t age_ms) override {
        asked_about = {pid, ports.size(), age_ms};
        return is_at_rest;
    }

    velia::server::LaunchResult failure;
    int kill_error = 0;
    int32_t next_pid = 100;
    std::vector<std::string> launched;
    std::vector<int32_t> cut;
    std::vector<int32_t> killed;
    std::set<int32_t> existing;
    bool is_at_rest = false;
    std::tuple<int32_t, size_t, int64_t> asked_about; // process, ports, age in milliseconds
};

class ServerTableTest : public MessagesTest {
protected:
    static constexpr rvzd_rpc_trait_t udp_trait = {390600, 1, RVZD_PROTOCOL_UDP};
    static constexpr rvzd_rpc_trait_t tcp_trait = {390600, 1, RVZD_PROTOCOL_TCP};

    static constexpr const char *client_name = "192.0.2.7";

    static velia::server::Service service(velia::server::ServerKind kind = velia::server::ServerKind::shared) {
        velia::server::Service made;
        made.udp = made.tcp = true;
        made.kind = kind;
        made.program = 390600;
        made.version = 1;
        made.path = "/bin/server";
        return made;
    }
    static tbs_uuid_t uuid(uint8_t number) {
        tbs_uuid_t made = {};
        made.bytes[0] = number;
        return made;
    }
    static ks_sockaddr_storage_t client_address() {
        ks_sockaddr_storage_t made = {};
        made.ipv4.sin_family = AF_INET;
        inet_pton(AF_INET, client_name, &made.ipv4.sin_addr);
        return made;
    }
    static rvzd_server_port_list_t ports(uint32_t port = 4000) { return {1, {{AF_INET, port}, {0, 0}}}; }

    void configure(const std::vector<velia::server::Service> &services) { table.configure(services, now); }

    // Asks, and keeps the answer under the number given back.
    size_t find(const std::string &path = "", uint8_t uuid_number = 0, const rvzd_rpc_trait_t &trait = udp_trait) {
        return find({trait, uuid(uuid_number), path, client_address()});
    }
    size_t find_from(uint32_t host) {
        auto client = client_address();
        client.ipv4.sin_addr.s_addr = htonl(0x0a000000 + host);
        return find({udp_trait, {}, "", client});
    }
    size_t find(const velia::server::FindRequest &request) {
        const size_t number = question_count++;
        table.find(request, now, [this, number](const velia::server::FindAnswer &answer) {
            EXPECT_FALSE(answers.contains(number)) << "answered twice";
            answers[number] = answer;
        });
        return number;
    }
    bool is_answered(size_t number) const { return answers.contains(number); }
    tbs_status_t status_of(size_t number) const {
        EXPECT_TRUE(is_answered(number));
        return is_answered(number) ? answers.at(number).status : -1;
    }
    uint32_t port_of(size_t number) const { return answers.at(number).ports.ports[0].port; }

    tbs_status_t register_server(int32_t pid, uint32_t port = 4000, const rvzd_rpc_trait_t &trait = udp_trait,
                                 const std::string &path = "", uint8_t uuid_number = 0) {
        return table.register_server({trait, uuid(uuid_number), path, ports(port), pid, user}, now);
    }
    velia::server::ProcessState state(int32_t pid) const { return table.processes().at(pid).state; }
    bool is_known(int32_t pid) const { return table.processes().contains(pid); }

    void pass_s(int64_t seconds) {
        now += seconds * 1000;
        table.run_due(now);
    }
    void exits(int32_t pid, int64_t code = 0, int signal_number = 0) {
        table.process_exited(pid, {code, signal_number}, now);
    }

    // A server of ours that has registered and reported.
    int32_t running_server() {
        const int32_t pid = launcher.next_pid;
        find();
        register_server(pid);
        table.report_busy(pid, now);
        table.report_idle(pid, false, now);
        messages();
        return pid;
    }

    FakeLauncher launcher;
    uid_t user = geteuid(); // whose the processes are that register
    velia::server::ServerTable table{launcher};
    velia::server::Moment now = 1'000'000;
    size_t question_count = 0;
    std::map<size_t, velia::server::FindAnswer> answers;
};

} // namespace server_tests
