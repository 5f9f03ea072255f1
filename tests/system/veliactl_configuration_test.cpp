// The user's configuration file and variables, on real command lines.
#include <tests/system/support/veliactl.h>

#include <gmock/gmock.h>

#include <tests/bad_files.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

struct VeliactlConfiguration : VeliactlTest {
    const Words words = {"poolmap", "explain", "/a/=/b/"};

    std::string file() const { return site.path("user/veliactl.toml"); }
    void configure(const std::string &text) const { site.write("user/veliactl.toml", text); }
    Outcome veliactl_of_user(const Words &line, Words environment = {}) const {
        environment.push_back("XDG_CONFIG_HOME=" + site.path("user"));
        return veliactl(line, environment);
    }
    void SetUp() override { std::filesystem::create_directories(site.path("user")); }
};

} // namespace

TEST_F(VeliactlConfiguration, StandsBetweenEnvironmentAndDefault) {
    EXPECT_THAT(veliactl_of_user(words).output, StartsWith("PAIR "));
    configure("output = \"table\"\nno-headers = true\n");
    EXPECT_THAT(veliactl_of_user(words).output, StartsWith("+------+--------+--------+----------+----------+\n| 1 "));
    EXPECT_THAT(veliactl_of_user(words, {"VELIACTL_OUTPUT=json", "VELIACTL_NO_HEADERS=false"}).output,
                StartsWith("[\n{\"pair\":1,"));
    EXPECT_THAT(veliactl_of_user({"-o", "plain", "poolmap", "explain", "/a/=/b/"}, {"VELIACTL_OUTPUT=json"}).output,
                StartsWith("1  /a/"));
}

TEST_F(VeliactlConfiguration, ThatIsFaultyIsWrongUseWithFileAndLine) {
    configure("output = \"json\"\n[registry.list]\nbatch = 0\n");
    EXPECT_EQ(veliactl_of_user(words).status, DONE) << "of which that is no matter";
    const auto outcome = veliactl_of_user({"registry", "list", "regions", "-o", "plain"});
    EXPECT_EQ(outcome.status, WRONG_USE);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, StartsWith("veliactl: Error: " + file() + ":3: batch: Value 0 not in range 1 to 1000"));
    const auto told = Json::parse(veliactl_of_user({"registry", "list", "regions"}).errors);
    EXPECT_THAT(told["message"].text(), StartsWith(file() + ":3: batch: ")) << "as JSON, which the file asks for";
}

TEST_F(VeliactlConfiguration, ThatIsNoFileIsRefusedAtOnce) {
    for (const auto kind : bad_files::all_kinds) {
        const bad_files::BadFile bad(kind, file());
        const auto outcome = veliactl_of_user(words);
        EXPECT_EQ(outcome.status, WRONG_USE);
        EXPECT_THAT(outcome.errors, StartsWith("veliactl: Error: " + file() + ": "));
        EXPECT_EQ(veliactl_of_user({"poolmap", "--help"}).status, DONE);
    }
}
