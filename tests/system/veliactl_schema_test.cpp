// What programs read: the results of every command are as its schema says, and errors are objects.
#include <tests/system/support/veliactl.h>

#include <csignal>
#include <map>
#include <set>

#include <gmock/gmock.h>

#include <tests/system/support/json_schema.h>

using namespace velia::system_test;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr const char *uuid = "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f";
constexpr const char *other_uuid = "5e6f0b5f-7d1a-4c39-9d54-1a2b3c4d8a52";
const Words environment = {"TZ=Europe/Berlin", "EDITOR=sed -i s/02:00/03:00/"};

// Of the site.
constexpr const char *settings_file = "settings";
constexpr const char *entries_file = "entries";
constexpr const char *jobs_file = "jobs";
constexpr const char *tasks_file = "tasks";
constexpr const char *saved_file = "registry.saved";
bool is_file_of_site(const std::string &name) {
    return name == settings_file || name == entries_file || name == jobs_file || name == tasks_file ||
           name == saved_file;
}

// A line for each command, in an order in which each has something to tell.
struct CommandLine {
    const char *path;
    Words arguments;
};
const CommandLine command_lines[] = {
    {"contact", {"alpha"}},
    {"probe", {"alpha"}},
    {"server find", {"alpha", "--prog", "390600"}},
    {"server connect", {"alpha", "--prog", "390600"}},
    {"server list", {"alpha"}},
    {"registry add", {"vault_tag", "tag=/v", "title=a, b", "hostname=h", "attributes=ro,poolmap=/x=/y"}},
    {"registry find", {"vault_tag", "--string", "tag=/v"}},
    {"registry list", {"vault_tag"}},
    {"registry watch", {"vault_tag", "--looks", "1"}},
    {"registry update", {"vault_tag", "--string", "tag=/v", "--set", "title=c"}},
    {"registry export", {"/dev/null", "--db", "vault_tag"}},
    {"registry plan", {"-f", entries_file}},
    {"registry apply", {"-f", entries_file}},
    {"registry import", {entries_file}},
    {"registry stats", {"vault_tag", "--string", "tag=/v"}},
    {"registry dbs", {}},
    {"registry role", {}},
    {"registry region", {}},
    {"registry hosts", {"--backup", "beta"}},
    {"registry backup", {"beta,six"}},
    {"registry passwd", {"--password-file", "/dev/null", "--server", RVZD_SERVER}},
    {"registry remove", {"vault_tag", "--string", "tag=/v"}},
    {"view add", {uuid, "--hostname", "h", "--path", "/v", "--attribute", "snapshot", "--attribute", "ucm=no"}},
    {"view list", {}},
    {"vault add", {uuid, "--family", other_uuid, "--hostname", "h", "--path", "/v"}},
    {"vault list", {}},
    {"host info", {"alpha"}},
    {"host tz", {"alpha", "2026"}},
    {"clients list", {"alpha"}},
    {"clients lookup", {"alpha", "alpha"}},
    {"tz", {"2026"}},
    {"poolmap explain", {"/a/=/b/|/c/=/d/", "/a/x"}},
    {"knob set", {"fl_site_name", "lab", "--level", "site"}},
    {"knob list", {}},
    {"knob get", {"fl_site_name"}},
    {"knob explain", {"fl_site_name"}},
    {"knob check", {"view_cache_size", "2m"}},
    {"knob diff", {"alpha", "beta", "--all"}},
    {"knob export", {"/dev/null", "--level", "site"}},
    {"knob import", {settings_file}},
    {"knob monitor", {"--looks", "1"}},
    {"knob unset", {"fl_site_name", "--level", "site"}},
    {"registry check", {"vault_tag", "--password-file", "/dev/null"}},
    {"registry save", {saved_file}},
    {"registry move", {"--to", "sqlite", "--dry-run", "--server", RVZD_SERVER}},
    {"daemon status", {"alpha"}},
    {"doctor", {}},
    {"registry demote", {"--follow", "away"}},
    {"registry promote", {}},
    {"site master", {"alpha"}},
    {"task list", {"alpha"}},
    {"job create",
     {"alpha", "nightly", "--task", "shell", "--weeks", "1", "--on", "Mon", "--first", "02:00", "--", "-c",
      "echo begun; exec sleep 600"}},
    {"job list", {"alpha"}},
    {"job show", {"alpha", "nightly"}},
    {"job next", {"alpha", "nightly", "2"}},
    {"job run", {"alpha", "nightly"}},
    {"job run-now", {"alpha", "shell", "--", "-c", "exit 0"}},
    {"job logs", {"alpha", "nightly"}},
    {"job history", {"alpha", "nightly", "--changes"}},
    {"job stop", {"alpha", "nightly"}},
    {"job status", {"alpha", "nightly"}},
    {"job edit", {"alpha", "nightly"}},
    {"job validate", {"alpha"}},
    {"job dump", {"alpha"}},
    {"job check", {jobs_file, "--next", "1"}},
    {"job fmt", {jobs_file, "--check"}},
    {"job plan", {"alpha", jobs_file}},
    {"job load", {"alpha", jobs_file}},
    {"task show", {"alpha", "shell"}},
    {"task check", {tasks_file}},
    {"job delete", {"alpha", "nightly"}},
    {"acl set", {"alpha", "everyone=read"}},
    {"acl show", {"alpha"}},
};
// Without a password nobody is granted anything, and a host of the site is away; it is told all the same.
const std::map<std::string, int> other_statuses = {{"probe", 3},      {"registry plan", 4}, {"job plan", 4},
                                                   {"job fmt", 4},    {"task check", 1},    {"registry check", 1},
                                                   {"site master", 1}};

struct VeliactlSchema : VeliactlTest {
    void serve_all() {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.write("host/config/rgy_region.conf", "east\n");
        site.write(jobs_file, "Job.Begin\nJob.Name: weekly\nJob.Schedule.Daily.Frequency: 7\n"
                              "Job.Schedule.FirstStartTime: 01:00:00\nJob.Task: shell\nJob.End\n");
        site.write(tasks_file, "Task.Begin\nTask.Id: none\n");
        site.write(entries_file, R"({"db":"regions","items":{"name":"east"}})");
        site.write(settings_file, "level = host\nview_cache_size = 2m\n");
        serve(sample_line(390600, "shared", "-", "--quiet-seconds 30") + "task 1 shell /bin/sh\n",
              {"--listen", "127.0.0.1", "--listen", "127.0.0.2"});
    }
    Words words_of(const CommandLine &line, const char *form) const {
        Words words = {"--output", form};
        std::istringstream path(line.path);
        for (std::string word; path >> word;)
            words.push_back(word);
        for (const auto &argument : line.arguments)
            words.push_back(is_file_of_site(argument) ? site.path(argument) : argument);
        return words;
    }
    static void expect_objects(const std::string &errors) {
        std::istringstream lines(errors);
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(Json::parse(line)["message"].is_valid()) << line;
    }
    Json schemas() const { return Json::parse(veliactl({"--schema"}).output); }

    // What is on standard error, each line as an object.
    Objects errors_of(Words words, int status, const char *form = "json") const {
        words.insert(words.end(), {"-o", form});
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, status) << outcome.errors;
        std::istringstream lines(outcome.errors);
        Objects errors;
        for (std::string line; std::getline(lines, line);) {
            errors.push_back(Json::parse(line));
            EXPECT_TRUE(errors.back().is_object()) << line;
        }
        return errors;
    }
};

bool is_dated(const Json &value) {
    return value["last_contact"].kind == Json::Kind::text || value["to_daylight"].kind == Json::Kind::text;
}

} // namespace

TEST_F(VeliactlSchema, IsKeptByTheResultsOfEveryCommand) {
    serve_all();
    std::set<std::string> paths;
    size_t dated_count = 0;
    const Json all = schemas();
    for (const auto &line : command_lines) {
        paths.insert(line.path);
        const Json &schema = all[line.path];
        const auto outcome = veliactl(words_of(line, "json"), environment);
        const auto found = other_statuses.find(line.path);
        EXPECT_EQ(outcome.status, found == other_statuses.end() ? DONE : found->second)
            << line.path << ": " << outcome.errors;
        const Json document = Json::parse(outcome.output);
        EXPECT_EQ(fault_by_schema(document, schema), "") << line.path << ": " << outcome.output;
        EXPECT_GT(document.size(), 0u) << line.path << " has nothing to tell";
        for (const auto &object : objects_of(outcome.output))
            dated_count += is_dated(object) ? 1 : 0;
        expect_objects(outcome.errors);
    }
    for (const auto &name : all.names)
        EXPECT_TRUE(paths.contains(name)) << "no line of this test is for " << name;
    EXPECT_GE(dated_count, 3u);
}

TEST_F(VeliactlSchema, OfAnItemIsKeptByEveryLineOfJsonLines) {
    serve_all();
    const Json all = schemas();
    for (const auto &line : command_lines) {
        const auto outcome = veliactl(words_of(line, "jsonl"), environment);
        const Json &items = all[line.path]["items"];
        std::istringstream lines(outcome.output);
        size_t count = 0;
        for (std::string text; std::getline(lines, text); ++count)
            EXPECT_EQ(fault_by_schema(Json::parse(text), items.is_valid() ? items : all[line.path]), "") << line.path;
        EXPECT_GT(count, 0u) << line.path;
    }
}

TEST_F(VeliactlSchema, IsToldByEveryCommandThoughItsLineIsNotWhole) {
    const Json all = schemas();
    for (const auto &name : all.names) {
        Words words = words_of({name.c_str(), {"--schema"}}, "table");
        const auto outcome = veliactl(words);
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
        EXPECT_EQ(Json::parse(outcome.output), all[name.c_str()]) << name;
    }
}

TEST_F(VeliactlSchema, IsKeptByAWatchThatIsInterrupted) {
    serve_all();
    ASSERT_EQ(veliactl({"server", "find", "alpha", "--prog", "390600"}).status, DONE);
    Child::Options options;
    options.output_file = site.path("watch.out");
    options.error_file = site.path("watch.err");
    Child watch({VELIACTL, "server", "list", "alpha", "--watch", "-o", "json"}, options);
    ASSERT_TRUE(eventually([&] { return site.read("watch.out").find("present") != std::string::npos; }));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), INTERRUPTED);
    const Json document = Json::parse(site.read("watch.out"));
    EXPECT_EQ(fault_by_schema(document, schemas()["server list"]), "") << site.read("watch.out");
    EXPECT_EQ(document[0]["change"], "present");
}

TEST_F(VeliactlSchema, ItemsAreAnObjectAndRepeatedOnesAList) {
    serve_all();
    ASSERT_EQ(veliactl({"registry", "add", "vault_tag", "tag=/v", "title=a, b=c", "hostname=h", "hostname=i",
                        "attributes=ro,poolmap=/x=/y,ro"})
                  .status,
              DONE);
    const Words list = {"registry", "list", "vault_tag"};
    const auto found = objects(list);
    ASSERT_THAT(found, SizeIs(1));
    const Json &items = found[0]["items"];
    EXPECT_EQ(items["tag"], "/v");
    EXPECT_EQ(items["title"], "a, b=c");
    EXPECT_EQ(items["hostname"].dump(), R"(["h","i"])");
    EXPECT_EQ(items["attributes"].dump(), R"({"poolmap":"/x=/y","ro":[true,true]})");
    EXPECT_THAT(veliactl(list).output, HasSubstr(R"(-tag=/v,-title="a, b=c",-hostname=h,-hostname=i,)"
                                                 R"(-attributes="ro,poolmap=/x=/y,ro")"));
}

TEST_F(VeliactlSchema, ErrorsAreObjectsWithStatusAndHost) {
    const auto unknown = errors_of({"contact", "nobody.invalid"}, UNREACHABLE);
    ASSERT_THAT(unknown, Not(IsEmpty()));
    EXPECT_EQ(unknown[0]["severity"], "error");
    EXPECT_THAT(unknown[0]["message"].text(), HasSubstr("nobody.invalid"));
    EXPECT_EQ(unknown[0]["host"], "nobody.invalid");
    EXPECT_EQ(unknown[0]["status"].dump(), R"({"name":"NOT_FOUND","number":1002})");
    site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    const auto silent = errors_of({"registry", "list", "regions"}, UNREACHABLE, "jsonl");
    ASSERT_THAT(silent, Not(IsEmpty()));
    EXPECT_EQ(silent.back()["host"], "alpha");
    EXPECT_TRUE(silent.back()["status"]["number"].number() > 0);
    EXPECT_THAT(silent.back()["message"].text(), testing::StartsWith("The registry could not be read: "));
}

TEST_F(VeliactlSchema, AWrongUseIsAnObjectHoweverJsonIsAskedFor) {
    const auto expect_object = [&](const Words &words, const Words &environment) {
        const auto outcome = veliactl(words, environment);
        EXPECT_EQ(outcome.status, WRONG_USE);
        const Json error = Json::parse(outcome.errors);
        EXPECT_THAT(error["message"].text(), HasSubstr("--nonsense")) << outcome.errors;
        EXPECT_EQ(error["status"]["name"], "INVALID_ARG");
        EXPECT_EQ(error["host"], nullptr);
    };
    expect_object({"tz", "--nonsense", "-o", "json"}, {});
    expect_object({"tz", "--nonsense", "-ojsonl"}, {});
    expect_object({"--output=json", "tz", "--nonsense"}, {});
    expect_object({"tz", "--nonsense"}, {"VELIACTL_OUTPUT=json"});
    const auto plain = veliactl({"tz", "--nonsense", "-o", "plain"}, {"VELIACTL_OUTPUT=json"});
    EXPECT_THAT(plain.errors, testing::StartsWith("veliactl: Error: "));
}

TEST_F(VeliactlSchema, WordsThatItsReaderDoesNotKnowAreFaults) {
    const auto fault = [](const char *value, const char *schema) {
        return fault_by_schema(Json::parse(value), Json::parse(schema));
    };
    EXPECT_EQ(fault("1", R"({"type":"integer"})"), "");
    EXPECT_NE(fault("1.5", R"({"type":"integer"})"), "");
    EXPECT_NE(fault("1", R"({"type":"integer","maximum":0})"), "");
    EXPECT_NE(fault("1", "{}"), "");
    EXPECT_NE(fault(R"({"a":1})", R"({"type":"object","required":["b"]})"), "");
    EXPECT_NE(fault(R"({"a":1})", R"({"type":"object","additionalProperties":false})"), "");
    EXPECT_NE(fault(R"({"a":1})", R"({"type":"object","properties":{"a":{"type":"string"}}})"), "");
    EXPECT_NE(fault(R"([1,"x"])", R"({"type":"array","items":{"type":"number"}})"), "");
    EXPECT_NE(fault(R"("2026-01-01 00:00:00")", R"({"type":"string","format":"date-time"})"), "");
    EXPECT_EQ(fault(R"("2026-01-01T00:00:00-03:30")", R"({"type":["null","string"],"format":"date-time"})"), "");
}
