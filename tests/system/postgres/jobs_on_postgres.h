// Real daemons of the hosts alpha, beta and gamma that have their jobs together in a real database.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <tests/postgres/server.h>
#include <tests/system/scheduler/scheduler_fixture.h>

namespace velia::system_test {

constexpr double patience_s = 40;

struct JobsOnPostgres : SchedulerFixture {
    postgres_test::Server database;
    std::array<std::unique_ptr<Daemon>, 3> daemons;
    static constexpr std::array hosts = {"alpha", "beta", "gamma"};

    void SetUp() override {
        site.write("config/hosts.conf", "alpha 127.0.0.1\nbeta 127.0.0.2\ngamma 127.0.0.3\n");
        for (const std::string host : {"beta", "gamma"}) {
            for (const char *directory : {"/host/config", "/host/priv", "/host/data", "/log"})
                std::filesystem::create_directories(site.path(host + directory));
            std::filesystem::create_directory_symlink(site.path("config"), site.path(host + "/config"));
        }
        configure("");
        start(0);
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
        ASSERT_TRUE(serves("alpha"));
    }

    void configure(const std::string &more, int take_over_s = 5) const {
        site.configure(std::string(trusted_hosts) + tasks + "option jobs 3\noption take-over " +
                       std::to_string(take_over_s) + "\n" + more + "option store postgresql \"" + database.conninfo() +
                       "\"\n");
    }
    void start(size_t host) {
        Child::Options options;
        if (host != 0)
            options.environment = {"VELIA_ROOT=" + site.path(hosts.at(host)),
                                   std::string("VELIA_HOSTNAME=") + hosts.at(host)};
        daemons.at(host).reset();
        daemons.at(host) = std::make_unique<Daemon>(
            site, std::vector<std::string>{"--listen", "127.0.0." + std::to_string(host + 1)}, options);
        ASSERT_TRUE(daemons.at(host)->is_ready()) << daemons.at(host)->output();
    }
    void restart_with(int take_over_s) {
        sched_free_handle(&handle);
        kill_daemon(0);
        configure("", take_over_s);
        start(0);
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK);
        ASSERT_TRUE(serves("alpha"));
    }
    void start_all(size_t count) {
        for (size_t host = 1; host < count; ++host) {
            start(host);
            ASSERT_TRUE(serves(hosts.at(host)));
        }
    }
    void kill_daemon(size_t host) {
        daemons.at(host)->signal(SIGKILL);
        daemons.at(host)->wait();
    }

    // As somebody who is at that host.
    Outcome tool(const std::string &host, const std::string &words) const {
        std::vector<std::string> all = {"/bin/sh", "-c", std::string(VELIACTL) + " " + words + " 2>&1"};
        const std::string root = host == "alpha" ? site.root().string() : site.path(host);
        return run_apart(site, all, {"VELIA_ROOT=" + root, "VELIA_HOSTNAME=" + host});
    }
    bool tells(const std::string &host, const std::string &words, const std::string &part) const {
        return eventually([&] { return tool(host, words).output.find(part) != std::string::npos; }, patience_s);
    }
    bool serves(const std::string &host) const {
        return eventually([&] { return tool(host, "job list " + host).status == 0; }, patience_s);
    }

    // Each start that was written down, also of runs that are kept no more; what did not begin is taken back.
    void note_starts() const {
        database.run("CREATE TABLE made (job bigint, started bigint, due bigint, host text); "
                     "CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF TG_OP = 'INSERT' THEN "
                     "INSERT INTO made VALUES (NEW.job, NEW.started, NEW.due, convert_from(NEW.host, 'UTF8')); "
                     "ELSIF OLD.ended = 0 THEN DELETE FROM made WHERE job = OLD.job AND started = OLD.started; END IF; "
                     "RETURN NULL; END $$; "
                     "CREATE TRIGGER note AFTER INSERT OR DELETE ON job_run FOR EACH ROW EXECUTE FUNCTION note()");
    }
    sched_job_id_t job_that_waits() {
        return create(NewJob("waits", {"-c", "while [ ! -e " + site.path("go") + " ]; do sleep .1; done; exit 3"}));
    }
    int status_of(sched_job_id_t id) const {
        return number("SELECT exit_status FROM job_run WHERE ended <> 0 AND job = " + std::to_string(id));
    }

    int number(const std::string &sql) const { return atoi(database.ask(sql).c_str()); }

    std::string adds_line(int job) const { return "echo >>" + site.path("runs" + std::to_string(job)); }
    int lines(int job) const {
        const std::string text = site.read("runs" + std::to_string(job));
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }

    std::vector<sched_job_id_t> ids;
    void make_jobs(int count, const std::string &more = "") {
        for (int i = 0; i < count; ++i)
            ids.push_back(create(NewJob("job " + std::to_string(i), {"-c", adds_line(i) + more}).every_second()));
    }
    // Nothing is due any more, and nothing runs.
    void let_end() {
        for (size_t i = 0; i < ids.size(); ++i) {
            NewJob idle("job " + std::to_string(i), {"-c", "true"});
            EXPECT_TRUE(eventually(
                [&] {
                    return with_job(ids[i], [&](sched_job_h_t job) {
                               return sched_job_set_properties(handle, job, idle.record(), &err_mask);
                           }) == TBS_ST_OK;
                },
                patience_s));
        }
        EXPECT_TRUE(
            eventually([&] { return number("SELECT count(*) FROM job_run WHERE ended = 0") == 0; }, patience_s));
    }
    void expect_each_start_once() {
        EXPECT_EQ(number("SELECT count(*) - count(DISTINCT (job, due)) FROM made"), 0) << "a start was made twice";
        for (size_t i = 0; i < ids.size(); ++i)
            EXPECT_EQ(lines(static_cast<int>(i)),
                      number("SELECT count(*) FROM made WHERE job = " + std::to_string(ids[i])));
    }
    std::string everything_said() const {
        std::string all;
        for (const auto &each : daemons)
            all += each != nullptr ? each->output() + "\n----\n" : "";
        return all;
    }
};

} // namespace velia::system_test
