// The daemon's configuration file: what a good line makes, and the words of every malformed one.
#include <tests/unit/server/messages_fixture.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <server/config/configuration.h>
#include <tests/bad_files.h>

using namespace velia::server;

namespace {

using server_tests::row;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char file[] = "rvzd_server.conf";

const NameLookup names = {
    [](const std::string &name) { return name == "build" ? std::optional<uid_t>(1001) : std::nullopt; },
    [](const std::string &name) { return name == "users" ? std::optional<gid_t>(100) : std::nullopt; },
};

class ConfigurationFile : public server_tests::MessagesTest {
protected:
    // The services of a text without errors.
    static std::vector<Service> services(std::string_view text) {
        const auto result = parse_configuration(text, names);
        EXPECT_THAT(result.errors, IsEmpty());
        return result.configuration.services;
    }
    static Service service(std::string_view line) {
        const auto made = services(line);
        EXPECT_EQ(made.size(), 1u);
        return made.empty() ? Service{} : made.front();
    }
    static Options options(std::string_view text) {
        const auto result = parse_configuration(text, names);
        EXPECT_THAT(result.errors, IsEmpty());
        return result.configuration.options;
    }
    // What is told of a text.
    std::vector<server_tests::Message> told(std::string_view text) {
        print_configuration_errors(file, parse_configuration(text, names).errors);
        return messages();
    }
    // Of a line that stands second, behind a good one, and makes nothing.
    std::vector<server_tests::Message> told_of_line(const std::string &line) {
        const auto result = parse_configuration("udp shared 1 1 - - - /good\n" + line + "\n", names);
        EXPECT_EQ(result.configuration.services.size(), 1u) << line;
        print_configuration_errors(file, result.errors);
        return messages();
    }
    static server_tests::Message failure(const char *detail, unsigned long line = 2) {
        return row(IMSG_ERROR, MSG_CONFIG_FAILURE, file, line, detail);
    }
};

TEST_F(ConfigurationFile, OfNothingIsEmptyWithTheUsualOptions) {
    for (const char *text : {"", "\n\n", "# comment\n   \n", "\r\n"}) {
        EXPECT_THAT(services(text), IsEmpty());
        EXPECT_EQ(options(text), Options{});
    }
}

TEST_F(ConfigurationFile, LineBecomesAService) {
    const Service made = service("udp,tcp dedicated 390600 0x2 max=4,idle=60,start=5,busy=7,restarts=9 build users "
                                 "/usr/bin/server -v \"two words\"");
    EXPECT_TRUE(made.udp);
    EXPECT_TRUE(made.tcp);
    EXPECT_EQ(made.kind, ServerKind::dedicated);
    EXPECT_EQ(made.program, 390600u);
    EXPECT_EQ(made.version, 2u);
    EXPECT_EQ(made.control, (Control{4, 60, 5, 7, 9}));
    EXPECT_EQ(made.user, 1001u);
    EXPECT_EQ(made.group, 100u);
    EXPECT_EQ(made.path, "/usr/bin/server");
    EXPECT_THAT(made.arguments, ElementsAre("-v", "two words"));
}

TEST_F(ConfigurationFile, DashesStandForTheUsualControlAndTheDaemonsOwnAccount) {
    const Service made = service("tcp shared 390600 1 - - - /usr/bin/server");
    EXPECT_FALSE(made.udp);
    EXPECT_EQ(made.control, Control{});
    EXPECT_EQ(made.user, std::nullopt);
    EXPECT_EQ(made.group, std::nullopt);
    EXPECT_THAT(made.arguments, IsEmpty());
}

TEST_F(ConfigurationFile, DedicatedServersMayBeManyUnlessTold) {
    EXPECT_EQ(service("udp dedicated 1 1 - - - /a").control.processes_max, 32u);
    EXPECT_EQ(service("udp dedicated 1 1 max=2 - - /a").control.processes_max, 2u);
    EXPECT_EQ(service("udp resident 1 1 - - - /a").control.processes_max, 1u);
}

TEST_F(ConfigurationFile, LastLineNeedsNoNewline) {
    EXPECT_EQ(services("udp shared 1 1 - - - /a\nudp shared 2 1 - - - /b").size(), 2u);
}

TEST_F(ConfigurationFile, OptionsAreSetByName) {
    const Options made =
        options("option protocol 5\noption connections 7\noption idle-connection 8\noption request 9\n");
    EXPECT_EQ(made, (Options{5, 7, 8, 9}));
}

TEST_F(ConfigurationFile, OptionOutOfItsRangeOrUnknownIsToldAndLeavesTheUsual) {
    for (const char *option : {"protocol 4", "protocol 7", "protocol x", "connections 0", "connections 65537",
                               "idle-connection 0", "request 0", "request 86401", "colour 1", "protocol -5"}) {
        EXPECT_THAT(told(std::string("option ") + option),
                    ElementsAre(failure((std::string("Unknown option or value out of range: ") + option).c_str(), 1)));
    }
    EXPECT_THAT(told("option protocol"), ElementsAre(failure("An option is written: option NAME VALUE", 1)));
    EXPECT_THAT(told("option protocol 5 6"), ElementsAre(failure("An option is written: option NAME VALUE", 1)));
}

TEST_F(ConfigurationFile, OptionsOfFiguresAndTheLogAreSetByName) {
    const auto read = [](std::string_view text) { return parse_configuration(text, names).configuration; };
    EXPECT_EQ(read("").metrics, "");
    EXPECT_EQ(read("").log, LogOptions());
    EXPECT_EQ(read("option metrics 127.0.0.1:9100").metrics, "127.0.0.1:9100");
    EXPECT_EQ(read("option metrics /run/m").metrics, "/run/m");
    EXPECT_EQ(read("option log-level error\noption log-format json").log, (LogOptions{IMSG_ERROR, true}));
    EXPECT_EQ(read("option log-level warning\noption log-format text").log, (LogOptions{IMSG_WARNING, false}));
    EXPECT_EQ(read("option log-level info").log.least_severity, IMSG_PLAIN);
    EXPECT_EQ(read("option log-level trace").log.least_severity, IMSG_TRACE);
    EXPECT_THAT(told("option metrics build7:9100"),
                ElementsAre(failure("Neither ADDRESS:PORT, [IPV6 ADDRESS]:PORT nor the absolute path of a socket: "
                                    "build7:9100",
                                    1)));
    EXPECT_THAT(told("option log-level loud"),
                ElementsAre(failure("A log-level is error, warning, info or trace, not: loud", 1)));
    EXPECT_THAT(told("option log-format xml"), ElementsAre(failure("A log-format is text or json, not: xml", 1)));
}

TEST_F(ConfigurationFile, TheStoreIsAFileOrADatabase) {
    const auto database_of = [](std::string_view text) {
        const auto result = parse_configuration(text, names);
        EXPECT_THAT(result.errors, IsEmpty());
        return result.configuration.registry_database;
    };
    EXPECT_EQ(database_of(""), "");
    EXPECT_EQ(database_of("option store postgresql \"host=a,b dbname=c\"\n"), "host=a,b dbname=c");
    EXPECT_EQ(database_of("option store postgresql dbname=c\noption store sqlite\n"), "");
}

TEST_F(ConfigurationFile, ReadsComeFromTheDatabaseOrItsLastCopy) {
    const auto reads_from_copy = [](std::string_view text) {
        return parse_configuration(text, names).configuration.reads_from_copy;
    };
    EXPECT_FALSE(reads_from_copy(""));
    EXPECT_TRUE(reads_from_copy("option store-reads copy\n"));
    EXPECT_FALSE(reads_from_copy("option store-reads copy\noption store-reads database\n"));
    EXPECT_THAT(told_of_line("option store-reads file"),
                ElementsAre(failure("The store-reads are database or copy, not: file")));
}

TEST_F(ConfigurationFile, NamesAReplicaOfTheDatabase) {
    const auto replica_of = [](std::string_view text) {
        return parse_configuration(text, names).configuration.registry_replica;
    };
    EXPECT_EQ(replica_of("option store postgresql dbname=c\n"), "");
    EXPECT_EQ(replica_of("option store-replica \"host=a,b dbname=c\"\n"), "host=a,b dbname=c");
    for (const char *line : {"option store-replica", "option store-replica a b"})
        EXPECT_THAT(told_of_line(line), ElementsAre(failure("An option is written: option NAME VALUE"))) << line;
    EXPECT_THAT(told_of_line("option store-replica \"password=secret x=a\""),
                ElementsAre(failure("The replica's connection string is malformed: invalid connection option ...")))
        << "without what it says otherwise";
}

TEST_F(ConfigurationFile, AMalformedStoreIsTold) {
    const char *form = "The store is written: option store sqlite, or option store postgresql \"CONNECTION\"";
    for (const char *line : {"option store", "option store oracle", "option store postgresql", "option store sqlite x",
                             "option store postgresql a b"})
        EXPECT_THAT(told_of_line(line), ElementsAre(failure(form)));
    EXPECT_THAT(told_of_line("option store postgresql \"\""),
                ElementsAre(failure("The store's connection string is malformed: it is empty")));
    EXPECT_THAT(told_of_line("option store postgresql hots=a"),
                ElementsAre(failure("The store's connection string is malformed: invalid connection option \"hots\"")));
}

TEST_F(ConfigurationFile, OptionsOfTheSchedulerAreSetByName) {
    const Options made = options("option catch-up 0\noption jobs 7\noption job-output 8\n");
    EXPECT_EQ(made.catch_up_s, 0U);
    EXPECT_EQ(made.jobs_max, 7U);
    EXPECT_EQ(made.job_output_mib, 8U);
}

TEST_F(ConfigurationFile, TasksHaveANumberANameAndAProgram) {
    const auto result = parse_configuration("task 7 nightly /bin/backup \"two words\"\ntask 0x8 other /bin/x\n", names);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_THAT(result.configuration.tasks,
                ElementsAre(Task{7, "nightly", "/bin/backup", "two words"}, Task{8, "other", "/bin/x", ""}));
}

TEST_F(ConfigurationFile, ATaskThatIsNoneIsTold) {
    for (const char *line : {"task", "task 1 name", "task 0 name /bin/x", "task x name /bin/x", "task 1 name bin/x",
                             "task 1 name /bin/x text more"})
        EXPECT_THAT(told_of_line(line), ElementsAre(failure("A task is written: task NUMBER NAME PROGRAM [TEXT]")))
            << line;
}

TEST_F(ConfigurationFile, ATaskOfAKnownNumberOrNameIsTold) {
    EXPECT_THAT(told("task 1 one /bin/x\ntask 1 two /bin/x\n"), ElementsAre(failure("The task stands already: two")));
    EXPECT_THAT(told("task 1 one /bin/x\ntask 2 one /bin/x\n"), ElementsAre(failure("The task stands already: one")));
}

TEST_F(ConfigurationFile, TheProgramThatNotifiesIsAPath) {
    EXPECT_EQ(parse_configuration("notify /bin/mail\n", names).configuration.notify_program, "/bin/mail");
    EXPECT_THAT(told_of_line("notify"), ElementsAre(failure("The program that notifies is written: notify PROGRAM")));
    EXPECT_THAT(told_of_line("notify mail"),
                ElementsAre(failure("The program that notifies is written: notify PROGRAM")));
}

TEST_F(ConfigurationFile, LineThatIsTooLongIsTold) {
    const std::string longest = "udp shared 2 1 - - - /" + std::string(1001, 'a');
    ASSERT_EQ(longest.size(), 1023u);
    EXPECT_EQ(service(longest).path.size(), 1002u);
    EXPECT_THAT(told_of_line(longest + "a"), ElementsAre(row(IMSG_ERROR, MSG_CONFIG_LINE_TOO_LONG, file, 2ul)));
}

TEST_F(ConfigurationFile, LineWithTooFewFieldsIsTold) {
    std::string line;
    for (const char *word : {"udp", "shared", "2", "1", "-", "-", "-"}) {
        line += std::string(word) + " ";
        EXPECT_THAT(told_of_line(line), ElementsAre(row(IMSG_ERROR, MSG_CONFIG_INCOMPLETE, file, 2ul))) << line;
    }
}

TEST_F(ConfigurationFile, TransportThatIsUnknownOrNamedTwiceIsTold) {
    for (const char *word : {"sctp", "udp,", ",udp", "udp,udp", "UDP", "-", "udp;tcp"})
        EXPECT_THAT(told_of_line(std::string(word) + " shared 2 1 - - - /a"),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_PROTOCOL, file, 2ul, word)));
}

TEST_F(ConfigurationFile, KindThatIsUnknownIsTold) {
    for (const char *word : {"both", "Shared", "-"})
        EXPECT_THAT(told_of_line(std::string("udp ") + word + " 2 1 - - - /a"),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_KIND, file, 2ul, word)));
}

TEST_F(ConfigurationFile, ProgramThatIsNoNumberOrTheDaemonsOwnIsTold) {
    for (const char *word : {"x", "0", "-1", "4294967296", "390512", "1x", "0x", "+1"})
        EXPECT_THAT(told_of_line(std::string("udp shared ") + word + " 1 - - - /a"),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_PROGRAM, file, 2ul)));
}

TEST_F(ConfigurationFile, VersionThatIsNoNumberIsTold) {
    for (const char *word : {"x", "-1", "4294967296", "0xg"})
        EXPECT_THAT(told_of_line(std::string("udp shared 2 ") + word + " - - - /a"),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_VERSION, file, 2ul)));
}

TEST_F(ConfigurationFile, ControlParametersOutOfTheirRangesAreTold) {
    for (const char *word : {"max", "max=", "max=0", "max=1025", "idle=86401", "start=0", "busy=0", "restarts=1001",
                             "max=1,", "colour=1", "max=1=1", "=1"})
        EXPECT_THAT(told_of_line(std::string("udp shared 2 1 ") + word + " - - /a"),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_CONTROL, file, 2ul)))
            << word;
}

TEST_F(ConfigurationFile, UserOrGroupThatIsNotKnownIsTold) {
    EXPECT_THAT(told_of_line("udp shared 2 1 - nobody - /a"), ElementsAre(row(IMSG_ERROR, MSG_CONFIG_UID, file, 2ul)));
    EXPECT_THAT(told_of_line("udp shared 2 1 - - nobody /a"), ElementsAre(row(IMSG_ERROR, MSG_CONFIG_GID, file, 2ul)));
}

TEST_F(ConfigurationFile, MoreArgumentsThanThereIsRoomForAreTold) {
    std::string line = "udp shared 2 1 - - - /a";
    for (int i = 0; i < CONFIG_ARGUMENTS_MAX; ++i)
        line += " x";
    EXPECT_EQ(service(line).arguments.size(), 32u);
    EXPECT_THAT(told_of_line(line + " x"), ElementsAre(row(IMSG_ERROR, MSG_CONFIG_ARGUMENTS, file, 2ul, 32)));
}

TEST_F(ConfigurationFile, PathThatIsNotAbsoluteIsTold) {
    EXPECT_THAT(told_of_line("udp shared 2 1 - - - a"), ElementsAre(failure("The program's path is not absolute")));
    EXPECT_THAT(told_of_line("udp shared 2 1 - - - \"\""), ElementsAre(failure("The program's path is not absolute")));
}

TEST_F(ConfigurationFile, QuoteThatIsNotClosedIsTold) {
    EXPECT_THAT(told_of_line("udp shared 2 1 - - - \"/a"), ElementsAre(failure("Missing closing quotation mark")));
}

TEST_F(ConfigurationFile, NullByteIsTold) {
    EXPECT_THAT(told_of_line(std::string("udp shared 2 1 - - - /a\0b", 26)), ElementsAre(failure("Null byte")));
}

TEST_F(ConfigurationFile, ServiceThatStandsAlreadyIsToldWithItsLine) {
    EXPECT_THAT(told_of_line("udp,tcp shared 1 1 - - - /b"),
                ElementsAre(failure("The service stands already on line 1")));
    EXPECT_EQ(services("udp shared 1 1 - - - /a\ntcp shared 1 1 - - - /a\nudp shared 1 2 - - - /a\n").size(), 3u);
}

TEST_F(ConfigurationFile, AllErrorsAreToldEachWithItsLine) {
    EXPECT_THAT(told("udp\nudp shared 1 1 - - - /a\n\nsctp shared 1 1 - - - /a\n"),
                ElementsAre(row(IMSG_ERROR, MSG_CONFIG_INCOMPLETE, file, 1ul),
                            row(IMSG_ERROR, MSG_CONFIG_PROTOCOL, file, 4ul, "sctp")));
}

TEST_F(ConfigurationFile, ErrorsAreToldUpToABound) {
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "udp\n";
    EXPECT_EQ(told(text).size(), 100u);
}

class ConfigurationOnDisk : public ConfigurationFile {
protected:
    ConfigurationOnDisk() {
        std::string made = (std::filesystem::temp_directory_path() / "velia-config-XXXXXX").string();
        EXPECT_NE(mkdtemp(made.data()), nullptr);
        directory = made;
        path = directory / "file";
    }
    ~ConfigurationOnDisk() override { std::filesystem::remove_all(directory); }

    std::vector<server_tests::Message> told_of_file() {
        print_configuration_errors(path.string(), read_configuration(path.string(), names).errors);
        return messages();
    }

    std::filesystem::path directory;
    std::filesystem::path path;
};

TEST_F(ConfigurationOnDisk, IsRead) {
    std::ofstream(path) << "udp shared 1 1 - - - /a\n";
    EXPECT_EQ(read_configuration(path.string(), names).configuration.services.size(), 1u);
}

TEST_F(ConfigurationOnDisk, ThatIsNotThereIsTold) {
    EXPECT_THAT(told_of_file(),
                ElementsAre(row(IMSG_ERROR, MSG_CONFIG_UNREADABLE, path.c_str(), imsg_strerror(ENOENT))));
}

TEST_F(ConfigurationOnDisk, ThatIsNoFileIsNotWaitedForAndToldAsAReadError) {
    bad_files::for_each(path, CONFIG_FILE_BYTES_MAX, [&](const std::string &words) {
        EXPECT_THAT(told_of_file(),
                    ElementsAre(row(IMSG_ERROR, MSG_CONFIG_READ_ERROR, path.c_str(), 1ul, words.c_str())));
    });
}

TEST_F(ConfigurationOnDisk, ThatMayNotBeReadIsTold) {
    std::ofstream(path) << "udp shared 1 1 - - - /a\n";
    const bad_files::WithoutRight guard(path);
    EXPECT_THAT(told_of_file(),
                ElementsAre(row(IMSG_ERROR, MSG_CONFIG_UNREADABLE, path.c_str(), imsg_strerror(EACCES))));
}

TEST_F(ConfigurationOnDisk, OfExactlyTheBoundIsRead) {
    const std::string line = "udp shared 1 1 - - - /a\n";
    std::ofstream(path) << std::string(CONFIG_FILE_BYTES_MAX - line.size(), '\n') << line;
    EXPECT_EQ(read_configuration(path.string(), names).configuration.services.size(), 1u);
}

TEST_F(ConfigurationOnDisk, ThatIsTooLargeIsToldAndNotTakenInPart) {
    std::ofstream(path) << "udp shared 1 1 - - - /a\n" << std::string(CONFIG_FILE_BYTES_MAX, '#');
    const auto result = read_configuration(path.string(), names);
    EXPECT_THAT(result.configuration.services, IsEmpty());
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_EQ(result.errors[0].message, MSG_CONFIG_READ_ERROR);
    EXPECT_EQ(result.errors[0].detail, "File is larger than 1048576 bytes");
}

TEST(SystemNames, TakeNumbersAsTheyAreAndKnowRoot) {
    const NameLookup system = system_names();
    EXPECT_EQ(system.user("1234"), 1234u);
    EXPECT_EQ(system.group("0"), 0u);
    EXPECT_EQ(system.user("root"), 0u);
    EXPECT_EQ(system.group("root"), 0u);
    EXPECT_EQ(system.user("4294967295"), std::nullopt) << "it would mean no change of account at all";
    EXPECT_EQ(system.user("no such user"), std::nullopt);
    EXPECT_EQ(system.group("no such group"), std::nullopt);
}

} // namespace

TEST_F(ConfigurationFile, AccessLinesStandInTheirOrder) {
    const auto result = parse_configuration("access 10.1.0.0/16 read,write\naccess fd00::7 administer # one\n"
                                            "access any none\n",
                                            names);
    EXPECT_THAT(result.errors, IsEmpty());
    ASSERT_EQ(result.configuration.access.size(), 3u);
    EXPECT_EQ(result.configuration.access[0].bits, 112u) << "of the address in its IPv6 wrapping";
    EXPECT_EQ(result.configuration.access[0].rights, uint32_t{ACCESS_READ} | uint32_t{ACCESS_WRITE});
    EXPECT_EQ(result.configuration.access[1].bits, 128u);
    EXPECT_EQ(result.configuration.access[1].rights, uint32_t{ACCESS_ADMINISTER});
    EXPECT_EQ(result.configuration.access[2].bits, 0u);
    EXPECT_EQ(result.configuration.access[2].rights, 0u);
}

TEST_F(ConfigurationFile, AccessLineThatIsWrongIsRefusedInWords) {
    const std::string how = "Access is written: access ADDRESS[/BITS] RIGHT[,RIGHT...]";
    EXPECT_THAT(told_of_line("access any"), ElementsAre(failure(how.c_str())));
    EXPECT_THAT(told_of_line("access any read write"), ElementsAre(failure(how.c_str())));
    const std::string place = "An access line names an address, ADDRESS/BITS or any: ";
    for (const std::string wrong : {"host7", "10.1.2", "10.1.2.3.4", "/8", "all"})
        EXPECT_THAT(told_of_line("access " + wrong + " read"), ElementsAre(failure((place + wrong + " read").c_str())));
    const std::string bits = "An address has no such number of bits: ";
    for (const std::string wrong : {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/-1", "10.0.0.0/8x", "::/129"})
        EXPECT_THAT(told_of_line("access " + wrong + " read"), ElementsAre(failure((bits + wrong + " read").c_str())));
    for (const std::string wrong : {"10.0.0.1/8", "fd00::1/64", "10.0.0.0/4"})
        EXPECT_THAT(told_of_line("access " + wrong + " read"),
                    ElementsAre(failure(("The address has bits beyond its prefix: " + wrong + " read").c_str())));
    const std::string rights =
        "Access is none, or some of read, register, write and administer with commas between them: ";
    for (const std::string wrong : {"root", "read,", ",read", "read,none", "READ"})
        EXPECT_THAT(told_of_line("access any " + wrong), ElementsAre(failure((rights + "any " + wrong).c_str())));
}

TEST_F(ConfigurationFile, AccessLinesAreBounded) {
    std::string text;
    for (int i = 0; i < CONFIG_ACCESS_LINES_MAX + 1; ++i)
        text += "access any read\n";
    EXPECT_THAT(told(text), ElementsAre(failure("Too many access lines", CONFIG_ACCESS_LINES_MAX + 1)));
}
