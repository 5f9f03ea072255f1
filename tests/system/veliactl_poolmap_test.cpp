// Pool maps explained, and the completion scripts that the program prints: neither needs a daemon.
#include <tests/system/support/veliactl.h>

#include <gmock/gmock.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using VeliactlPoolMap = VeliactlTest;
using VeliactlCompletion = VeliactlTest;

Json pair_object(int pair, const std::string &prefix, const std::string &target, const Json &pathname,
                 const Json &poolname) {
    return Json::object(
        {{"pair", pair}, {"prefix", prefix}, {"target", target}, {"pathname", pathname}, {"poolname", poolname}});
}

} // namespace

TEST_F(VeliactlPoolMap, IsShownPairByPair) {
    EXPECT_EQ(
        objects({"poolmap", "explain", "/a/=/b/|/c/=/d=e/"}),
        (Objects{pair_object(1, "/a/", "/b/", nullptr, nullptr), pair_object(2, "/c/", "/d=e/", nullptr, nullptr)}));
    EXPECT_THAT(objects({"poolmap", "explain", ""}), IsEmpty());
}

TEST_F(VeliactlPoolMap, TellsWhichPairTranslatesAPathname) {
    EXPECT_EQ(
        objects({"poolmap", "explain", "/a/=/1/|/a/b/=/2/", "/a/b/c"}),
        (Objects{pair_object(1, "/a/", "/1/", "/1/b/c", nullptr), pair_object(2, "/a/b/", "/2/", nullptr, nullptr)}));
}

TEST_F(VeliactlPoolMap, ShowsThePairsOfAPoolChain) {
    EXPECT_EQ(objects({"poolmap", "explain", "/a/=/b/|/x/=/y/|/b/=/c/", "/a"}),
              (Objects{pair_object(1, "/a/", "/b/", nullptr, "/b"), pair_object(2, "/x/", "/y/", nullptr, nullptr),
                       pair_object(3, "/b/", "/c/", nullptr, "/c")}));
}

TEST_F(VeliactlPoolMap, OfMountOptionsIsTheirOption) {
    EXPECT_EQ(objects({"poolmap", "explain", "--mount-options", "ro,poolmap=/a/=/b/,nosuid", "/a/x"}),
              (Objects{pair_object(1, "/a/", "/b/", "/b/x", nullptr)}));
    EXPECT_THAT(objects({"poolmap", "explain", "--mount-options", "ro"}), IsEmpty());
}

TEST_F(VeliactlPoolMap, OfMountOptionsThatIsTooLongToBeReadIsTold) {
    const auto map_of = [](size_t size) { return "/" + std::string(size - 6, 'p') + "/=/b/"; };
    const auto too_long = veliactl({"poolmap", "explain", "--mount-options", "ro,poolmap=" + map_of(1024)});
    EXPECT_EQ(too_long.status, FAILED);
    EXPECT_THAT(too_long.output, IsEmpty());
    EXPECT_THAT(too_long.errors,
                HasSubstr("Mount options with a name or a value of 1024 characters or more cannot be read"));
    EXPECT_THAT(too_long.errors, HasSubstr("The pool map cannot be used"));
    EXPECT_THAT(objects({"poolmap", "explain", "--mount-options", "ro,poolmap=" + map_of(1023)}), SizeIs(1));
}

TEST_F(VeliactlPoolMap, ThatMatchesNothingFailsAndShowsThePairs) {
    const auto outcome = veliactl({"poolmap", "explain", "/a/=/b/", "/ab", "-o", "json"});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(objects_of(outcome.output), SizeIs(1));
    EXPECT_THAT(outcome.errors, HasSubstr("No prefix of the map matches '/ab'"));
}

TEST_F(VeliactlPoolMap, ThatIsBadFailsAndSaysWhy) {
    const auto outcome = veliactl({"poolmap", "explain", "/a/=/b"});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, HasSubstr("Invalid VAULT pool mapping target \"/b\"."));
    EXPECT_THAT(outcome.errors, HasSubstr("The pool map cannot be used"));
}

TEST_F(VeliactlPoolMap, WarnsOfAPrefixThatIsTooLong) {
    const std::string prefix = "/" + std::string(1023, 'p') + "/";
    const auto outcome = veliactl({"poolmap", "explain", prefix + "=/t/|/=/r/", prefix + "x", "-o", "json"});
    EXPECT_EQ(outcome.status, DONE);
    EXPECT_THAT(outcome.errors, HasSubstr("The prefix of pair 1 has 1025 characters"));
    EXPECT_EQ(objects_of(outcome.output)[1]["pathname"], "/r" + prefix + "x");
}

TEST_F(VeliactlPoolMap, HasAllForms) {
    EXPECT_THAT(veliactl({"poolmap", "explain", "/a/=/b/"}).output,
                StartsWith("PAIR  PREFIX  TARGET  PATHNAME  POOLNAME\n1     /a/     /b/"));
    EXPECT_THAT(veliactl({"poolmap", "explain", "/a/=/b/", "-o", "table"}).output, StartsWith("+------+"));
    EXPECT_EQ(veliactl({"poolmap", "explain"}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"poolmap"}).status, WRONG_USE);
}

TEST_F(VeliactlCompletion, ScriptsLoadInTheirShells) {
    const struct {
        const char *shell;
        const char *command;
    } shells[] = {
        {"bash", "source \"$0\" && COMP_WORDS=(veliactl poolm) COMP_CWORD=1 && _veliactl && echo \"${COMPREPLY[@]}\""},
        {"zsh", "compdef() { print $2 }; source \"$0\" && whence _veliactl >/dev/null && print poolmap"},
        {"fish", "source $argv[1]; and complete -C 'veliactl poolm'"},
    };
    for (const auto &[shell, command] : shells) {
        const auto script = veliactl({"completion", shell}, {"VELIACTL_OUTPUT=json"});
        EXPECT_EQ(script.status, DONE) << script.errors;
        const auto file = site.write("script", script.output);
        const auto outcome =
            run_apart(site, {"/usr/bin/" + std::string(shell), "-c", command, file}, {"HOME=" + site.path("")});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_THAT(outcome.output, HasSubstr("poolmap")) << outcome.errors;
        EXPECT_THAT(outcome.errors, IsEmpty());
    }
    EXPECT_EQ(veliactl({"completion", "tcsh"}).status, WRONG_USE);
}

TEST_F(VeliactlCompletion, OffersTheHostsThatTheRegistryKnows) {
    site.write("host/priv/clients", "-dbversion=1.0;\n"
                                    "-address=10.0.0.7;-hostname=build7;-registry=@1700000000;\n"
                                    "-address=10.0.0.8;-hostname=$(reboot);-registry=@1700000000;\n");
    serve_registry();
    EXPECT_EQ(objects({"clients", "list", "alpha"}).size(), 2u);
    const auto offered = veliactl({"complete-words", "hosts"});
    EXPECT_EQ(offered.status, DONE);
    EXPECT_THAT(offered.output, HasSubstr("alpha\n"));
    EXPECT_THAT(offered.output, HasSubstr("build7\n"));
    EXPECT_THAT(offered.output, Not(HasSubstr("reboot"))) << "which a shell would expand";
    EXPECT_THAT(offered.errors, IsEmpty());
}

TEST_F(VeliactlCompletion, IsQuietWhereNoDaemonAnswers) {
    site.write("host/config/rgy_hosts.conf", "nobody.invalid\n\n");
    for (const char *hosts : {"nobody.invalid\n\n", "beta\n\n", "\n\n"}) {
        site.write("host/config/rgy_hosts.conf", hosts);
        const auto offered = veliactl({"complete-words", "hosts"});
        EXPECT_EQ(offered.status, DONE);
        EXPECT_THAT(offered.output, StartsWith("alpha\n"));
        EXPECT_THAT(offered.errors, IsEmpty());
    }
}
