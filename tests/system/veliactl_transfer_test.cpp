// Entries in bulk through the tool: written to files and read from them, changed in place, watched.
#include <tests/system/support/on_terminal.h>
#include <tests/system/support/veliactl.h>

#include <csignal>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <tests/system/support/registry_calls.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

const std::string hostile_text = "-title=\xff\xfe;-name=odd;";

struct VeliactlTransfer : VeliactlTest {
    void SetUp() override { serve_registry(); }

    // The name of each entry of the regions, in their order.
    std::vector<std::string> names() const { return names_of(RGY_DB_REGIONS).value_or(Words{"not read"}); }
    std::string exported() const {
        const auto outcome = veliactl({"registry", "export", "-"});
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
        return outcome.output;
    }
    void remove_all(const std::string &db) const {
        const auto outcome = veliactl({"registry", "remove", db, "--pattern", "-name=*", "--pattern", "*"});
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
    }
};

std::string line_of_region(const std::string &name) {
    return R"({"db":"regions","items":{"name":")" + name + "\"}}\n";
}

} // namespace

TEST_F(VeliactlTransfer, WhatIsExportedIsImportedAsItWas) {
    for (const std::string text :
         {"-name=east;-title=The \"eastern\" lab, \\ and more;", "-name=west;-type=;", "-name=twice;-title=a;-title=b;",
          hostile_text.c_str(), "-name=u;-title=\u00fc\u4e16;"})
        ASSERT_EQ(add(RGY_DB_REGIONS, text), TBS_ST_OK) << text;
    ASSERT_EQ(add(RGY_DB_VAULT_TAG, "-tag=/v;-region=east;-attributes=a=b,ro;"), TBS_ST_OK);
    const std::string before = exported();
    const auto outcome = veliactl({"registry", "export", site.path("site.jsonl")});
    ASSERT_EQ(outcome.status, DONE) << outcome.errors;
    EXPECT_EQ(site.read("site.jsonl"), before);
    remove_all("regions");
    remove_all("vault_tag");
    EXPECT_EQ(exported(), "");
    const auto results = objects({"registry", "import", site.path("site.jsonl")});
    ASSERT_EQ(results.size(), 2u);
    EXPECT_THAT(results[0].dump() + results[1].dump(), HasSubstr("\"entries\":5"));
    std::string after = exported();
    const auto without_numbers = [](std::string text) {
        for (size_t at; (at = text.find("\"id\":")) != std::string::npos;)
            text.erase(at, text.find(',', at) + 1 - at);
        return text;
    };
    EXPECT_EQ(without_numbers(after), without_numbers(before));
}

TEST_F(VeliactlTransfer, AnImportMadeTwiceAddsNothingTwice) {
    site.write("in.jsonl", line_of_region("a") + line_of_region("b") +
                               R"({"db":"regions","items":{"title":"nameless"}})"
                               "\n");
    EXPECT_THAT(objects({"registry", "import", site.path("in.jsonl")})[0].dump(), HasSubstr("\"entries\":3"));
    const auto again = objects({"registry", "import", site.path("in.jsonl")});
    EXPECT_THAT(again[0].dump(), HasSubstr("\"entries\":0"));
    EXPECT_THAT(again[0].dump(), HasSubstr("\"passed\":3"));
    EXPECT_EQ(names().size(), 3u);
}

TEST_F(VeliactlTransfer, EachBadLineIsToldAndNothingIsAdded) {
    site.write("in.jsonl", line_of_region("a") + "\n" + "no json\n" +
                               R"({"db":"nowhere","items":{"name":"x"}})"
                               "\n" +
                               R"({"db":"regions","items":{"name":"x;y"}})"
                               "\n" +
                               R"({"db":"regions","items":{"no such":"x"}})"
                               "\n" +
                               R"({"db":"regions","items":{}})"
                               "\n" +
                               R"({"db":"regions"})"
                               "\n" +
                               R"([])"
                               "\n" +
                               R"({"db":"regions","items":{"name":7}})"
                               "\n" +
                               R"({"db":"regions","bytes":"2d6"})"
                               "\n" +
                               R"({"db":"regions","items":{"title":")" + std::string(5000, 'x') + "\"}}\n");
    const auto outcome = veliactl({"registry", "import", site.path("in.jsonl")});
    EXPECT_EQ(outcome.status, FAILED);
    for (int line = 3; line <= 12; ++line)
        EXPECT_THAT(outcome.errors, HasSubstr("in.jsonl:" + std::to_string(line) + ": "));
    EXPECT_THAT(outcome.errors, Not(HasSubstr("in.jsonl:1: ")));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(VeliactlTransfer, ALineThatIsTooLongADirectoryAPipeAndNothingAreNoFiles) {
    site.write("long.jsonl", line_of_region("a") + std::string(100000, ' ') + "\n");
    EXPECT_THAT(veliactl({"registry", "import", site.path("long.jsonl")}).errors, HasSubstr("long.jsonl:2: "));
    ASSERT_EQ(mkfifo(site.path("pipe").c_str(), 0600), 0);
    for (const char *name : {"pipe", "config", "absent"}) {
        const auto outcome = veliactl({"registry", "import", site.path(name)});
        EXPECT_EQ(outcome.status, FAILED) << name;
        EXPECT_THAT(outcome.errors, HasSubstr(name));
    }
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(VeliactlTransfer, WithAtomicADatabaseGetsAllOrNothing) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=stands;-title=other;"), TBS_ST_OK);
    std::string lines;
    for (int i = 0; i < 3000; ++i) // some requests
        lines += line_of_region("region-with-a-name-of-some-length-" + std::to_string(i));
    site.write("in.jsonl", lines + line_of_region("stands"));
    const auto refused = veliactl({"registry", "import", site.path("in.jsonl"), "--atomic"});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("in.jsonl:3001: "));
    EXPECT_THAT(names(), ElementsAre("stands"));
    site.write("good.jsonl", lines);
    EXPECT_THAT(objects({"registry", "import", site.path("good.jsonl"), "--atomic"})[0].dump(),
                HasSubstr("\"entries\":3000"));
    EXPECT_EQ(names().size(), 3001u);
    const auto in_pieces = veliactl({"registry", "import", site.path("in.jsonl")});
    EXPECT_EQ(in_pieces.status, FAILED);
    EXPECT_THAT(in_pieces.errors, HasSubstr("in.jsonl:3001: "));
}

TEST_F(VeliactlTransfer, AnExportThatFailsLeavesTheFileOfBefore) {
    site.write("site.jsonl", "of before");
    daemon->signal(SIGKILL);
    daemon->wait();
    EXPECT_EQ(veliactl({"registry", "export", site.path("site.jsonl")}).status, UNREACHABLE);
    EXPECT_EQ(site.read("site.jsonl"), "of before");
    EXPECT_FALSE(std::filesystem::exists(site.path("site.jsonl.new")));
    EXPECT_EQ(veliactl({"registry", "export", site.path("no/such/place")}).status, FAILED);
}

TEST_F(VeliactlTransfer, AnExportToAPipeLeavesThePipe) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;"), TBS_ST_OK);
    const std::string pipe = site.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const auto outcome =
        run_apart(site, {"/bin/sh", "-c",
                         std::string("cat '") + pipe + "' & " + VELIACTL + " registry export '" + pipe + "'; wait"});
    EXPECT_THAT(outcome.output, HasSubstr("east"));
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

// A person at a terminal sees how far it is, and in the end only what came of it.
TEST_F(VeliactlTransfer, OfManyEntriesShowsOnATerminalHowFarItIs) {
    std::string lines;
    for (int i = 0; i < 2500; ++i)
        lines += R"({"db":"regions","items":{"name":"n)" + std::to_string(i) + R"(","title":")" +
                 std::string(200, 't') + "\"}}\n";
    site.write("many.jsonl", lines);
    const std::string wiped = "\r\x1b[K";
    const auto shown = [&](const Words &words) {
        OnTerminal terminal(words);
        EXPECT_EQ(terminal.end(), DONE) << terminal.shown();
        return terminal.shown();
    };
    const auto imported = shown({VELIACTL, "registry", "import", site.path("many.jsonl")});
    EXPECT_THAT(imported, testing::ContainsRegex("regions: (1|2)[0-9]* of 2500 entries"));
    EXPECT_GT(imported.find("added"), imported.rfind(wiped)) << imported;
    const auto exported = shown({VELIACTL, "registry", "export", site.path("again.jsonl")});
    EXPECT_THAT(exported, testing::ContainsRegex("regions: 2[0-9]* entries"));
    const auto saved = shown({VELIACTL, "registry", "save", site.path("saved")});
    EXPECT_THAT(saved, testing::ContainsRegex("(copying|fetching): [0-9]+ %"));
    EXPECT_EQ(saved.find('%', saved.rfind(wiped)), std::string::npos) << saved;
    const auto listed = shown({"/bin/sh", "-c", std::string(VELIACTL) + " registry list regions >/dev/null"});
    EXPECT_THAT(listed, HasSubstr("read: 2000 entries"));
    for (const Words &quiet : {Words{"registry", "export", site.path("again.jsonl"), "--output", "json"},
                               Words{"registry", "save", site.path("saved"), "--output", "json"}}) {
        Words words = {VELIACTL};
        words.insert(words.end(), quiet.begin(), quiet.end());
        EXPECT_EQ(shown(words).find(wiped), std::string::npos) << "for programs";
    }
    EXPECT_EQ(veliactl({"registry", "export", site.path("again.jsonl")}).errors, "") << "nobody looks";
}

TEST_F(VeliactlTransfer, AnImportThatIsOnlyTriedAddsNothing) {
    site.write("in.jsonl", line_of_region("a"));
    EXPECT_THAT(objects({"registry", "import", site.path("in.jsonl"), "--dry-run"})[0].dump(), HasSubstr("would add"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(VeliactlTransfer, AnEntryIsChangedInItsPlace) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;-title=before;-project=x;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=west;"), TBS_ST_OK);
    const Words update = {"registry",    "update",  "regions", "--string", "name=east",  "--set",
                          "title=after", "--unset", "project", "--set",    "owner=alice"};
    Words tried = update;
    tried.emplace_back("--dry-run");
    EXPECT_THAT(objects(tried)[0].dump(), HasSubstr("after"));
    EXPECT_THAT(exported(), HasSubstr("before"));
    EXPECT_THAT(objects(update)[0].dump(), HasSubstr("\"id\":1"));
    EXPECT_EQ(exported(), R"({"db":"regions","id":1,"items":{"name":"east","title":"after","owner":"alice"}})"
                          "\n"
                          R"({"db":"regions","id":2,"items":{"name":"west"}})"
                          "\n");
    const auto taken = veliactl({"registry", "update", "regions", "--string", "name=west", "--set", "name=east"});
    EXPECT_EQ(taken.status, FAILED);
    EXPECT_THAT(names(), ElementsAre("east", "west"));
}

TEST_F(VeliactlTransfer, AnUpdateIsOfOneEntry) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;-title=t;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=west;-title=t;"), TBS_ST_OK);
    const auto both = veliactl({"registry", "update", "regions", "--string", "title=t", "--set", "project=p"});
    EXPECT_EQ(both.status, FAILED);
    EXPECT_THAT(both.errors, HasSubstr("2 such entries"));
    EXPECT_EQ(veliactl({"registry", "update", "regions", "--string", "name=north", "--set", "project=p"}).status,
              FAILED);
    EXPECT_THAT(exported(), Not(HasSubstr("project")));
}

TEST_F(VeliactlTransfer, AWatchShowsWhatIsAddedChangedAndRemoved) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;"), TBS_ST_OK);
    Child::Options options;
    options.output_file = site.path("watch.out");
    Child watch({VELIACTL, "registry", "watch", "regions", "--interval", "0.05", "--output", "jsonl"}, options);
    const auto shows = [&](const std::string &change, const std::string &name) {
        return eventually([&] {
            std::istringstream lines(site.read("watch.out"));
            for (std::string line; std::getline(lines, line);)
                if (line.find("\"change\":\"" + change + "\"") != std::string::npos &&
                    line.find(name) != std::string::npos)
                    return true;
            return false;
        });
    };
    EXPECT_TRUE(shows("present", "east"));
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=west;"), TBS_ST_OK);
    EXPECT_TRUE(shows("added", "west"));
    ASSERT_EQ(veliactl({"registry", "update", "regions", "--string", "name=west", "--set", "title=w"}).status, DONE);
    EXPECT_TRUE(shows("changed", "\"title\":\"w\""));
    ASSERT_EQ(veliactl({"registry", "remove", "regions", "--string", "name=east"}).status, DONE);
    EXPECT_TRUE(shows("removed", "east"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), INTERRUPTED);
}

TEST_F(VeliactlTransfer, APlanTellsWhatAnApplyThenDoes) {
    for (const char *text : {"-name=same;", "-name=east;-title=before;-project=x;", "-name=gone;"})
        ASSERT_EQ(add(RGY_DB_REGIONS, text), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_DOMAINS, "-domain=untouched;"), TBS_ST_OK);
    site.write("want.jsonl", R"({"db":"regions","items":{"name":"new"}})"
                             "\n" +
                                 line_of_region("same") +
                                 R"({"db":"regions","items":{"name":"east","title":"after","owner":"alice"}})"
                                 "\n");
    const Words plan = {"registry", "plan", "-f", site.path("want.jsonl"), "--prune"};
    const auto planned = objects(plan, 4);
    ASSERT_EQ(planned.size(), 5u);
    EXPECT_THAT(planned[0].dump(), HasSubstr("name=new"));
    std::string all;
    for (const auto &row : planned)
        all += row.dump();
    for (const char *part : {R"("before":"before")", R"("after":"after")", R"("item":"project")", R"("item":"owner")",
                             R"("action":"remove")", R"("line":3)"})
        EXPECT_THAT(all, HasSubstr(part));
    EXPECT_THAT(all, Not(HasSubstr("same")));
    EXPECT_THAT(names(), ElementsAre("same", "east", "gone"));
    const auto done = objects({"registry", "apply", "-f", site.path("want.jsonl"), "--prune"});
    EXPECT_EQ(done.size(), planned.size());
    EXPECT_THAT(names(), ElementsAre("same", "east", "new"));
    EXPECT_THAT(exported(), HasSubstr("untouched"));
    EXPECT_THAT(objects(plan), IsEmpty()) << "there is nothing left to do";
}

TEST_F(VeliactlTransfer, WithoutPruneNothingIsRemoved) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=stays;"), TBS_ST_OK);
    site.write("want.jsonl", line_of_region("new"));
    EXPECT_EQ(objects({"registry", "apply", "-f", site.path("want.jsonl")}).size(), 1u);
    EXPECT_THAT(names(), ElementsAre("stays", "new"));
}

TEST_F(VeliactlTransfer, AnEntryThatAFileHasTwiceIsTold) {
    site.write("want.jsonl", line_of_region("a") + line_of_region("b") + line_of_region("a"));
    const auto outcome = veliactl({"registry", "apply", "-f", site.path("want.jsonl")});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.errors, HasSubstr("want.jsonl:3: "));
    EXPECT_THAT(outcome.errors, HasSubstr("line 1"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(VeliactlTransfer, TagsOfTwoRegionsAreTwoEntriesAndAUuidIsOneHoweverItIsWritten) {
    ASSERT_EQ(add(RGY_DB_VAULT_TAG, "-tag=/v;-region=east;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_VIEW_OBJECT, "-view_uuid=0B5F8A52-7D1A-4C39-9D54-1A2B3C4D5E6F;"), TBS_ST_OK);
    site.write("want.jsonl",
               R"({"db":"vault_tag","items":{"tag":"/v","region":"west"}})"
               "\n"
               R"({"db":"view_object","items":{"view_uuid":"0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f","hostname":"h"}})"
               "\n");
    const auto done = objects({"registry", "apply", "-f", site.path("want.jsonl")});
    std::string all;
    for (const auto &row : done)
        all += row.dump() + "\n";
    EXPECT_THAT(all, HasSubstr(R"("action":"add")"));
    EXPECT_THAT(all, HasSubstr(R"("item":"hostname")"));
    EXPECT_THAT(exported(), HasSubstr("east"));
}
