// Who may do what: every row of the table of rights, asked for by everybody; and attacks that once succeeded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sstream>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <server/rights/rights.h>
#include <server/rpc/reply_rate.h>
#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <tests/system/support/registry_file.h>
#include <tests/system/support/speaker.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_jobs.h>

using namespace velia;
using namespace velia::system_test;
using server::Right;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr uid_t user_of_daemon = 12345;
constexpr uid_t other_user = 12346;
constexpr uint32_t program = 390600;
constexpr const char *trusted_address = "127.0.0.6";
constexpr const char *other_address = "127.0.0.5";

struct TrustTest : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        if (getuid() != 0)
            GTEST_SKIP() << "only root can be other users";
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure(std::string("access ") + trusted_address + " read,register,write,administer\n");
    }
    void serve(uid_t user, const std::vector<std::string> &arguments = {}) {
        Child::Options options;
        options.user = user;
        site.write("daemon-1.out", "");
        site.give_to(user);
        daemon = std::make_unique<Daemon>(site, arguments, options);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
};

// One who asks, and what it may have.
struct Asker {
    uid_t user;
    SpeaksOver road;
    std::string from;
    Claims claims;

    bool is_known() const { return road == SpeaksOver::HOST; }
    bool may(Right right) const {
        const bool is_trusted = from == trusted_address;
        switch (right) {
        case Right::write:
            return (is_known() || is_trusted) && claims == Claims::ROOT;
        case Right::report:
            return is_known();
        case Right::administer:
            return is_known() ? user == 0 || user == user_of_daemon : is_trusted;
        default:
            return true;
        }
    }
    std::string text() const {
        return "user " + std::to_string(user) + ", road " + std::to_string(static_cast<int>(road)) + " from " + from +
               ", claims " + std::to_string(static_cast<int>(claims));
    }
};

std::vector<Asker> everybody() {
    std::vector<Asker> askers;
    for (const Claims claims : {Claims::NOTHING, Claims::NOBODY, Claims::ROOT}) {
        for (const uid_t user : {uid_t{0}, user_of_daemon, other_user})
            askers.push_back({user, SpeaksOver::HOST, "the host", claims});
        for (const SpeaksOver road : {SpeaksOver::UDP, SpeaksOver::TCP})
            for (const char *from : {"127.0.0.1", other_address, trusted_address})
                for (const uid_t user : {uid_t{0}, other_user})
                    askers.push_back({user, road, from, claims});
    }
    return askers;
}

template <class Request>
Request request_for(const server::RightsRow &row, int32_t pid) {
    Request request = {};
    if constexpr (requires { request.op; })
        request.op = row.operation;
    if constexpr (requires { request.pid; })
        request.pid = pid;
    return request;
}

// What was answered otherwise than the table says.
std::string surprises(const Site &site, const Asker &asker) {
    std::ostringstream told;
    const Speaker speaker(site, asker.road, asker.claims, asker.from == "the host" ? "127.0.0.1" : asker.from);
    const auto judge = [&](const server::RightsRow &row, const char *subject, tbs_status_t status, bool is_permitted) {
        if (status == -1 || (status != TBS_ST_NO_ACCESS) != is_permitted)
            told << asker.text() << ": " << row.name << " " << row.operation_name << subject << ": " << status << "\n";
    };
    for (const auto &row : server::rights_rows)
        for_each_procedure([&](const auto &procedure) {
            if (procedure.number != row.procedure)
                return;
            using Request = decltype(procedure.empty_request());
            judge(row, " of itself", speaker.ask(procedure, request_for<Request>(row, getpid())), asker.may(row.right));
            if (row.right == Right::report)
                judge(row, " of its parent", speaker.ask(procedure, request_for<Request>(row, getppid())), false);
        });
    return told.str();
}

// The same of the scheduler's procedures, whose requests are empty but for an access list like the one that is there,
// and for a kind of schedule.
std::string surprises_of_scheduler(const Site &site, const Asker &asker) {
    std::ostringstream told;
    const Speaker speaker(site, asker.road, asker.claims, asker.from == "the host" ? "127.0.0.1" : asker.from);
    char nobody[] = "";
    tbs_acl_entry_t everyone = {TBS_ACL_EVERYONE, nobody, 1};
    tbs_acl_t list = {1, &everyone};
    const auto judge = [&](const auto &procedure) {
        auto request = procedure.empty_request();
        if constexpr (std::is_same_v<decltype(request), sched_acl_request_t>)
            request.acl = &list;
        if constexpr (requires { request.job.schedule; }) // of no kind it cannot be sent
            request.job.schedule.kind = SCHED_KIND_DAILY;
        const Right right = server::right_to(procedure.number, server::any_operation);
        const bool is_permitted = asker.may(right == Right::write ? Right::administer : right);
        const tbs_status_t status = speaker.ask(procedure, request);
        if (status == -1 || (status != TBS_ST_NO_ACCESS) != is_permitted)
            told << asker.text() << ": " << procedure.name << ": " << status << "\n";
    };
    for_each_scheduler_procedure(judge);
    for_each_run_procedure(judge);
    for_each_set_procedure(judge);
    return told.str();
}

rvzd_registry_clnt_conf_req_t host_change(char *host) {
    return {{}, RGY_PROTOCOL_VERSION, RGY_CONF_SET_HOST, host};
}

rvzd_register_server_req_t registration(uint32_t of_program, uint32_t port, int32_t pid) {
    rvzd_register_server_req_t request = {};
    request.trait = {of_program, 1, RVZD_PROTOCOL_UDP};
    request.ports = {1, {{AF_INET, port}, {0, 0}}};
    request.pid = pid;
    return request;
}

rgy_dtm_pair_t stamps_of_regions() {
    const auto handle = own_handle("alpha");
    rgy_dtm_pair_t stamps = {};
    EXPECT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_OK);
    return stamps;
}

std::string backup_hosts() {
    const auto handle = own_handle("alpha");
    std::array<char, RGY_WIRE_HOST_LIST_MAX + 1> text = {};
    char *hosts = text.data();
    EXPECT_EQ(rvzd_rgy_get_backup(handle.get(), RGY_PROTOCOL_VERSION, &hosts), TBS_ST_OK);
    return hosts;
}

// Of a process that is not its own nobody may report.
bool is_without_right(const Asker &asker, const server::RightsRow &row) {
    return row.right == Right::report || !asker.may(row.right);
}

// Of the broker, the registry and the scheduler.
template <class Visit>
void for_every_procedure(Visit &&visit) {
    for_each_procedure(visit);
    for_each_scheduler_procedure(visit);
    for_each_run_procedure(visit);
    for_each_set_procedure(visit);
}

int rows_without_right(const Asker &asker) {
    int count = 0;
    for (const auto &row : server::rights_rows)
        for_every_procedure([&](const auto &procedure) {
            count += procedure.number == row.procedure && is_without_right(asker, row) ? 1 : 0;
        });
    return count;
}

// The one job of the test, and what would be made of it.
struct EvilJob {
    EvilJob() {
        made.name = made.description = name;
        made.schedule.kind = SCHED_KIND_DAILY;
        made.schedule.u.daily.frequency = 1;
        made.schedule.u.daily.common.lifetime.start_date = 4102444800; // in the year 2100
        made.task = 1;
        utc.rw = made;
    }
    char name[5] = "evil";
    sched_job_rw_properties_t made = {};
    sched_job_utc_rw_props_t utc = {};
    sched_job_handle handle = {1};
    sched_job_h_t slot = &handle;
    sched_running_job_handle run = {1, 1};
    tbs_acl_entry_t everyone = {TBS_ACL_EVERYONE, name + 4, 7};
    tbs_acl_t list = {1, &everyone};
    sched_set_change_t removal = {SCHED_SET_DELETE, 1, 0, {}};
};

template <class Request>
void make_evil(Request &request) {
    static EvilJob evil;
    if constexpr (std::is_same_v<Request, sched_acl_request_t>)
        request.acl = &evil.list;
    if constexpr (std::is_same_v<Request, sched_job_create_request_t>)
        request.job = &evil.made;
    if constexpr (std::is_same_v<Request, sched_utc_create_request_t>)
        request.job = &evil.utc;
    if constexpr (std::is_same_v<Request, sched_job_delete_request_t>) {
        request.job = &evil.slot;
        request.flag = 1;
    }
    if constexpr (std::is_same_v<Request, sched_job_request_t>)
        request.job = &evil.handle;
    if constexpr (std::is_same_v<Request, sched_running_job_request_t>)
        request.job = &evil.run;
    if constexpr (requires { request.properties; })
        request.job = &evil.handle;
    if constexpr (std::is_same_v<Request, sched_job_set_request_t>)
        request.properties = &evil.made;
    if constexpr (std::is_same_v<Request, sched_utc_set_request_t>)
        request.properties = &evil.utc;
    if constexpr (std::is_same_v<Request, sched_set_apply_request_t>) {
        request.is_last = 1;
        request.count = 1;
        request.changes = &evil.removal;
    }
}

// What a scheduler with one job shows of it, and who may do what.
std::string state_of_scheduler() {
    sched_h_t scheduler = nullptr;
    EXPECT_EQ(sched_get_handle("alpha", &scheduler), TBS_ST_OK);
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    tbs_acl_h_t acl = nullptr;
    EXPECT_EQ(sched_get_jobs(scheduler, &count, &jobs), TBS_ST_OK);
    EXPECT_EQ(sched_get_acl(scheduler, &acl), TBS_ST_OK);
    std::ostringstream told;
    for (uint32_t i = 0; i < count; ++i)
        told << jobs[i].rw.name << " " << jobs[i].ro.last_completion.started << " " << jobs[i].ro.running_status.started
             << ";";
    for (uint32_t i = 0; acl != nullptr && i < acl->count; ++i)
        told << acl->entries[i].kind << "=" << acl->entries[i].permissions << ";";
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &acl);
    sched_free_jobs(scheduler, count, &jobs);
    sched_free_handle(&scheduler);
    return told.str();
}

void create_job(const char *name) {
    EvilJob job;
    job.made.name = job.made.description = const_cast<char *>(name);
    sched_h_t scheduler = nullptr;
    EXPECT_EQ(sched_get_handle("alpha", &scheduler), TBS_ST_OK);
    sched_job_h_t made = nullptr;
    EXPECT_EQ(sched_job_create(scheduler, &job.made, &made, nullptr), TBS_ST_OK);
    sched_job_free_handle(scheduler, &made);
    sched_free_handle(&scheduler);
}

// Calls that would change something if they were obeyed.
struct Mischief {
    pid_t server_pid;
    rgy_dtm_pair_t stamps;

    template <class Request>
    Request request(const server::RightsRow &row) const {
        static char evil[] = "evil";
        static char entry[] = "-name=evil;";
        auto made = request_for<Request>(row, server_pid);
        if constexpr (requires { made.dtm; })
            made.dtm = stamps;
        if constexpr (requires { made.flex_text; })
            made.flex_text = entry;
        if constexpr (requires { made.text; })
            made.text = evil;
        if constexpr (requires { made.host_list; })
            made.host_list = evil;
        if constexpr (std::is_same_v<Request, rvzd_register_server_req_t>)
            made = registration(program + 1, 4000, server_pid);
        make_evil(made);
        return made;
    }

    // How many were sent, each over a socket that is closed at once.
    int send_every_row(const Site &site, const Asker &asker) const {
        int count = 0;
        for (const auto &row : server::rights_rows)
            for_every_procedure([&](const auto &procedure) {
                if (procedure.number != row.procedure || !is_without_right(asker, row))
                    return;
                using Request = decltype(procedure.empty_request());
                const Speaker speaker(site, asker.road, asker.claims);
                count += speaker.send(speaker.call(procedure, request<Request>(row))) ? 1 : 0;
            });
        return count;
    }
};

} // namespace

TEST_F(TrustTest, EveryRowOfTheTableIsKeptForEverybody) {
    serve(user_of_daemon);
    for (const Asker &asker : everybody()) {
        EXPECT_THAT(told_as(asker.user, [&] { return surprises(site, asker); }), IsEmpty());
        // Who may give the registry up did; the role's file still says master.
        daemon->signal(SIGHUP);
        ASSERT_TRUE(eventually([&] {
            const Speaker speaker(site, SpeaksOver::HOST, Claims::NOTHING);
            return speaker.ask(procedures::rgy_get_id, {}) == TBS_ST_OK;
        }));
    }
}

// Beside the table's rights there is the access list, by which everybody may read. Claims are not asked for: a
// scheduler's client makes none.
TEST_F(TrustTest, EveryRowOfTheSchedulersIsKeptForEverybody) {
    serve(user_of_daemon);
    for (const Asker &asker : everybody()) {
        if (asker.road == SpeaksOver::UDP)
            continue;
        EXPECT_THAT(told_as(asker.user, [&] { return surprises_of_scheduler(site, asker); }), IsEmpty());
    }
}

// Where the owner of a closed socket was looked up, it was root. Every row is asked for by who has no right to it; who
// could have it done would leave a trace of each.
TEST_F(TrustTest, ACallerWhoClosesItsSocketAtOnceIsNobody) {
    site.configure("udp resident 390600 1 - - - " SAMPLE_SERVER " --prog 390600\ntask 1 script /bin/sh\n");
    serve(0);
    create_job("good");
    const std::string state = state_of_scheduler();
    EXPECT_EQ(state, "good 0 0;0=1;");
    ASSERT_TRUE(eventually([] { return echo("alpha", program, RVZD_PROTOCOL_UDP, "x") == "x"; })) << daemon->output();
    const Mischief mischief = {daemon->started(1).at(0), stamps_of_regions()};
    for (const SpeaksOver road : {SpeaksOver::HOST, SpeaksOver::UDP, SpeaksOver::TCP})
        for (const Claims claims : {Claims::NOTHING, Claims::NOBODY, Claims::ROOT}) {
            const Asker asker = {other_user, road, "127.0.0.1", claims};
            const auto sent = told_as(other_user, [&] {
                int count = 0;
                for (int i = 0; i < 5; ++i)
                    count += mischief.send_every_row(site, asker);
                return std::to_string(count);
            });
            EXPECT_EQ(sent, std::to_string(5 * rows_without_right(asker))) << asker.text();
        }
    const Speaker after(site, SpeaksOver::HOST, Claims::NOTHING);
    EXPECT_EQ(after.ask(procedures::rgy_get_id, {}), TBS_ST_OK) << "the registry was given up";
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\n\n");
    EXPECT_EQ(site.read("host/config/rgy_svr.conf"), "master");
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::vector<std::string>{});
    EXPECT_EQ(backup_hosts(), "");
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    EXPECT_EQ(daemon->started(1).size(), 1U)
        << "its server was ended, or another one is preferred: " << daemon->output();
    EXPECT_EQ(find(Handle(), program + 1).status, TBS_ST_NOT_FOUND) << "a registration was taken";
    EXPECT_EQ(state_of_scheduler(), state);
}

// The daemon's own socket stood in the table under the port from which the call came.
TEST_F(TrustTest, ACallerAtTheDaemonsOwnPortIsNobody) {
    serve(0, {"--listen", "127.0.0.1"});
    char evil[] = "evil";
    for (const SpeaksOver road : {SpeaksOver::UDP, SpeaksOver::TCP})
        EXPECT_EQ(told_as(other_user,
                          [&] {
                              const Speaker speaker(site, road, Claims::ROOT, "127.0.0.9", site.port());
                              return std::to_string(speaker.ask(procedures::rgy_clnt_conf_change, host_change(evil)));
                          }),
                  std::to_string(TBS_ST_NO_ACCESS));
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\n\n");
}

TEST_F(TrustTest, NoProcessReportsInTheNameOfAnother) {
    site.configure("udp resident 390600 1 - - - " SAMPLE_SERVER " --prog 390600\n");
    serve(0);
    ASSERT_TRUE(eventually([] { return echo("alpha", program, RVZD_PROTOCOL_UDP, "x") == "x"; })) << daemon->output();
    const pid_t server_pid = daemon->started(1).at(0);
    const auto told = told_as(other_user, [&] {
        std::ostringstream statuses;
        for (const SpeaksOver road : {SpeaksOver::HOST, SpeaksOver::UDP, SpeaksOver::TCP}) {
            const Speaker speaker(site, road, Claims::ROOT);
            statuses << speaker.ask(procedures::server_idle, {{}, server_pid, 1}) << " "
                     << speaker.ask(procedures::server_busy, {{}, server_pid, {}}) << " "
                     << speaker.ask(procedures::register_server, registration(program, 4000, server_pid)) << " ";
        }
        return statuses.str();
    });
    std::string refused;
    for (int i = 0; i < 9; ++i)
        refused += std::to_string(TBS_ST_NO_ACCESS) + " ";
    EXPECT_EQ(told, refused);
    EXPECT_EQ(echo("alpha", program, RVZD_PROTOCOL_UDP, "x"), "x");
    EXPECT_EQ(daemon->started(1).size(), 1U) << "it was ended: " << daemon->output();
}

// Of itself anybody may report, but not as a program that the configuration gives to another user.
TEST_F(TrustTest, AConfiguredProgramIsNotServedByAnotherUsersProcess) {
    site.configure(sample_line(program, "shared", "-"));
    serve(0);
    const auto register_both = [&] {
        const Speaker speaker(site, SpeaksOver::HOST, Claims::NOTHING);
        const auto configured = speaker.ask(procedures::register_server, registration(program, 4000, getpid()));
        const auto own = speaker.ask(procedures::register_server, registration(program + 1, 4000, getpid()));
        return std::to_string(configured) + " " + std::to_string(own);
    };
    EXPECT_EQ(told_as(other_user, register_both), std::to_string(TBS_ST_ERROR) + " 0");
    EXPECT_EQ(told_as(0, register_both), "0 0") << "the daemon's user";
}

TEST_F(TrustTest, AReloadTakesAProgramFromWhoMayNotServeItAnyMore) {
    site.configure("");
    serve(0);
    std::array<int, 2> until = {};
    ASSERT_EQ(pipe2(until.data(), O_CLOEXEC), 0);
    const pid_t squatter = fork();
    if (squatter == 0) {
        close(until[1]);
        char end = 0;
        const bool is_changed = setgroups(0, nullptr) == 0 && setgid(other_user) == 0 && setuid(other_user) == 0;
        const Speaker speaker(site, SpeaksOver::HOST, Claims::NOTHING);
        speaker.ask(procedures::register_server, registration(program, 4000, getpid()));
        _exit(is_changed && read(until[0], &end, 1) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    const Handle handle;
    ASSERT_TRUE(eventually([&] { return find(handle, program).status == TBS_ST_OK; }));
    site.configure(sample_line(program, "shared", "-"));
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([] { return echo("alpha", program, RVZD_PROTOCOL_UDP, "x") == "x"; })) << daemon->output();
    close(until[1]);
    close(until[0]);
    int status = 0;
    ASSERT_EQ(waitpid(squatter, &status, 0), squatter);
    EXPECT_EQ(status, 0);
}

TEST_F(TrustTest, ClaimsChangeNothingOverIp) {
    site.configure("");
    serve(0);
    char evil[] = "evil";
    char entry[] = "-name=evil;";
    for (const SpeaksOver road : {SpeaksOver::UDP, SpeaksOver::TCP}) {
        const Speaker speaker(site, road, Claims::ROOT);
        EXPECT_EQ(speaker.ask(procedures::rgy_set_backup, {{}, RGY_PROTOCOL_VERSION, evil}), TBS_ST_NO_ACCESS);
        rvzd_registry_add_req_t addition = {};
        addition.flex_text = entry;
        EXPECT_EQ(speaker.ask(procedures::rgy_add_entry, addition), TBS_ST_NO_ACCESS);
        EXPECT_EQ(speaker.ask(procedures::rgy_remove_entry, {}), TBS_ST_NO_ACCESS);
    }
    EXPECT_EQ(names_of(RGY_DB_REGIONS), std::vector<std::string>{});
}

// A right of the line that was, and is not any more after a reload.
TEST_F(TrustTest, AccessLinesAreReadAgain) {
    serve(0);
    char hosts[] = "beta";
    const Speaker speaker(site, SpeaksOver::TCP, Claims::NOTHING, trusted_address);
    const auto set_backup = [&] { return speaker.ask(procedures::rgy_set_backup, {{}, RGY_PROTOCOL_VERSION, hosts}); };
    EXPECT_EQ(set_backup(), TBS_ST_OK);
    site.configure("access 127.0.0.0/8 none\n");
    daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return set_backup() == TBS_ST_NO_ACCESS; }));
    EXPECT_EQ(speaker.ask(procedures::list_servers, {}), TBS_ST_NO_ACCESS);
    EXPECT_EQ(speaker.ask(procedures::contact, {{}, RVZD_PROTOCOL_CURRENT}), TBS_ST_OK);
    EXPECT_EQ(Handle("alpha", RVZD_PROTOCOL_UDP).status(), TBS_ST_OK) << "of callers of the host no line says anything";
}

TEST_F(TrustTest, ABackupHostIsNotAcceptedByAStandbyWhichWouldForgetIt) {
    serve(0); // has a registry to serve, which a standby without a copy has not
    daemon.reset();
    site.write("host/config/rgy_svr.conf", "standby");
    serve(0);
    char hosts[] = "beta";
    const Speaker speaker(site, SpeaksOver::HOST, Claims::ROOT);
    ASSERT_EQ(speaker.ask(procedures::rgy_get_id, {}), TBS_ST_OK);
    EXPECT_EQ(speaker.ask(procedures::rgy_set_backup, {{}, RGY_PROTOCOL_VERSION, hosts}), TBS_ST_NO_SERVER);
}

// A record that one process begins and another ends would be of either.
TEST_F(TrustTest, ARecordOfTwoSendersIsNotTaken) {
    serve(0);
    char evil[] = "evil";
    const Speaker speaker(site, SpeaksOver::HOST, Claims::ROOT);
    const Bytes call = speaker.call(procedures::rgy_clnt_conf_change, host_change(evil));
    const auto half = static_cast<ptrdiff_t>(call.size() / 2);
    EXPECT_EQ(told_as(other_user,
                      [&] { return speaker.send(Bytes(call.begin(), call.begin() + half)) ? "sent" : "not sent"; }),
              "sent");
    speaker.send(Bytes(call.begin() + half, call.end()));
    EXPECT_EQ(speaker.ask(procedures::rgy_get_id, {}), -1) << "the connection is ended";
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\n\n");
}

// What a process says on a connection that another user made is its own word.
TEST_F(TrustTest, AConnectionOfRootsGivesNobodyElseItsRights) {
    serve(0);
    char evil[] = "evil";
    const Speaker speaker(site, SpeaksOver::HOST, Claims::ROOT);
    ASSERT_EQ(speaker.ask(procedures::rgy_get_id, {}), TBS_ST_OK);
    EXPECT_EQ(told_as(other_user,
                      [&] { return std::to_string(speaker.ask(procedures::rgy_clnt_conf_change, host_change(evil))); }),
              std::to_string(TBS_ST_NO_ACCESS));
}

// Whose message it is the kernel tells by the process that writes, also one of root's that was brought to write.
TEST_F(TrustTest, AProcessOfRootsThatWritesForAnotherLendsItNoRights) {
    serve(0);
    char evil[] = "evil";
    ASSERT_EQ(seteuid(other_user), 0);
    const Speaker speaker(site, SpeaksOver::HOST, Claims::ROOT);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(speaker.ask(procedures::rgy_clnt_conf_change, host_change(evil)), TBS_ST_NO_ACCESS);
    EXPECT_EQ(speaker.ask(procedures::rgy_get_id, {}), TBS_ST_OK);
}

TEST_F(TrustTest, AConnectionThatAnotherProcessMadeIsNoneToReportOver) {
    serve(0);
    const Speaker speaker(site, SpeaksOver::HOST, Claims::NOTHING);
    const auto report = [&] {
        return std::to_string(speaker.ask(procedures::register_server, registration(program + 1, 4000, getpid())));
    };
    EXPECT_EQ(told_as(0, report), std::to_string(TBS_ST_NO_ACCESS));
    EXPECT_EQ(report(), "0");
}

TEST_F(TrustTest, DescriptorsThatAreSentAlongAreNotTaken) {
    serve(0);
    const auto descriptors = [&] {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon->pid()) + "/fd");
        return std::distance(begin(all), end(all));
    };
    const Speaker speaker(site, SpeaksOver::HOST, Claims::NOTHING);
    ASSERT_EQ(speaker.ask(procedures::rgy_get_id, {}), TBS_ST_OK);
    const auto before = descriptors();
    for (int i = 0; i < 20; ++i) {
        Bytes call = speaker.call(procedures::rgy_get_id, {});
        iovec bytes = {call.data(), call.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> room = {};
        msghdr header = {};
        header.msg_iov = &bytes;
        header.msg_iovlen = 1;
        header.msg_control = room.data();
        header.msg_controllen = room.size();
        cmsghdr *first = CMSG_FIRSTHDR(&header);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(sizeof(int));
        const int passed = STDIN_FILENO;
        memcpy(CMSG_DATA(first), &passed, sizeof passed);
        ASSERT_GT(sendmsg(speaker.fd(), &header, MSG_NOSIGNAL), 0);
    }
    const Speaker other(site, SpeaksOver::HOST, Claims::NOTHING);
    ASSERT_EQ(other.ask(procedures::rgy_get_id, {}), TBS_ST_OK);
    EXPECT_LE(descriptors(), before + 1);
}

// What it leads to may be anybody's who is asked: a link of the administrator's is meant.
TEST_F(TrustTest, AConfigurationIsReadThroughALinkOfTheAdministratorsAndOfNobodyElse) {
    const std::string elsewhere = site.write("elsewhere.conf", "");
    std::filesystem::remove(site.path("rvzd_server.conf"));
    std::filesystem::create_symlink(elsewhere, site.path("rvzd_server.conf"));
    serve(0);
    ASSERT_EQ(lchown(site.path("rvzd_server.conf").c_str(), other_user, other_user), 0);
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("It is a symbolic link of a user who is neither root nor the daemon's"))
        << daemon->output();
    daemon.reset();
    EXPECT_FALSE(Daemon(site).is_ready());
}

TEST_F(TrustTest, ARootDirectoryHasOneDaemon) {
    serve(0);
    const Daemon second(site, {"--port", std::to_string(site.port() + 1)});
    EXPECT_FALSE(second.is_ready());
    EXPECT_THAT(second.output(), HasSubstr("already running"));
    EXPECT_EQ(Handle("alpha", RVZD_PROTOCOL_UDP).status(), TBS_ST_OK) << "the first has kept its sockets";
}

// What a killed daemon was just making of itself has the lock until it is something else.
TEST_F(TrustTest, ALockThatIsHeldForAMomentIsWaitedFor) {
    serve(0);
    daemon->signal(SIGKILL);
    daemon->wait();
    const int lock = open(site.path("host/run/rvzd_server.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
    std::thread child([lock] {
        usleep(200'000);
        close(lock);
    });
    EXPECT_TRUE(Daemon(site).is_ready());
    child.join();
}

// Whoever could put a socket there would be taken for the daemon.
TEST_F(TrustTest, ADirectoryOfAnotherUserIsNotTaken) {
    std::filesystem::create_directories(site.path("host/run"));
    ASSERT_EQ(chown(site.path("host/run").c_str(), other_user, other_user), 0);
    const Daemon wrong(site);
    EXPECT_FALSE(wrong.is_ready());
    EXPECT_THAT(wrong.output(), HasSubstr("belongs to somebody else"));
    std::filesystem::remove(site.path("host/run"));
    std::filesystem::create_directories(site.path("elsewhere"));
    std::filesystem::create_directory_symlink(site.path("elsewhere"), site.path("host/run"));
    EXPECT_FALSE(Daemon(site).is_ready());
}

TEST_F(TrustTest, ADirectoryThatOthersCouldWriteToIsTightenedAndTold) {
    std::filesystem::create_directories(site.path("host/run"));
    std::filesystem::permissions(site.path("host/run"), std::filesystem::perms::all);
    const Daemon careful(site);
    ASSERT_TRUE(careful.is_ready()) << careful.output();
    EXPECT_THAT(careful.output(), HasSubstr("Others could write to"));
    EXPECT_EQ(std::filesystem::status(site.path("host/run")).permissions(), std::filesystem::perms(0755));
}

// A server whose support layer is its own, as one is that knows of no socket of this host: it reports over IP.
TEST_F(TrustTest, AServerThatTheDaemonStartedMayReportOverIp) {
    std::filesystem::create_directories(site.path("far"));
    std::filesystem::create_directory_symlink(site.path("config"), site.path("far/config"));
    site.configure("udp resident 390600 1 - - - /bin/sh -c \"VELIA_ROOT=" + site.path("far") +
                   " exec " SAMPLE_SERVER " --prog 390600 $1\" sh\n");
    serve(0);
    EXPECT_TRUE(eventually([] { return echo("alpha", program, RVZD_PROTOCOL_UDP, "x") == "x"; })) << daemon->output();
    const pid_t server_pid = daemon->started(1).at(0);
    for (const SpeaksOver road : {SpeaksOver::UDP, SpeaksOver::TCP}) {
        const Speaker speaker(site, road, Claims::ROOT);
        EXPECT_EQ(speaker.ask(procedures::server_idle, {{}, server_pid, 1}), TBS_ST_NO_ACCESS) << "another's socket";
    }
}

// A made-up sender would have been sent a hundred times what it sent.
TEST_F(TrustTest, LargeRepliesGoToOneNetworkAtABoundedRateOverUdpAlone) {
    serve(0);
    fill_registry(site, RGY_DB_REGIONS, 1000);
    rvzd_registry_get_req_t listing = {};
    listing.db = RGY_DB_REGIONS;
    listing.max_entries = 1000;
    const Speaker victim(site, SpeaksOver::UDP, Claims::NOTHING);
    const auto begun = std::chrono::steady_clock::now();
    size_t received = 0;
    Bytes reply(65536);
    const auto ask_and_count = [&] {
        EXPECT_TRUE(victim.send(victim.call(procedures::rgy_get_entry, listing)));
        constexpr int patience_ms = 2;
        constexpr ssize_t small_bytes_max = 200; // "try again" goes without a bound
        for (pollfd readable = {victim.fd(), POLLIN, 0}; poll(&readable, 1, patience_ms) > 0;) {
            const ssize_t count = recv(victim.fd(), reply.data(), reply.size(), 0);
            received += count > small_bytes_max ? static_cast<size_t>(count) : 0;
        }
    };
    EXPECT_TRUE(eventually(
        [&] {
            ask_and_count();
            return received > size_t{server::REPLY_RATE_SHARE_BYTES} / 2;
        },
        60));
    for (int i = 0; i < 200; ++i)
        ask_and_count();
    const auto lasted_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
    EXPECT_LT(received, size_t{server::REPLY_RATE_SHARE_BYTES} +
                            static_cast<size_t>(lasted_ms.count() + 1) * server::REPLY_RATE_BYTES_PER_MS);
    const Speaker small(site, SpeaksOver::UDP, Claims::NOTHING);
    EXPECT_EQ(small.ask(procedures::contact, {{}, RVZD_PROTOCOL_CURRENT}), TBS_ST_OK);
    const Speaker over_tcp(site, SpeaksOver::TCP, Claims::NOTHING);
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(over_tcp.ask(procedures::rgy_get_entry, listing), TBS_ST_OK) << i;
}
