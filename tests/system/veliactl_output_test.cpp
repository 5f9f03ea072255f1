// What becomes of the results: that they are lost is told, and nothing else stands among them.
#include <tests/system/support/veliactl.h>

#include <algorithm>
#include <array>

#include <gmock/gmock.h>
#include <unistd.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char *uuid = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";
constexpr const char *other_uuid = "5e6f0b5f-7d1a-4c39-9d54-1a2b3c4d8a52";
constexpr const char *loss = "Standard output cannot be written: ";

// A pipe whose reader has gone.
class ClosedPipe {
public:
    ClosedPipe() {
        EXPECT_EQ(pipe(ends_.data()), 0);
        close(ends_[0]);
    }
    ~ClosedPipe() { close(ends_[1]); }
    ClosedPipe(const ClosedPipe &) = delete;
    ClosedPipe &operator=(const ClosedPipe &) = delete;

    std::string redirection() const { return ">&" + std::to_string(ends_[1]); }

private:
    std::array<int, 2> ends_ = {};
};

struct VeliactlOutput : VeliactlTest {
    ClosedPipe pipe;

    // Each with the words of why it cannot be written.
    struct Sink {
        std::string redirection;
        const char *why;
    };
    std::array<Sink, 3> sinks() const {
        return {{{">/dev/full", "No space left on device"},
                 {">&-", "Bad file descriptor"},
                 {pipe.redirection(), "Broken pipe"}}};
    }

    void serve_all() {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.write("host/config/rgy_region.conf", "east\n");
        serve(sample_line(390600, "shared", "-", "--quiet-seconds 30"), {"--listen", "127.0.0.1"});
        for (const Words &words : {Words{"registry", "add", "regions", "name=east"},
                                   view_add(uuid),
                                   vault_add(uuid),
                                   {"server", "find", "alpha", "--prog", "390600"}})
            ASSERT_EQ(veliactl(words).status, DONE);
    }
    static Words view_add(const char *view_uuid) {
        return {"view", "add", view_uuid, "--hostname", "h", "--path", "/v"};
    }
    static Words vault_add(const char *replica) {
        return {"vault", "add", replica, "--family", other_uuid, "--hostname", "h", "--path", "/v"};
    }

    Outcome veliactl_into(const std::string &redirection, const Words &words) const {
        Words line = {"/bin/bash", "-c", "exec \"$0\" \"$@\" " + redirection, VELIACTL};
        line.insert(line.end(), words.begin(), words.end());
        return run_apart(site, line, {"TZ=Europe/Berlin"});
    }
    void expect_loss(const Sink &sink, const Words &words) const {
        const auto outcome = veliactl_into(sink.redirection, words);
        EXPECT_EQ(outcome.status, FAILED) << testing::PrintToString(words) << sink.redirection;
        EXPECT_THAT(outcome.errors, HasSubstr(std::string(loss) + sink.why)) << testing::PrintToString(words);
        EXPECT_EQ(outcome.errors.find(loss, outcome.errors.find(loss) + 1), std::string::npos) << outcome.errors;
    }
};

const Words readers[] = {{"contact", "alpha"},
                         {"probe", "alpha"},
                         {"server", "list", "alpha"},
                         {"server", "list", "alpha", "--watch"},
                         {"server", "find", "alpha", "--prog", "390600"},
                         {"server", "connect", "alpha", "--prog", "390600"},
                         {"registry", "find", "regions", "--string", "name=east"},
                         {"registry", "list", "regions"},
                         {"registry", "add", "regions", "name=west", "--dry-run"},
                         {"registry", "remove", "regions", "--string", "name=east", "--dry-run"},
                         {"registry", "dbs"},
                         {"registry", "stats", "regions", "--string", "name=east"},
                         {"registry", "role"},
                         {"registry", "hosts"},
                         {"registry", "region"},
                         {"registry", "backup"},
                         {"registry", "check", "--password-file", "/dev/null", "regions"},
                         {"view", "list"},
                         {"vault", "list"},
                         {"host", "info", "alpha"},
                         {"host", "tz", "alpha"},
                         {"clients", "list", "alpha"},
                         {"clients", "lookup", "alpha", "alpha"},
                         {"tz"},
                         {"poolmap", "explain", "/a/=/b/"}};

const Words others[] = {{"completion", "bash"}, {"completion", "zsh"},  {"--help"},
                        {"--version"},          {"registry", "--help"}, {"tz", "--help"}};

} // namespace

TEST_F(VeliactlOutput, ThatCannotBeWrittenFailsEveryCommandAndIsTold) {
    serve_all();
    const char *const forms[] = {"plain", "json", "jsonl", "table"};
    size_t number = 0;
    for (auto words : readers) {
        words.insert(words.end(), {"-o", forms[number++ % std::size(forms)]});
        for (const auto &sink : sinks())
            expect_loss(sink, words);
    }
}

TEST_F(VeliactlOutput, ThatCannotBeWrittenFailsEveryForm) {
    for (const char *form : {"plain", "json", "jsonl", "table"})
        for (const auto &sink : sinks())
            expect_loss(sink, {"tz", "-o", form});
}

TEST_F(VeliactlOutput, ThatCannotBeWrittenFailsHelpVersionAndCompletion) {
    for (const auto &words : others)
        for (const auto &sink : sinks())
            expect_loss(sink, words);
}

TEST_F(VeliactlOutput, OfAChangeThatCannotBeWrittenIsToldOnStandardError) {
    serve_all();
    const struct {
        Words words;
        const char *told;
    } changes[] = {
        {{"registry", "add", "regions", "name=west"}, "added   regions  alpha     -name=west;"},
        {{"registry", "remove", "regions", "--string", "name=west"}, "removed  regions"},
        {view_add(other_uuid), "added   view    5e6f0b5f"},
        {vault_add(other_uuid), "added   vault   5e6f0b5f"},
        {{"registry", "hosts", "--backup", "beta"}, "alpha   beta"},
        {{"registry", "backup", "beta"}, "BACKUP\nbeta"},
        {{"registry", "passwd", "--password-file", "/dev/null", "--server", RVZD_SERVER}, "password removed"},
        {{"registry", "demote", "--follow", "away"}, "alpha  standby"},
    };
    for (const auto &[words, told] : changes) {
        const auto outcome = veliactl_into(pipe.redirection(), words);
        EXPECT_EQ(outcome.status, FAILED) << testing::PrintToString(words);
        EXPECT_THAT(outcome.errors, HasSubstr("This has been done all the same:\n"));
        EXPECT_THAT(outcome.errors, HasSubstr(told));
    }
}

TEST_F(VeliactlOutput, OfChangesThatCannotBeWrittenIsToldInJsonWhereThatIsAskedFor) {
    serve_all();
    for (const char *name : {"name=north", "name=south"})
        ASSERT_EQ(veliactl({"registry", "add", "regions", "title=both", name}).status, DONE);
    const auto outcome =
        veliactl_into(pipe.redirection(), {"registry", "remove", "regions", "--string", "title=both", "-o", "json"});
    EXPECT_EQ(outcome.status, FAILED);
    const auto told = objects_of(outcome.errors);
    const auto removed =
        std::count_if(told.begin(), told.end(), [](const Json &object) { return object["action"] == "removed"; });
    EXPECT_EQ(removed, 2) << outcome.errors;
    for (const auto &object : told)
        EXPECT_TRUE(object.is_object()) << outcome.errors;
}

TEST_F(VeliactlOutput, OfWhatWasOnlyLookedAtIsNoChange) {
    serve_all();
    for (const Words &words : {Words{"registry", "add", "regions", "name=west", "--dry-run"}, {"registry", "hosts"}})
        EXPECT_THAT(veliactl_into(">/dev/full", words).errors, Not(HasSubstr("done all the same")));
}

TEST_F(VeliactlOutput, HoldsNoMessageOfTheLibrary) {
    const auto outcome = veliactl({"tz", "2026", "-o", "json"}, {"TZ=Europe/Berlin"});
    EXPECT_EQ(outcome.status, DONE);
    EXPECT_EQ(objects_of(outcome.output).at(0)["standard"], "CET") << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr("Successfully refreshed TZ cache from data."));
}

TEST_F(VeliactlOutput, HoldsNoMessageThoughStandardErrorIsClosed) {
    const auto outcome = veliactl_into("2>&-", {"tz", "2026", "-o", "json"});
    EXPECT_EQ(outcome.status, DONE);
    EXPECT_THAT(objects_of(outcome.output), testing::SizeIs(1)) << outcome.output;
}

TEST_F(VeliactlOutput, LetsNoTitleColourTheTerminal) {
    serve_all();
    ASSERT_EQ(veliactl({"registry", "add", "regions", "name=red", "title=\x1b[31mred\xff"}).status, DONE);
    const Words find = {"registry", "find", "regions", "--string", "name=red"};
    for (const char *form : {"plain", "table"}) {
        auto words = find;
        words.insert(words.end(), {"-o", form});
        const auto outcome = veliactl(words);
        EXPECT_THAT(outcome.output, HasSubstr(R"(-title=\x1b[31mred\xff)"));
        EXPECT_THAT(outcome.output, Not(HasSubstr("\x1b")));
    }
    const auto found = objects(find);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_THAT(found[0].dump(), HasSubstr(R"("title":"\u001b[31mred)"
                                           "\xef\xbf\xbd"))
        << "and it is JSON";
}

TEST_F(VeliactlOutput, ShowsADateThatIsNotThereAsNone) {
    const Words environment = {"TZ=EST5"};
    const auto zone = objects({"tz", "2026"}, DONE, environment).at(0);
    EXPECT_EQ(zone["to_daylight"], nullptr);
    EXPECT_EQ(zone["to_standard"], nullptr);
    for (const char *form : {"plain", "table"})
        EXPECT_THAT(veliactl({"tz", "2026", "-o", form}, environment).output, Not(HasSubstr("1900")));
}
