// The administrator's tool against real daemons: exit statuses, forms of output, and what goes to which stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/json.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

enum ExitStatus { DONE = 0, FAILED = 1, WRONG_USE = 2, UNREACHABLE = 3 };

constexpr uint32_t program = 390600;
const std::string program_text = std::to_string(program);

struct Veliactl : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void serve(const std::string &configuration = sample_line(program, "shared", "-")) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }

    Outcome veliactl(std::vector<std::string> words, const std::vector<std::string> &environment = {}) const {
        words.insert(words.begin(), VELIACTL);
        return run_apart(site, words, environment);
    }
};

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

} // namespace

TEST_F(Veliactl, ContactTellsProtocolAndAddress) {
    serve();
    const auto outcome = veliactl({"contact", "--output", "json", "alpha"});
    EXPECT_EQ(outcome.status, DONE);
    EXPECT_THAT(outcome.errors, IsEmpty());
    const auto object = Json::parse(outcome.output)[0];
    EXPECT_EQ(object["host"], "alpha");
    EXPECT_EQ(object["transport"], "udp");
    EXPECT_EQ(object["protocol"], 6);
    EXPECT_GT(object["round_trip_ms"].number(), 0.0);
    ASSERT_EQ(object["addresses"].size(), 1u);
    EXPECT_THAT(object["addresses"][0].text(), HasSubstr("127.0.0.1"));
}

TEST_F(Veliactl, ContactOfAnOldDaemonTellsItsProtocol) {
    serve("option protocol 5\n");
    const auto outcome = veliactl({"contact", "--transport", "tcp", "-o", "json", "alpha"});
    EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    EXPECT_EQ(Json::parse(outcome.output)[0]["protocol"], 5);
}

TEST_F(Veliactl, ContactOfNobodyIsUnreachableAndSilentOnStandardOutput) {
    const auto outcome = veliactl({"contact", "--transport", "tcp", "alpha"});
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, HasSubstr("Unable to contact rvzd_server on host 'alpha'"));
}

TEST_F(Veliactl, ContactOfAnUnknownHostNamesIt) {
    const auto outcome = veliactl({"contact", "nobody.invalid"});
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_THAT(outcome.errors, HasSubstr("nobody.invalid"));
}

TEST_F(Veliactl, AnUnknownHostIsUnreachableInEveryCommand) {
    const std::string nobody = "nobody.invalid";
    const std::string uuid = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";
    const std::vector<std::vector<std::string>> of_a_host = {{"contact", nobody},
                                                             {"probe", nobody},
                                                             {"server", "list", nobody},
                                                             {"server", "find", nobody, "--prog", "1"},
                                                             {"server", "connect", nobody, "--prog", "1"},
                                                             {"host", "info", nobody},
                                                             {"host", "tz", nobody},
                                                             {"clients", "list", nobody},
                                                             {"clients", "lookup", nobody, "x"},
                                                             {"registry", "promote", nobody},
                                                             {"site", "master", nobody},
                                                             {"daemon", "status", nobody}};
    const std::vector<std::vector<std::string>> of_the_registry = {
        {"registry", "list", "regions"},
        {"registry", "find", "regions", "--string", "name=x"},
        {"registry", "stats", "regions", "--string", "name=x"},
        {"registry", "add", "regions", "name=x"},
        {"registry", "remove", "regions", "--string", "name=x"},
        {"registry", "dbs"},
        {"registry", "save", site.path("saved")},
        {"registry", "check"},
        {"view", "list"},
        {"vault", "list"},
        {"view", "add", uuid, "--hostname", "h", "--path", "/v"},
        {"vault", "add", uuid, "--family", uuid, "--hostname", "h", "--path", "/v"}};
    const auto expect_unreachable = [&](const std::vector<std::string> &words) {
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, UNREACHABLE) << testing::PrintToString(words) << outcome.errors;
        EXPECT_THAT(outcome.errors, HasSubstr(nobody)) << testing::PrintToString(words);
    };
    for (const auto &words : of_a_host)
        expect_unreachable(words);
    for (auto words : of_the_registry) {
        words.insert(words.end(), {"--host", nobody});
        expect_unreachable(words);
    }
    site.write("host/config/rgy_hosts.conf", nobody + "\n\n");
    expect_unreachable({"registry", "list", "regions"});
    expect_unreachable({"registry", "backup"});
}

TEST_F(Veliactl, ContactOfSeveralTellsTheGoodAndFailsForTheOthers) {
    serve();
    const auto outcome = veliactl({"contact", "--no-headers", "nobody.invalid", "alpha"});
    EXPECT_EQ(outcome.status, UNREACHABLE);
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(0, 5), "alpha");
}

TEST_F(Veliactl, ASilentHostIsGivenUpAfterTheTimeOut) {
    // A socket that takes datagrams and answers none.
    const int silent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(site.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    for (const char *timeout : {"1", "0.01"}) {
        const auto outcome = veliactl({"contact", "--timeout", timeout, "alpha"});
        EXPECT_EQ(outcome.status, UNREACHABLE);
        EXPECT_THAT(outcome.errors, HasSubstr(std::string("Nothing came from host 'alpha' within ") + timeout));
    }
    close(silent);
}

TEST_F(Veliactl, PlainFormHasAlignedColumnsUnderTheirNames) {
    serve();
    const auto outcome = veliactl({"server", "find", "alpha", "--prog", program_text});
    EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, 6), "HOST  ");
    EXPECT_EQ(lines[0].find("PROG"), lines[1].find(program_text));
    EXPECT_THAT(lines[1], Not(HasSubstr("|")));
    EXPECT_NE(lines[1].back(), ' ');
}

TEST_F(Veliactl, TableFormHasBorders) {
    serve();
    const auto outcome = veliactl({"server", "find", "alpha", "--prog", program_text, "--output", "table"});
    EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 5u);
    for (const size_t border : {0u, 2u, 4u})
        EXPECT_EQ(lines[border].find_first_not_of("+-"), std::string::npos) << lines[border];
    for (const auto &line : lines)
        EXPECT_EQ(line.size(), lines[0].size());
}

TEST_F(Veliactl, FormComesFromTheEnvironmentAndTheSwitchBeatsIt) {
    serve();
    const std::vector<std::string> environment = {"VELIACTL_OUTPUT=json"};
    const auto by_environment = veliactl({"contact", "alpha"}, environment);
    EXPECT_TRUE(Json::parse(by_environment.output).is_valid()) << by_environment.output;
    const auto by_switch = veliactl({"contact", "--output", "plain", "alpha"}, environment);
    EXPECT_EQ(by_switch.output.substr(0, 4), "HOST");
    const auto by_nonsense = veliactl({"contact", "alpha"}, {"VELIACTL_OUTPUT=xml"});
    EXPECT_EQ(by_nonsense.status, WRONG_USE);
    EXPECT_THAT(by_nonsense.errors,
                StartsWith("veliactl: Error: VELIACTL_OUTPUT: must be plain, json, jsonl or table"));
}

TEST_F(Veliactl, FindStartsTheServerAndTellsItsAddress) {
    serve();
    const auto outcome =
        veliactl({"server", "find", "alpha", "--prog", "0x5f5c8", "--proto", "tcp", "--output", "json"});
    EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    const auto object = Json::parse(outcome.output)[0];
    EXPECT_EQ(object["prog"], program);
    EXPECT_EQ(object["proto"], "tcp");
    EXPECT_EQ(daemon->started(1).size(), 1u);
}

TEST_F(Veliactl, FindOfAnUnknownServerFailsAndSaysWhich) {
    serve();
    const auto outcome = veliactl({"server", "find", "alpha", "--prog", "12345"});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, HasSubstr("No server of program 12345 version 1 on host 'alpha'"));
}

TEST_F(Veliactl, FindWithoutADaemonIsUnreachable) {
    EXPECT_EQ(veliactl({"server", "find", "alpha", "--prog", program_text, "--timeout", "1"}).status, UNREACHABLE);
}

TEST_F(Veliactl, ConnectCallsTheServerOverBothTransports) {
    serve();
    for (const std::string transport : {"udp", "tcp"}) {
        const auto outcome =
            veliactl({"server", "connect", "alpha", "--prog", program_text, "--proto", transport, "-o", "json"});
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
        const auto object = Json::parse(outcome.output);
        EXPECT_EQ(object["proto"], transport);
        EXPECT_GT(object["round_trip_ms"].number(), 0.0);
    }
}

TEST_F(Veliactl, WrongUseIsToldWithItsOwnStatus) {
    const std::vector<std::vector<std::string>> uses = {{},
                                                        {"nonsense"},
                                                        {"contact"},
                                                        {"contact", "--timeout", "0", "alpha"},
                                                        {"contact", "--timeout", "x", "alpha"},
                                                        {"contact", "--output", "xml", "alpha"},
                                                        {"contact", "--transport", "sctp", "alpha"},
                                                        {"server"},
                                                        {"server", "find", "alpha"},
                                                        {"server", "find", "--prog", "1"},
                                                        {"server", "find", "alpha", "--prog", "4294967296"},
                                                        {"server", "find", "alpha", "--prog", "-1"},
                                                        {"server", "connect", "alpha", "--prog", "1", "--uuid", "x"}};
    for (const auto &use : uses) {
        const auto outcome = veliactl(use);
        EXPECT_EQ(outcome.status, WRONG_USE) << testing::PrintToString(use);
        EXPECT_THAT(outcome.output, IsEmpty()) << testing::PrintToString(use);
        EXPECT_THAT(outcome.errors, StartsWith("veliactl: Error: ")) << testing::PrintToString(use);
    }
}

TEST_F(Veliactl, CommonOptionsStandInFrontOfTheCommandOrBehindIt) {
    const auto behind = veliactl({"poolmap", "explain", "/a/=/b/", "--output", "table", "--no-headers"});
    EXPECT_THAT(behind.output, StartsWith("+-"));
    EXPECT_EQ(veliactl({"--output", "table", "--no-headers", "poolmap", "explain", "/a/=/b/"}).output, behind.output);
    EXPECT_EQ(veliactl({"-o", "plain", "poolmap", "--no-headers", "explain", "/a/=/b/", "-o", "table"}).status,
              WRONG_USE)
        << "but not within the words that lead to it";
    EXPECT_EQ(veliactl({"-o", "plain", "--no-headers", "poolmap", "explain", "/a/=/b/", "-o", "table"}).output,
              behind.output);
}

TEST_F(Veliactl, HelpTellsWhereElseOptionsComeFrom) {
    const auto help = veliactl({"--help"}).output;
    EXPECT_THAT(help, HasSubstr("VELIACTL_OUTPUT"));
    EXPECT_THAT(help, HasSubstr("veliactl.toml"));
}

TEST_F(Veliactl, HelpIsAsWideAsTheTerminal) {
    const auto widest = [](const std::string &text) {
        size_t most = 0;
        for (const auto &line : lines_of(text))
            most = std::max(most, line.size());
        return most;
    };
    const std::vector<std::string> help = {"server", "list", "--help"};
    const size_t usual = widest(veliactl(help).output);
    EXPECT_LE(usual, 80u);
    EXPECT_GT(usual, 70u);
    const size_t wide = widest(veliactl(help, {"COLUMNS=100"}).output);
    EXPECT_LE(wide, 100u);
    EXPECT_GT(wide, 80u);
    for (const char *nonsense : {"COLUMNS=", "COLUMNS=x", "COLUMNS=-3", "COLUMNS=0"})
        EXPECT_EQ(widest(veliactl(help, {nonsense}).output), usual) << nonsense;
}

TEST_F(Veliactl, HelpHasExamplesAndTheExitStatuses) {
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"contact"}, {"server", "find"}, {"server", "connect"}}) {
        auto words = command;
        words.push_back("--help");
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, DONE);
        EXPECT_THAT(outcome.output, HasSubstr("Examples:"));
        EXPECT_THAT(outcome.output, HasSubstr("0 done, 1 failed, 2 wrong use, 3 peer unreachable"));
        EXPECT_THAT(outcome.output, HasSubstr("a value with a blank or a double quote stands in double"));
        for (const char *option : {"--output", "--timeout", "--no-headers"})
            EXPECT_THAT(outcome.output, HasSubstr(option));
    }
}
