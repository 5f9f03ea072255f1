// Entries in bulk at a daemon that knows no requests of many: one change after the other, with a way back.
#include <tests/system/support/veliactl.h>

#include <gmock/gmock.h>

#include <tests/system/support/registry_calls.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

struct VeliactlOlder : VeliactlTest {
    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        serve("option protocol 5\n");
    }
    static Words names() { return names_of(RGY_DB_REGIONS).value_or(Words{"not read"}); }
    std::string exported() const {
        const auto outcome = veliactl({"registry", "export", "-"});
        EXPECT_EQ(outcome.status, DONE) << outcome.errors;
        return outcome.output;
    }
    static std::string line(const std::string &name, const std::string &title) {
        return R"({"db":"regions","items":{"name":")" + name + R"(","title":")" + title + "\"}}\n";
    }
    Outcome import(const Words &more = {}) const {
        Words words = {"registry", "import", site.path("site.jsonl")};
        words.insert(words.end(), more.begin(), more.end());
        return veliactl(words);
    }
};

} // namespace

TEST_F(VeliactlOlder, AnEntryIsRemovedAndAddedWithItsNewText) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;-title=old;"), TBS_ST_OK);
    const auto updated = objects({"registry", "update", "regions", "--string", "name=east", "--set", "title=new"});
    EXPECT_EQ(updated[0]["items"]["title"], "new");
    EXPECT_THAT(names(), ElementsAre("east"));
    EXPECT_THAT(exported(), HasSubstr(R"("title":"new")"));
}

TEST_F(VeliactlOlder, AnEntryThatCannotBeAddedChangedIsAsItWas) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;-title=e;"), TBS_ST_OK);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=west;-title=w;"), TBS_ST_OK);
    const auto taken = veliactl({"registry", "update", "regions", "--string", "name=west", "--set", "name=east"});
    EXPECT_EQ(taken.status, FAILED);
    EXPECT_THAT(taken.errors, HasSubstr("The entry was not changed"));
    EXPECT_THAT(names(), UnorderedElementsAre("east", "west"));
    EXPECT_THAT(exported(), HasSubstr(R"("items":{"name":"west","title":"w"})"));
}

TEST_F(VeliactlOlder, AnImportAddsOneByOneAndPassesWhatStands) {
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=east;-title=e;"), TBS_ST_OK);
    site.write("site.jsonl", line("east", "e") + line("west", "w") + line("north", "n"));
    const auto first = import();
    EXPECT_EQ(first.status, DONE) << first.errors;
    EXPECT_THAT(names(), UnorderedElementsAre("east", "west", "north"));
    const auto again = objects({"registry", "import", site.path("site.jsonl")});
    EXPECT_EQ(again[0]["entries"].scalar, "0");
    site.write("site.jsonl", line("south", "s") + line("east", "another") + line("late", "l"));
    const auto refused = import();
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("site.jsonl:2: the entry was not added"));
    EXPECT_THAT(names(), UnorderedElementsAre("east", "west", "north", "south")) << "what came before it stands";
}

TEST_F(VeliactlOlder, AnImportOfAllOrNothingIsRefused) {
    site.write("site.jsonl", line("east", "e"));
    const auto refused = import({"--atomic"});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("Entries were not added"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(VeliactlOlder, AnApplyChangesOneAfterTheOther) {
    for (const char *text : {"-name=east;-title=e;", "-name=west;-title=w;", "-name=old;"})
        ASSERT_EQ(add(RGY_DB_REGIONS, text), TBS_ST_OK);
    site.write("site.jsonl", line("east", "changed") + line("west", "w") + line("new", "n"));
    const auto applied = veliactl({"registry", "apply", "-f", site.path("site.jsonl"), "--prune"});
    EXPECT_EQ(applied.status, DONE) << applied.errors;
    EXPECT_THAT(names(), UnorderedElementsAre("east", "west", "new"));
    EXPECT_EQ(veliactl({"registry", "plan", "-f", site.path("site.jsonl"), "--prune"}).status, DONE)
        << "nothing is left";
}

TEST_F(VeliactlOlder, TellsNothingOfItsState) {
    EXPECT_EQ(veliactl({"daemon", "status", "alpha"}).status, FAILED);
    const auto outcome = veliactl({"doctor", "--output", "jsonl"});
    EXPECT_THAT(outcome.output, HasSubstr("its daemon does not tell of its state"));
}
