// What a person has written into a variable or a file of the site and nobody can mean: it is told once, with its place.
#include <gmock/gmock.h>

#include <csignal>

#include <tests/system/support/veliactl.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::Not;

namespace {

size_t count(const std::string &text, const std::string &part) {
    size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

struct Misunderstood : VeliactlTest {
    void SetUp() override { serve_registry(); }

    // What a command with several questions of every kind says on standard error.
    std::string errors(const Words &environment = {}) const {
        const auto outcome = veliactl({"registry", "list", "regions", "--host", "alpha"}, environment);
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
        return outcome.errors;
    }
    void expect_told_once(const Words &environment, const std::string &variable, const std::string &item) const {
        const std::string words =
            "Warning: Variable " + variable + ": \"" + item + "\" is not understood and passed over.\n";
        const std::string told = errors(environment);
        EXPECT_EQ(count(told, words), 1u) << environment[0] << ": " << told;
    }
};

TEST_F(Misunderstood, VerbosityIsToldOnce) {
    for (const char *value : {"loud", "-1", "3x", "99999999999999999999", " "})
        expect_told_once({std::string("VELIA_VERBOSITY=") + value}, "VELIA_VERBOSITY", value);
    for (const char *value : {"", "0", "1", "9"})
        EXPECT_THAT(errors({std::string("VELIA_VERBOSITY=") + value}), Not(HasSubstr("not understood")));
}

TEST_F(Misunderstood, TraceIsToldOnceWithItsItem) {
    for (const char *item : {"registry:loud", "registry:", ":3", "registry:-1"})
        expect_told_once({std::string("VELIA_TRACE=pfm:1,") + item + ",poolmap"}, "VELIA_TRACE", item);
    const std::string longest(100, 'n');
    expect_told_once({"VELIA_TRACE=" + longest}, "VELIA_TRACE", longest.substr(0, 63));
    for (const char *value : {"", "registry", "all:3", "registry:5,xdr/rvzd:4,", "own/subsystem:2"})
        EXPECT_THAT(errors({std::string("VELIA_TRACE=") + value}), Not(HasSubstr("not understood")));
}

TEST_F(Misunderstood, LinesOfTheSitesHostsAreToldOnceWithTheirNumbers) {
    site.write("config/hosts.conf", "alpha 127.0.0.1 # this host\nnowhere\nlost 127.0.0.999 127.0.0.4\n\n# note\n" +
                                        std::string(2000, 'x') + "\nsix fe80::1%lo ::1\nword 127.0.0.1 beta\n");
    const std::string told = errors();
    const auto line = [&](int number, const std::string &fault) {
        return "Warning: Line " + std::to_string(number) + " of \"" + site.path("config/hosts.conf") +
               "\" is not understood: " + fault + ".\n";
    };
    EXPECT_EQ(count(told, line(2, "there is no address")), 1u) << told;
    EXPECT_EQ(count(told, line(3, "an address is malformed")), 1u) << told;
    EXPECT_EQ(count(told, line(6, "it is too long")), 1u) << told;
    EXPECT_EQ(count(told, line(8, "an address is malformed")), 1u) << told;
    EXPECT_EQ(count(told, "not understood"), 4u) << told;
}

TEST_F(Misunderstood, LinesOfTheSitesServicesAreToldOnceWithTheirNumbers) {
    const std::string port = std::to_string(site.port());
    site.write("config/services.conf", "ironvale\nrvzd none\nrvzd 70000\nrvzd " + port + "/sctp\nrvzd " + port +
                                           "/udp\nrvzd " + port + "/TCP # both\n");
    const std::string told = errors();
    const auto line = [&](int number, const std::string &fault) {
        return "Warning: Line " + std::to_string(number) + " of \"" + site.path("config/services.conf") +
               "\" is not understood: " + fault + ".\n";
    };
    EXPECT_EQ(count(told, line(1, "there is no port")), 1u) << told;
    EXPECT_EQ(count(told, line(2, "the port is malformed")), 1u) << told;
    EXPECT_EQ(count(told, line(3, "the port is malformed")), 1u) << told;
    EXPECT_EQ(count(told, line(4, "the protocol is neither udp nor tcp")), 1u) << told;
    EXPECT_EQ(count(told, "not understood"), 4u) << told;
}

TEST_F(Misunderstood, SoundFilesAndVariablesAreNotTold) {
    EXPECT_THAT(errors({"VELIA_VERBOSITY=0"}), Not(HasSubstr("not understood")));
    EXPECT_EQ(daemon->count("not understood"), 0u) << daemon->output();
}

TEST_F(Misunderstood, AProcessThatAsksAgainIsNotToldAgain) {
    site.write("config/hosts.conf", "alpha 127.0.0.1\nnowhere\nbeta 127.0.0.2\n");
    daemon.reset();
    serve("", {"--listen", "alpha", "--listen", "beta"});
    EXPECT_TRUE(daemon->says("Line 2 of \"" + site.path("config/hosts.conf") + "\" is not understood"));
    EXPECT_EQ(daemon->count("Line 2 of \"" + site.path("config/hosts.conf") + "\" is not understood"), 1u)
        << daemon->output();
    EXPECT_EQ(count(veliactl({"contact", "alpha"}).errors, "is not understood"), 1u);
}

// Each subsystem that traces, with the least level that shows something here, and words of it.
struct Traced {
    const char *entry;
    Words command;
    const char *words;
};

TEST_F(Misunderstood, ALevelOfEachSubsystemShowsSomethingOnAnOrdinaryCall) {
    site.configure(sample_line(390600, "shared", "-"));
    daemon->signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return veliactl({"server", "find", "alpha", "--prog", "390600"}).status == DONE; }));
    const Traced traces[] = {
        {"xdr/rvzd:2", {"server", "connect", "alpha", "--prog", "390600", "--proto", "tcp"}, "127.0.0.1"},
        {"xdr/rvzd:3", {"probe", "alpha"}, "trying 127.0.0.1"},
        {"xdr/rvzd:4", {"contact", "alpha"}, "port"},
        {"registry:3", {"registry", "stats", "regions", "--string", "name=x", "--times", "2"}, "hits"},
        {"registry:5", {"registry", "find", "regions", "--string", "name=x"}, "name"},
    };
    for (const auto &[entry, command, words] : traces) {
        EXPECT_THAT(veliactl(command, {std::string("VELIA_TRACE=") + entry}).errors, HasSubstr(words)) << entry;
        EXPECT_THAT(veliactl(command, {"VELIA_TRACE=none:9"}).errors, Not(HasSubstr(words))) << entry;
    }
}

TEST_F(Misunderstood, TheDaemonTracesRegistrationsAndTheListOfClients) {
    daemon.reset();
    setenv("VELIA_TRACE", "xdr/rvzd:1,clnt_list:4", 1);
    serve(sample_line(390600, "shared", "-"));
    unsetenv("VELIA_TRACE");
    ASSERT_EQ(veliactl({"server", "find", "alpha", "--prog", "390600"}).status, DONE);
    EXPECT_TRUE(daemon->says("Waiting")) << daemon->output();
    errors();
    EXPECT_TRUE(daemon->says("clnt_list_write_file")) << daemon->output();
    EXPECT_TRUE(daemon->says(site.path("host/priv/clients.new"))) << daemon->output();
}

} // namespace
