// Terms of masters: who may take updates when several think they may; and the whole turn of a site.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <tests/system/support/registry_file.h>
#include <tests/system/support/registry_site.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_procedures.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::Not;

namespace {

struct SiteMaster : RegistrySite {
    void SetUp() override {
        RegistrySite::SetUp();
        start_alpha();
        ASSERT_EQ(add_region("one"), TBS_ST_OK);
        start_beta();
        ASSERT_TRUE(comes_to_have("beta", {"one"})) << standby->output();
    }
    static bool is_superseded(const char *host) {
        return eventually([&] {
            const auto state = state_of(host);
            return state.heard_term > state.term && !state.takes_updates;
        });
    }
    Outcome make_master(const Words &more = {}, const Words &environment = {}) const {
        Words words = {"site", "master", "beta", "--output", "jsonl"};
        words.insert(words.end(), more.begin(), more.end());
        return veliactl(words, environment);
    }
    // One master, with all entries, whom all hosts follow.
    void expect_turned(const Words &names) const {
        const auto beta = state_of("beta");
        EXPECT_EQ(beta.role, RGY_SVR_MASTER);
        EXPECT_TRUE(beta.takes_updates);
        EXPECT_EQ(state_of("alpha").role, RGY_SVR_STANDBY);
        EXPECT_EQ(add_region("refused", "alpha"), TBS_ST_NO_SERVER);
        EXPECT_EQ(names_of(RGY_DB_REGIONS, 100, "beta"), names);
        EXPECT_TRUE(comes_to_have("alpha", names)) << daemon->output();
        for (const char *file : {"host/config/rgy_hosts.conf", "beta/host/config/rgy_hosts.conf"})
            EXPECT_THAT(site.read(file), testing::StartsWith("beta\n")) << file;
    }
};

TEST_F(SiteMaster, ATermBeginsWithEachMasterAndGoesWithTheCopies) {
    EXPECT_EQ(state_of("alpha").term, 1u);
    EXPECT_TRUE(eventually([] { return state_of("beta").term == 1; })) << standby->output();
    EXPECT_EQ(state_of("beta").master, "alpha");
    EXPECT_EQ(veliactl({"registry", "promote", "beta", "--force"}).status, DONE);
    EXPECT_EQ(state_of("beta").term, 2u);
    EXPECT_EQ(state_of("beta").master, "beta");
}

TEST_F(SiteMaster, OneThatLivesIsAskedBeforeAnotherIsPromoted) {
    const auto refused = veliactl({"registry", "promote", "beta"});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("Host 'alpha' is the master and takes updates"));
    EXPECT_EQ(veliactl({"registry", "promote"}, on_beta()).status, FAILED);
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
    EXPECT_EQ(site.read("beta/host/config/rgy_hosts.conf"), "alpha\nbeta\n");
    EXPECT_EQ(add_region("two"), TBS_ST_OK);
}

// As right behind its first copy, when its daemon has not noticed yet whose registry it has.
TEST_F(SiteMaster, OneThatLivesIsAskedThoughTheStandbyStillHasARegistryOfItsOwn) {
    stop(standby);
    std::filesystem::remove_all(site.path("beta/host/priv"));
    std::filesystem::create_directories(site.path("beta/host/priv"));
    std::filesystem::remove(site.path("beta/config"));
    std::filesystem::create_directories(site.path("beta/config"));
    for (const auto &file : std::filesystem::directory_iterator(site.path("config")))
        std::filesystem::copy(file, site.path("beta/config"));
    site.write("beta/config/hosts.conf", "alpha 127.0.0.9\nbeta 127.0.0.2\n"); // where nobody is to copy from
    site.write("beta/host/config/rgy_svr.conf", "master");
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    start_beta();
    ASSERT_EQ(add_region("own", "beta"), TBS_ST_OK);
    stop(standby);
    site.write("beta/host/config/rgy_svr.conf", "standby");
    site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
    start_beta();
    ASSERT_TRUE(eventually([] { return !state_of("beta").failure.empty(); })) << standby->output();
    const auto refused = veliactl({"registry", "promote", "beta"});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("Host 'alpha' is the master and takes updates"));
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
}

TEST_F(SiteMaster, OneThatHearsOfAHigherTermTakesNoUpdatesAndSaysSo) {
    ASSERT_EQ(veliactl({"registry", "promote", "beta", "--force"}).status, DONE);
    EXPECT_TRUE(is_superseded("alpha")) << daemon->output();
    EXPECT_EQ(add_region("lost", "alpha"), TBS_ST_NO_SERVER);
    EXPECT_TRUE(daemon->says("Host \"beta\" is the master of this registry's site, by term 2; this host's is 1."));
    EXPECT_TRUE(daemon->says("veliactl registry demote --follow beta"));
    EXPECT_EQ(daemon->count("No updates are taken here any more"), 1u);
    stop(daemon);
    stop(standby, SIGKILL); // so that nobody tells it again
    start_alpha();
    EXPECT_EQ(add_region("lost", "alpha"), TBS_ST_NO_SERVER) << "it has not forgotten";
}

// Not even where its role's file is written anew: what it would begin is a term above that of the one who took over.
TEST_F(SiteMaster, APromotionTurnsTheOtherHostsOrTellsTheirCommand) {
    ASSERT_EQ(veliactl({"registry", "backup", "beta,nowhere"}).status, DONE);
    ASSERT_TRUE(eventually([] {
        std::array<char, RGY_WIRE_HOST_LIST_MAX + 1> list = {};
        char *text = list.data();
        return rvzd_rgy_get_backup(own_handle("beta").get(), RGY_PROTOCOL_VERSION, &text) == TBS_ST_OK &&
               std::string(list.data()).find("nowhere") != std::string::npos;
    })) << "the copy of the list";
    stop(daemon);
    const auto promoted = veliactl({"registry", "promote", "beta"});
    EXPECT_EQ(promoted.status, DONE) << promoted.errors;
    EXPECT_THAT(
        promoted.errors,
        HasSubstr("Host 'nowhere' does not follow 'beta' yet; run there: veliactl registry hosts --master beta"));
    for (const char *file : {"host/config/rgy_hosts.conf", "beta/host/config/rgy_hosts.conf"})
        EXPECT_THAT(site.read(file), testing::StartsWith("beta\n")) << file;
    EXPECT_EQ(add_region("two", "beta"), TBS_ST_OK);
}

TEST_F(SiteMaster, OneThatWasSupersededDoesNotBeginATermByItsRolesFile) {
    ASSERT_EQ(veliactl({"registry", "promote", "beta", "--force"}).status, DONE);
    ASSERT_TRUE(is_superseded("alpha")) << daemon->output();
    site.write("host/config/rgy_svr.conf", "not a server");
    ASSERT_TRUE(eventually([] { return state_of("alpha").role == RGY_SVR_NONE; })) << daemon->output();
    site.write("host/config/rgy_svr.conf", "master");
    ASSERT_TRUE(eventually([] { return state_of("alpha").role == RGY_SVR_MASTER; })) << daemon->output();
    EXPECT_EQ(state_of("alpha").term, 1u);
    EXPECT_FALSE(state_of("alpha").takes_updates);
    EXPECT_TRUE(state_of("beta").takes_updates) << standby->output();
}

TEST_F(SiteMaster, OneThatIsMadeByItsRolesFileTellsTheOneBefore) {
    site.write("host/config/rgy_hosts.conf", "alpha\n\n"); // so that it asks nobody
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    site.write("beta/host/config/rgy_svr.conf", "master");
    ASSERT_TRUE(eventually([] { return state_of("beta").takes_updates; })) << standby->output();
    EXPECT_TRUE(is_superseded("alpha")) << daemon->output() << standby->output();
}

TEST_F(SiteMaster, OneThatWasDownAsksTheOthersBeforeItServes) {
    stop(daemon);
    ASSERT_EQ(veliactl({"registry", "promote"}, on_beta()).status, DONE);
    ASSERT_EQ(add_region("after", "beta"), TBS_ST_OK);
    start_alpha();
    EXPECT_EQ(add_region("lost", "alpha"), TBS_ST_NO_SERVER);
    EXPECT_EQ(state_of("alpha").heard_host, "beta");
}

TEST_F(SiteMaster, AClaimOfAStrangerIsLookedInto) {
    site.configure("option registry-copy 1\n");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->says("is read again"));
    std::filesystem::remove_all(site.path("host/run")); // whoever comes now comes over IP
    const tbs_uuid_t registry = registry_of("alpha");
    const pid_t stranger = fork(); // without the connection of this process
    if (stranger == 0)
        _exit(state_of("alpha", 9, "nobody", registry).status == TBS_ST_OK && add_region("two") == TBS_ST_NO_ACCESS
                  ? 0
                  : 1);
    int status = 1;
    ASSERT_EQ(waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(state_of("alpha").heard_term, 0u);
    EXPECT_EQ(add_region("two"), TBS_ST_OK) << "nobody stopped it";
    EXPECT_EQ(state_of("alpha", 9, "nobody").status, TBS_ST_OK);
    EXPECT_EQ(add_region("three"), TBS_ST_OK) << "it is a term of another registry";
    EXPECT_EQ(state_of("alpha", 9, "nobody", registry).status, TBS_ST_OK);
    EXPECT_TRUE(is_superseded("alpha")) << "an administrator is believed";
    ASSERT_EQ(rvzd_rgy_svr_conf_change(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, RGY_CONF_PROMOTE, ""),
              TBS_ST_OK);
    EXPECT_EQ(state_of("alpha").term, 10u) << "and takes the claim back";
    EXPECT_EQ(add_region("four"), TBS_ST_OK);
}

// For its state.
uint64_t questions_to_beta() {
    rvzd_daemon_status_reply_t reply = {};
    uint64_t calls = 0;
    const auto handle = own_handle("beta");
    EXPECT_EQ(rvzd_daemon_status(handle.get(), &reply), TBS_ST_OK);
    for (uint32_t i = 0; i < reply.count; ++i)
        calls += reply.procedures[i].number == RVZD_PROC_REGISTRY_STATE ? reply.procedures[i].calls : 0;
    rvzd_daemon_status_free(&reply);
    return calls;
}

// Each look is a process, and asks the other hosts.
TEST_F(SiteMaster, ManyClaimsOfAStrangerAreLookedIntoOnce) {
    site.configure(std::string("option registry-copy 3600\n"));
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->says("is read again"));
    stop(standby);
    start_beta(); // looks once, and not again for an hour
    ASSERT_TRUE(eventually([] { return state_of("beta").current > 0; }));
    const uint64_t before = questions_to_beta();
    const tbs_uuid_t registry = registry_of("alpha");
    std::filesystem::remove_all(site.path("host/run")); // whoever comes now comes over IP
    const pid_t stranger = fork();                      // without the connection of this process
    if (stranger == 0) {
        const bool are_heard =
            !eventually([&] { return state_of("alpha", 9, "nobody", registry).status != TBS_ST_OK; }, 3);
        _exit(are_heard ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(eventually([&] { return questions_to_beta() > before; })) << "it is looked into";
    EXPECT_LE(questions_to_beta() - before, 2u);
}

TEST_F(SiteMaster, OneThatWasSupersededBecomesAStandbyAndKeepsWhatItAloneHad) {
    stop(standby, SIGKILL);
    ASSERT_EQ(add_region("only at alpha"), TBS_ST_OK);
    stop(daemon, SIGKILL);
    start_beta();
    ASSERT_EQ(veliactl({"registry", "promote"}, on_beta()).status, DONE);
    start_alpha();
    ASSERT_TRUE(is_superseded("alpha"));
    const auto demoted = veliactl({"registry", "demote"});
    EXPECT_EQ(demoted.status, DONE) << demoted.errors;
    EXPECT_TRUE(comes_to_have("alpha", {"one"})) << daemon->output();
    EXPECT_TRUE(std::filesystem::exists(site.path("host/priv/registry.db.old")));
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "beta\nbeta\n");
}

TEST_F(SiteMaster, ADemotionThatWouldLeaveACopyOfItselfIsRefused) {
    site.write("host/config/rgy_hosts.conf.old", "alpha\nbeta\n");
    const auto refused = veliactl({"registry", "demote"});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors,
                HasSubstr("would copy from itself: give the master that it is to follow with --follow"));
    EXPECT_EQ(site.read("host/config/rgy_svr.conf"), "master");
    EXPECT_EQ(veliactl({"registry", "demote", "--follow", "alpha"}).status, FAILED);
    EXPECT_EQ(turn("alpha", 3, 0, "alpha"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(turn("alpha", 3, 0, ""), TBS_ST_INVALID_ARG);
    EXPECT_EQ(turn("alpha", 9, 0, "beta"), TBS_ST_INVALID_ARG);
}

TEST_F(SiteMaster, UpdatesAreHeldForAWhileAndTakenAgain) {
    EXPECT_EQ(turn("beta", 1, 60), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(turn("alpha", 1, 60), TBS_ST_OK);
    EXPECT_EQ(add_region("held"), TBS_ST_TRY_AGAIN);
    EXPECT_FALSE(state_of("alpha").takes_updates);
    EXPECT_EQ(names_of(RGY_DB_REGIONS), Words{"one"});
    EXPECT_EQ(turn("alpha", 2, 0), TBS_ST_OK);
    EXPECT_EQ(add_region("two"), TBS_ST_OK);
    EXPECT_EQ(turn("alpha", 1, 1), TBS_ST_OK);
    EXPECT_TRUE(eventually([] { return add_region("three") == TBS_ST_OK; })) << "by itself";
}

// Whoever holds updates copies what there is then: one that is still being made would be lost.
TEST_F(SiteMaster, AHoldIsAnsweredBehindTheUpdatesThatWereTaken) {
    for (int tries = 0;; ++tries) {
        RegistryLock lock(site);
        Child::Options options;
        options.output_file = site.path("added");
        Child adder({VELIACTL, "registry", "add", "regions", "name=slow" + std::to_string(tries)}, options);
        std::atomic<bool> is_held = false;
        // So long that the update is at the lock in nearly all cases.
        eventually([&] { return state_of("beta").status != TBS_ST_OK; }, 0.5);
        std::thread holder([&] { is_held = turn("alpha", 1, 60) == TBS_ST_OK; });
        const bool is_held_at_once = eventually([&] { return is_held.load(); }, 1);
        lock.release();
        holder.join();
        EXPECT_TRUE(is_held);
        EXPECT_EQ(turn("alpha", 2, 0), TBS_ST_OK);
        if (adder.wait() == DONE) {
            EXPECT_FALSE(is_held_at_once) << "an update was in hand";
            return;
        }
        ASSERT_LT(tries, 5) << site.read("added"); // it came behind the hold
    }
}

TEST_F(SiteMaster, AStandbyTellsItsLagAndEachNewReasonOnce) {
    const auto status = [&] { return objects({"daemon", "status", "beta"})[0]; };
    EXPECT_EQ(status()["role"], "standby");
    EXPECT_EQ(status()["source"], "alpha");
    EXPECT_EQ(status()["failure"].kind, Json::Kind::null);
    stop(daemon, SIGKILL);
    ASSERT_TRUE(eventually([] { return !state_of("beta").failure.empty(); })) << standby->output();
    EXPECT_THAT(state_of("beta").failure, HasSubstr("Trouble contacting registry on host \"alpha\""));
    ASSERT_TRUE(eventually([] {
        const auto state = state_of("beta");
        return state.now - state.current >= 3;
    }));
    EXPECT_EQ(standby->count("Trouble contacting registry on host \"alpha\""), 1u) << standby->output();
    start_alpha();
    EXPECT_TRUE(standby->says("--copy-registry succeeds again")) << standby->output();
    EXPECT_TRUE(eventually([] { return state_of("beta").failure.empty(); }));
    EXPECT_EQ(standby->count("Exiting, status"), 0u) << standby->output();
}

TEST_F(SiteMaster, TheWholeTurnLosesNothingAndShowsEachStep) {
    std::atomic<bool> is_enough = false;
    std::atomic<int> added = 0;
    Words names = {"one"};
    std::thread writer([&] {
        for (int i = 0; !is_enough; ++i)
            if (add_region("n" + std::to_string(i)) == TBS_ST_OK) {
                names.push_back("n" + std::to_string(i));
                ++added;
            }
    });
    EXPECT_TRUE(eventually([&] { return added > 10; }));
    const auto outcome = make_master();
    is_enough = true;
    writer.join();
    EXPECT_EQ(outcome.status, DONE) << outcome.errors << daemon->output();
    Words steps;
    for (const auto &row : objects_of(outcome.output))
        steps.push_back(row["step"].text() + " " + row["host"].text());
    EXPECT_EQ(steps, (Words{"find alpha", "hold alpha", "copy beta", "promote beta", "demote alpha", "follow alpha",
                            "follow beta"}));
    expect_turned(names);
    EXPECT_EQ(make_master().status, DONE) << "again";
    expect_turned(names);
}

// The tool is killed behind each of its steps, at the latest; what it left is gone on with.
TEST_F(SiteMaster, ATurnThatBreaksOffAtAnyStepIsGoneOnWith) {
    Words names = {"one"};
    for (size_t lines = 0; lines <= 7; ++lines) {
        Child::Options options;
        options.output_file = site.path("steps");
        site.write("steps", "");
        {
            Child tool({VELIACTL, "site", "master", "beta", "--output", "jsonl"}, options);
            eventually([&] {
                const std::string shown = site.read("steps");
                return static_cast<size_t>(std::count(shown.begin(), shown.end(), '\n')) >= lines;
            });
            tool.signal(SIGKILL);
            tool.wait();
        }
        const auto outcome = make_master();
        ASSERT_EQ(outcome.status, DONE) << lines << outcome.errors << daemon->output() << standby->output();
        expect_turned(names);
        names.push_back("n" + std::to_string(lines));
        ASSERT_EQ(add_region(names.back(), "beta"), TBS_ST_OK);
        // And back, for the next one.
        ASSERT_TRUE(comes_to_have("alpha", names));
        const auto back = veliactl({"site", "master", "alpha"});
        ASSERT_EQ(back.status, DONE) << lines << back.errors;
        ASSERT_TRUE(eventually([] { return state_of("beta").master == "alpha"; }));
    }
}

TEST_F(SiteMaster, AHostThatIsDownAmidTheTurnIsTold) {
    stop(daemon, SIGKILL);
    const auto refused = make_master();
    EXPECT_EQ(refused.status, UNREACHABLE);
    EXPECT_THAT(refused.errors, HasSubstr("The master 'alpha' does not answer"));
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
    const auto forced = make_master({"--force"});
    EXPECT_EQ(forced.status, DONE) << forced.errors;
    EXPECT_TRUE(state_of("beta").takes_updates);
    start_alpha();
    EXPECT_EQ(add_region("lost", "alpha"), TBS_ST_NO_SERVER);
    EXPECT_EQ(make_master().status, DONE) << "goes on where it was";
    expect_turned({"one"});
    stop(standby, SIGKILL);
    EXPECT_EQ(make_master().status, UNREACHABLE);
}

TEST_F(SiteMaster, AStandbyThatDoesNotCopyIsNotPromotedAndUpdatesGoOn) {
    site.write("beta/host/config/rgy_hosts.conf", "alpha\n\n");
    ASSERT_EQ(rvzd_rgy_set_backup(own_handle("alpha").get(), RGY_PROTOCOL_VERSION, "gamma"), TBS_ST_OK);
    ASSERT_TRUE(eventually([] { return !state_of("beta").failure.empty(); }));
    ASSERT_EQ(add_region("two"), TBS_ST_OK);
    const auto outcome = make_master({"--timeout", "2"});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.errors, HasSubstr("Host 'beta' has not come to have what the master has"));
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
    EXPECT_EQ(add_region("three"), TBS_ST_OK);
}

TEST_F(SiteMaster, ADemotionThatWouldLeaveNoMasterIsRefused) {
    const auto circle = veliactl({"registry", "demote", "--follow", "beta"});
    EXPECT_EQ(circle.status, FAILED);
    EXPECT_THAT(circle.errors, HasSubstr("Host 'beta' is no master, but: standby. \"veliactl site master beta\""));
    const auto unknown = veliactl({"registry", "demote", "--follow", "nowhere"});
    EXPECT_EQ(unknown.status, FAILED);
    EXPECT_THAT(unknown.errors, HasSubstr("There is no host 'nowhere'"));
    site.write("host/config/rgy_hosts.conf.old", "beta\nbeta\n"); // from before a promotion
    EXPECT_EQ(veliactl({"registry", "demote"}).status, FAILED);
    EXPECT_TRUE(state_of("alpha").takes_updates);
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nbeta\n");
}

// It can tell whose copy it has all the same.
TEST_F(SiteMaster, OneThatLivesIsFoundAlsoWhereTheStandbyCopiesFromItself) {
    site.write("beta/host/config/rgy_hosts.conf", "beta\n\n");
    ASSERT_TRUE(eventually([] { return !state_of("beta").failure.empty(); })) << standby->output();
    ASSERT_EQ(add_region("two"), TBS_ST_OK);
    const auto promoted = veliactl({"registry", "promote"}, on_beta());
    EXPECT_EQ(promoted.status, FAILED);
    EXPECT_THAT(promoted.errors, HasSubstr("Host 'alpha' is the master and takes updates"));
    const auto turned = make_master({"--timeout", "2"}, on_beta());
    EXPECT_EQ(turned.status, FAILED) << turned.output;
    EXPECT_THAT(turned.errors, HasSubstr("the hosts file names this host"));
    EXPECT_EQ(state_of("beta").role, RGY_SVR_STANDBY);
    EXPECT_EQ(add_region("three"), TBS_ST_OK);
    stop(daemon, SIGKILL);
    const auto silent = make_master({}, on_beta());
    EXPECT_EQ(silent.status, UNREACHABLE) << silent.output;
    EXPECT_THAT(silent.errors, HasSubstr("The master 'alpha' does not answer"));
    start_alpha();
    site.write("beta/host/config/rgy_hosts.conf", "alpha\n\n");
    ASSERT_TRUE(comes_to_have("beta", {"one", "two", "three"})) << standby->output();
    EXPECT_EQ(make_master({}, on_beta()).status, DONE);
    expect_turned({"one", "two", "three"});
}

// The host of a higher term is this one itself: somebody has put an older registry in the place of its own.
TEST_F(SiteMaster, OneThatWasSupersededByItselfIsToldHowToGoOn) {
    stop(daemon);
    const std::string stored = site.path("host/priv/registry.db");
    std::filesystem::copy_file(stored, site.path("older"));
    start_alpha();
    for (const char *host : {"beta", "alpha"})
        ASSERT_EQ(veliactl({"site", "master", host}).status, DONE);
    ASSERT_TRUE(eventually([] { return state_of("beta").term == 3; })) << standby->output();
    stop(daemon);
    for (const char *suffix : {"", "-wal", "-shm", ".made"})
        std::filesystem::remove(stored + suffix);
    std::filesystem::copy_file(site.path("older"), stored);
    start_alpha();
    EXPECT_TRUE(daemon->says("veliactl registry promote alpha --force")) << daemon->output();
    EXPECT_THAT(
        veliactl({"doctor", "--output", "jsonl"}).output,
        HasSubstr("its registry is an older one; to go on with it, run: veliactl registry promote alpha --force"));
    EXPECT_EQ(add_region("refused"), TBS_ST_NO_SERVER);
    EXPECT_EQ(turn("alpha", RVZD_TURN_HOLD, 60), TBS_ST_UNSUPPORTED) << "no other host has taken over";
    EXPECT_EQ(veliactl({"registry", "promote", "alpha", "--force"}).status, DONE);
    EXPECT_TRUE(eventually([] { return add_region("two") == TBS_ST_OK; })) << daemon->output();
    EXPECT_TRUE(comes_to_have("beta", {"one", "two"})) << standby->output();
}

// The promotion is made when nobody waits for its answer any more.
TEST_F(SiteMaster, AnUpdateIsNotTakenWhileAPromotionIsStillToBeMade) {
    RegistryLock lock(site, "beta/host/priv/registry.db");
    const auto outcome = make_master({"--timeout", "2"});
    EXPECT_EQ(outcome.status, UNREACHABLE) << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr("Updates stay held"));
    EXPECT_FALSE(state_of("alpha").takes_updates);
    EXPECT_EQ(state_of("alpha").role, RGY_SVR_MASTER);
    lock.release();
    ASSERT_TRUE(eventually([] { return state_of("beta").takes_updates; }, 20)) << standby->output();
    EXPECT_EQ(make_master().status, DONE) << "goes on where it was";
    expect_turned({"one"});
}

// As when the copy takes longer than updates are held.
TEST_F(SiteMaster, AnUpdateThatWasTakenAmidTheCopyIsNotLost) {
    ASSERT_EQ(add_region("two"), TBS_ST_OK);
    Child::Options options;
    options.output_file = site.path("steps");
    std::optional<RegistryLock> lock(std::in_place, site, "beta/host/priv/registry.db");
    Child tool({VELIACTL, "site", "master", "beta", "--output", "jsonl"}, options);
    ASSERT_TRUE(eventually([&] { return site.read("steps").find("\"hold\"") != std::string::npos; }));
    const std::string before_name = "by the turn of the site to \"";
    ASSERT_TRUE(daemon->says(before_name));
    const std::string log = daemon->output();
    const size_t name = log.rfind(before_name) + before_name.size();
    const std::string turn_name = log.substr(name, log.find('"', name) - name);
    ASSERT_THAT(turn_name, testing::StartsWith("beta#"));
    ASSERT_TRUE(eventually([&] {
        return turn("alpha", RVZD_TURN_RELEASE, 0, turn_name.c_str()) == TBS_ST_OK && add_region("three") == TBS_ST_OK;
    }));
    EXPECT_TRUE(eventually([] { return !state_of("alpha").takes_updates; })) << "they are held again";
    lock.reset();
    EXPECT_EQ(tool.wait(30), DONE) << site.read("steps");
    expect_turned({"one", "two", "three"});
}

TEST_F(SiteMaster, WhatIsNoStandbyIsNotMadeTheMaster) {
    site.write("beta/host/config/rgy_svr.conf", "not a server");
    ASSERT_TRUE(eventually([] { return state_of("beta").role == RGY_SVR_NONE; }));
    const auto outcome = make_master();
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.errors, HasSubstr("Host 'beta' is no standby"));
}

struct DaemonStatus : RegistrySite {};

TEST_F(DaemonStatus, TellsWhatADaemonIsAndWasAskedFor) {
    start_alpha();
    ASSERT_EQ(add_region("one"), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return objects({"daemon", "status", "alpha"})[0]["entries"].scalar == "1"; }));
    const auto status = objects({"daemon", "status", "alpha"})[0];
    EXPECT_EQ(status["host"], "alpha");
    EXPECT_EQ(status["role"], "master");
    EXPECT_EQ(status["takes_updates"], "yes");
    EXPECT_EQ(status["term"].scalar, "1");
    EXPECT_EQ(status["services"].scalar, "0");
    EXPECT_EQ(status["lag_s"].kind, Json::Kind::null);
    EXPECT_THAT(status["requests"]["rgy_add_entry"].scalar, testing::MatchesRegex("1/[0-9]+/[0-9]+"));
    EXPECT_EQ(veliactl({"daemon", "status", "beta"}).status, UNREACHABLE);
}

TEST_F(DaemonStatus, AConfigurationIsCheckedWithoutADaemonAndToldWhenItIsReadAgain) {
    site.configure(std::string("task 1 shell /bin/sh\n") + trusted_hosts);
    const std::string file = site.path("rvzd_server.conf");
    const auto good = run_apart(site, {RVZD_SERVER, "--check-config", "-f", file});
    EXPECT_EQ(good.status, 0) << good.errors;
    EXPECT_EQ(good.output, "The configuration file \"" + file + "\" is right: 0 services, 1 tasks, 1 access lines.\n");
    start_alpha();
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("\"" + file + "\" is read again: 0 services, 1 tasks, 1 access lines."))
        << daemon->output();
    site.configure("nonsense\n");
    const auto bad = run_apart(site, {RVZD_SERVER, "--check-config", "-f", file});
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.errors, HasSubstr("rvzd_server.conf"));
    EXPECT_THAT(bad.output + bad.errors, Not(HasSubstr("Exiting")));
    daemon->signal(SIGHUP);
    EXPECT_TRUE(daemon->says("Failure parsing configuration file")) << daemon->output();
    EXPECT_EQ(daemon->count("is read again"), 1u);
}

} // namespace
