// Listing and watching the servers of a host.
#include <tests/system/support/unread.h>
#include <tests/system/support/veliactl.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace velia::system_test;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

constexpr uint32_t first_program = 390600;
constexpr uint32_t second_program = 390601;

struct VeliactlList : VeliactlTest {
    void SetUp() override {
        serve(sample_line(first_program, "shared", "-", "--quiet-seconds 30") +
              sample_line(second_program, "shared", "-", "--quiet-seconds 30", "udp"));
    }
    void start_server(uint32_t program) const {
        ASSERT_EQ(veliactl({"server", "find", "alpha", "--prog", std::to_string(program)}).status, DONE);
    }
    Objects list(Words filters = {}, int status = DONE) const {
        filters.insert(filters.begin(), {"server", "list", "alpha"});
        return objects(filters, status);
    }
};

// veliactl server list --watch, in the background.
class Watch {
public:
    explicit Watch(const Site &site, const Words &further = {}) : site_(site) {
        Words words = {VELIACTL, "server", "list", "alpha", "--watch"};
        words.insert(words.end(), further.begin(), further.end());
        if (std::find(words.begin(), words.end(), "--interval") == words.end())
            words.insert(words.end(), {"--interval", "1"});
        Child::Options options;
        options.output_file = site.path("watch.out");
        options.error_file = site.path("watch.err");
        child_ = std::make_unique<Child>(words, options);
    }
    std::string output() const { return site_.read("watch.out"); }
    std::string errors() const { return site_.read("watch.err"); }
    bool comes_to_say(const std::string &text) const {
        return eventually([&] { return output().find(text) != std::string::npos; });
    }
    int end(int signal_number) {
        child_->signal(signal_number);
        return wait();
    }
    int wait() { return child_->wait(); }
    // Whether its first thread hangs in a write of its results.
    bool is_held_up_in_writing() const {
        std::ifstream file("/proc/" + std::to_string(child_->pid()) + "/syscall");
        long number = -1;
        std::string descriptor;
        if (!(file >> number >> descriptor) || number != SYS_write)
            return false;
        const auto link =
            "/proc/" + std::to_string(child_->pid()) + "/fd/" + std::to_string(std::stoi(descriptor, nullptr, 16));
        std::error_code error;
        return std::filesystem::read_symlink(link, error) == site_.path("watch.out");
    }

private:
    const Site &site_;
    std::unique_ptr<Child> child_;
};

// The reading end of a watch whose output goes into a pipe.
class Reader {
public:
    explicit Reader(const Site &site) : path_(site.path("watch.out")) {
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(fd_, 0);
    }
    ~Reader() { go(); }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    bool comes_to_read(const std::string &text) {
        return eventually([&] {
            char some[512];
            const auto length = read(fd_, some, sizeof some);
            if (length > 0)
                read_.append(some, static_cast<size_t>(length));
            return read_.find(text) != std::string::npos;
        });
    }
    // Leaves no room for what others write.
    void fill() const {
        const int fd = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        while (write(fd, "", 1) == 1)
            ;
        EXPECT_EQ(errno, EAGAIN);
        close(fd);
    }
    void go() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

private:
    std::string path_;
    std::string read_;
    int fd_ = -1;
};

// The program of the first server of which this change is told; 0 for none, and for a line that is no object.
uint32_t first_program_that(const Objects &told, const std::string &change) {
    for (const auto &object : told) {
        if (!object.is_object() || !object["time"].is_valid())
            return 0;
        if (object["change"] == change)
            return static_cast<uint32_t>(object["prog"].number());
    }
    return 0;
}

} // namespace

TEST_F(VeliactlList, IsEmptyWhereNoServerRuns) {
    EXPECT_THAT(list(), IsEmpty());
}

TEST_F(VeliactlList, TellsAllOfAServer) {
    start_server(second_program);
    const auto found = list();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["prog"], second_program);
    EXPECT_EQ(found[0]["vers"], 1);
    EXPECT_EQ(found[0]["proto"], "udp");
    EXPECT_THAT(found[0]["address"].text(), StartsWith("127.0.0.1:"));
    EXPECT_EQ(found[0]["state"], "offered");
    EXPECT_EQ(found[0]["pid"], daemon->started(1).at(0));
    EXPECT_EQ(found[0]["uuid"], "00000000-0000-0000-0000-000000000000");
}

TEST_F(VeliactlList, PassesThroughEachFilter) {
    start_server(first_program);
    start_server(second_program);
    const auto all = list();
    ASSERT_EQ(all.size(), 3u);
    const std::string address = all[0]["address"].text();
    const std::string port = address.substr(address.rfind(':') + 1);
    const struct {
        Words filter;
        size_t count;
    } cases[] = {
        {{"--prog", std::to_string(first_program)}, 2},
        {{"--prog", "0x5f5c9"}, 1},
        {{"--prog", "1"}, 0},
        {{"--vers", "1"}, 3},
        {{"--vers", "2"}, 0},
        {{"--proto", "udp"}, 2},
        {{"--proto", "tcp"}, 1},
        {{"--port", port}, 1},
        {{"--pid", std::to_string(daemon->started(2).at(1))}, 1},
        {{"--uuid", "00000000-0000-0000-0000-000000000000"}, 3},
        {{"--uuid", "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f"}, 0},
        {{"--name", ""}, 3},
        {{"--name", "/nowhere"}, 0},
        {{"--prog", std::to_string(first_program), "--proto", "udp"}, 1},
    };
    for (const auto &[filter, count] : cases)
        EXPECT_THAT(list(filter), SizeIs(count)) << testing::PrintToString(filter);
}

TEST_F(VeliactlList, HasAPlainFormAndATable) {
    start_server(second_program);
    EXPECT_THAT(veliactl({"server", "list", "alpha"}).output, StartsWith("PROG    VERS  PROTO  ADDRESS"));
    EXPECT_THAT(veliactl({"server", "list", "alpha", "-o", "table"}).output, StartsWith("+-"));
}

TEST_F(VeliactlList, OfAHostWithoutBrokerIsUnreachable) {
    daemon->signal(SIGKILL);
    daemon->wait();
    for (const Words &words : {Words{"server", "list", "alpha"}, {"server", "list", "alpha", "--watch"}}) {
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, UNREACHABLE);
        EXPECT_THAT(outcome.output, IsEmpty());
        EXPECT_THAT(outcome.errors, HasSubstr("Unable to contact rvzd_server on host 'alpha'"));
    }
}

TEST_F(VeliactlList, WrongFiltersAreWrongUse) {
    for (const Words &filter : {Words{"--prog", "x"},
                                {"--prog", "-1"},
                                {"--port", "65536"},
                                {"--proto", "sctp"},
                                {"--uuid", "x"},
                                {"--interval", "1"},
                                {"--watch", "--interval", "0"}})
        EXPECT_THAT(list(filter, WRONG_USE), IsEmpty()) << testing::PrintToString(filter);
}

TEST_F(VeliactlList, WatchingTellsWhatIsThereAndWhatStartsAndEnds) {
    start_server(second_program);
    Watch watch(site, {"--output", "json"});
    ASSERT_TRUE(watch.comes_to_say("\"present\"")) << watch.errors();
    start_server(first_program);
    ASSERT_TRUE(watch.comes_to_say("\"started\"")) << watch.output();
    kill(daemon->started(1).at(0), SIGKILL);
    ASSERT_TRUE(watch.comes_to_say("\"ended\"")) << watch.output();
    EXPECT_EQ(watch.end(SIGINT), INTERRUPTED);
    const auto told = objects_of(watch.output());
    EXPECT_EQ(first_program_that(told, "present"), second_program);
    EXPECT_EQ(first_program_that(told, "started"), first_program);
    EXPECT_EQ(first_program_that(told, "ended"), second_program);
}

TEST_F(VeliactlList, WatchingNamesItsColumnsOnce) {
    start_server(second_program);
    Watch watch(site);
    ASSERT_TRUE(watch.comes_to_say("present"));
    start_server(first_program);
    ASSERT_TRUE(watch.comes_to_say("started"));
    EXPECT_EQ(watch.end(SIGTERM), TERMINATED);
    const auto output = watch.output();
    EXPECT_THAT(output, StartsWith("TIME"));
    EXPECT_EQ(output.find("TIME", 1), std::string::npos) << output;
}

TEST_F(VeliactlList, WatchingGoesOnWhenTheBrokerComesBack) {
    start_server(second_program);
    Watch watch(site, {"--output", "json"});
    ASSERT_TRUE(watch.comes_to_say("\"present\""));
    daemon->signal(SIGKILL);
    daemon->wait();
    ASSERT_TRUE(eventually([&] { return watch.errors().find("Unable to contact") != std::string::npos; }));
    daemon = std::make_unique<Daemon>(site);
    ASSERT_TRUE(daemon->is_ready());
    EXPECT_TRUE(watch.comes_to_say("\"ended\"")) << watch.output();
    EXPECT_EQ(watch.end(SIGINT), INTERRUPTED);
}

TEST_F(VeliactlList, WatchingEndsAtOnceThoughTheBrokerIsSilent) {
    start_server(second_program);
    Watch watch(site, {"--timeout", "3600"});
    ASSERT_TRUE(watch.comes_to_say("present"));
    daemon->signal(SIGSTOP);
    ASSERT_TRUE(eventually([&] { return is_request_waiting(site); })) << "it is asked, and does not answer";
    EXPECT_EQ(watch.end(SIGINT), INTERRUPTED);
    daemon->signal(SIGCONT);
}

TEST_F(VeliactlList, WatchingEndsWhenTheReaderGoesThoughNothingHappens) {
    start_server(second_program);
    Reader reader(site);
    Watch watch(site, {"--interval", "3600"});
    ASSERT_TRUE(reader.comes_to_read("present")) << watch.errors();
    reader.go();
    EXPECT_EQ(watch.wait(), FAILED);
    EXPECT_THAT(watch.errors(), HasSubstr("Standard output cannot be written: Broken pipe"));
}

TEST_F(VeliactlList, WatchingEndsOnAnInterruptThoughTheReaderTakesNothing) {
    start_server(second_program);
    const Reader reader(site);
    reader.fill();
    Watch watch(site);
    ASSERT_TRUE(eventually([&] { return watch.is_held_up_in_writing(); })) << watch.errors();
    EXPECT_EQ(watch.end(SIGTERM), TERMINATED);
}
