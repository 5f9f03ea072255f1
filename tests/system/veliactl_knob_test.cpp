// The administrator's tool and the settings: what is set where, changing it, carrying it over, and watching it.
#include <tests/system/support/veliactl.h>

#include <csignal>

#include <gmock/gmock.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

struct VeliactlKnob : VeliactlTest {
    const std::string size_file = "host/config/view_cache_size";
    const std::string size = "view_cache_size";

    void SetUp() override {
        serve_registry();
        site.write("profile", "checkout -unreserved\n");
        setenv("VELIA_PROFILE", site.path("profile").c_str(), 1);
    }

    void succeed(const Words &words) const {
        const auto outcome = veliactl(words);
        ASSERT_EQ(outcome.status, DONE) << outcome.errors;
    }
    // The member of the one object with this name.
    static std::string member(const Objects &objects, const char *key, const std::string &value, const char *wanted) {
        for (const auto &object : objects)
            if (object[key].text() == value)
                return object[wanted].text();
        return "(none)";
    }
    std::string value_of(const std::string &name, const char *member = "value") const {
        const auto found = objects({"knob", "get", name});
        return found.size() == 1 ? found[0][member].text() : "(none)";
    }
    static Json change(const std::string &action, const std::string &name, const std::string &level, const Json &before,
                       const Json &value) {
        return Json::object(
            {{"action", action}, {"name", name}, {"level", level}, {"before", before}, {"value", value}});
    }
};

// veliactl knob monitor, in the background.
class Monitor {
public:
    explicit Monitor(const Site &site) : site_(site) {
        Child::Options options;
        options.output_file = site.path("monitor.out");
        options.error_file = site.path("monitor.err");
        child_ = std::make_unique<Child>(Words{VELIACTL, "knob", "monitor", "--interval", "0.02", "--output", "jsonl"},
                                         options);
    }
    bool comes_to_say(const std::string &text) const {
        return eventually([&] { return site_.read("monitor.out").find(text) != std::string::npos; }, 20);
    }
    std::string output() const { return site_.read("monitor.out"); }
    int end() {
        child_->signal(SIGINT);
        return child_->wait();
    }

private:
    const Site &site_;
    std::unique_ptr<Child> child_;
};

} // namespace

TEST_F(VeliactlKnob, ListHasAllSettingsWithWhereTheirValuesComeFrom) {
    site.write(size_file, "2048000\n");
    succeed({"knob", "set", "fl_site_name", "lab", "--level", "site"});
    const auto all = objects({"knob", "list"});
    EXPECT_THAT(all, SizeIs(57));
    EXPECT_EQ(member(all, "name", size, "value"), "2048000");
    EXPECT_EQ(member(all, "name", size, "level"), "host");
    EXPECT_EQ(member(all, "name", size, "type"), "integer");
    EXPECT_EQ(member(all, "name", "fl_site_name", "value"), "lab");
    EXPECT_EQ(member(all, "name", "fl_site_name", "level"), "site");
    EXPECT_EQ(member(all, "name", "checkout_reserve_policy", "value"), "-unreserved");
    EXPECT_EQ(member(all, "name", "checkout_reserve_policy", "level"), "user");
    EXPECT_EQ(member(all, "name", "lyfs_acenabled", "value"), "TRUE");
    EXPECT_EQ(member(all, "name", "lyfs_acenabled", "level"), "default");
}

TEST_F(VeliactlKnob, ListOfALevelHasWhatIsSetThere) {
    EXPECT_THAT(objects({"knob", "list", "--level", "site"}), IsEmpty());
    EXPECT_THAT(objects({"knob", "list", "--level", "host"}), IsEmpty());
    EXPECT_THAT(objects({"knob", "list", "--level", "user"}), SizeIs(1));
    succeed({"knob", "set", "fl_site_name", "lab", "--level", "site"});
    site.write(size_file, "2048000\n");
    const auto at_site = objects({"knob", "list", "--level", "site", "--show-origin"});
    ASSERT_THAT(at_site, SizeIs(1));
    EXPECT_EQ(at_site[0]["value"].text(), "lab");
    EXPECT_EQ(at_site[0]["origin"].text(), "entry 1");
    const auto on_host = objects({"knob", "list", "--level", "host", "--show-origin"});
    ASSERT_THAT(on_host, SizeIs(1));
    EXPECT_EQ(on_host[0]["origin"].text(), site.path(size_file));
    const auto of_user = objects({"knob", "list", "--level", "user", "--show-origin"});
    ASSERT_THAT(of_user, SizeIs(1));
    EXPECT_EQ(of_user[0]["origin"].text(), "checkout -reserved < & checkout -unreserved <");
}

TEST_F(VeliactlKnob, GetTellsTheValueInForceOrThatOfALevel) {
    EXPECT_EQ(value_of(size), "4096000");
    EXPECT_EQ(value_of(size, "level"), "default");
    EXPECT_EQ(value_of("VIEW_CACHE_SIZE", "name"), size);
    succeed({"knob", "set", size, "2m", "--level", "site"});
    EXPECT_EQ(value_of(size), "2m");
    succeed({"knob", "set", size, "4m", "--level", "host"});
    EXPECT_EQ(value_of(size), "4m");
    EXPECT_EQ(objects({"knob", "get", size, "--level", "site"})[0]["value"].text(), "2m");
    EXPECT_EQ(veliactl({"knob", "get", "fl_site_name", "--level", "site"}).status, FAILED);
    EXPECT_THAT(veliactl({"knob", "get", "fl_site_name", "--level", "host"}).errors,
                HasSubstr("fl_site_name has no value in this host"));
    EXPECT_EQ(veliactl({"knob", "get", "no_such"}).status, WRONG_USE);
}

TEST_F(VeliactlKnob, WhatIsNoValueIsAFailureAndNoDefault) {
    site.write(size_file, "junk\n");
    EXPECT_EQ(veliactl({"knob", "get", size}).status, FAILED);
    site.write(size_file, "");
    EXPECT_EQ(veliactl({"knob", "get", size}).status, FAILED);
    EXPECT_EQ(veliactl({"knob", "list"}).status, FAILED);
    EXPECT_EQ(objects({"knob", "set", size, "2m", "--level", "host"}),
              (Objects{change("set", size, "host", nullptr, "2m")}));
    EXPECT_EQ(value_of(size), "2m");
}

TEST_F(VeliactlKnob, ARegistryThatIsDownIsAFailure) {
    daemon->signal(SIGKILL);
    daemon->wait();
    EXPECT_NE(veliactl({"knob", "get", "fl_site_name", "--timeout", "2"}).status, DONE);
    EXPECT_NE(veliactl({"knob", "list", "--timeout", "2"}).status, DONE);
    EXPECT_NE(veliactl({"knob", "set", "fl_site_name", "x", "--level", "site", "--timeout", "2"}).status, DONE);
    EXPECT_EQ(veliactl({"knob", "get", "lyfs_mnmax"}).status, DONE);
}

TEST_F(VeliactlKnob, SetAndUnsetTellWhatTheyChange) {
    EXPECT_EQ(objects({"knob", "set", size, "2m", "--level", "host", "--dry-run"}),
              (Objects{change("would set", size, "host", nullptr, "2m")}));
    EXPECT_FALSE(std::filesystem::exists(site.path(size_file)));
    EXPECT_EQ(objects({"knob", "set", size, "2m", "--level", "host"}),
              (Objects{change("set", size, "host", nullptr, "2m")}));
    EXPECT_EQ(site.read(size_file), "2m\n");
    EXPECT_EQ(objects({"knob", "unset", size, "--level", "host", "--dry-run"}),
              (Objects{change("would unset", size, "host", "2m", nullptr)}));
    EXPECT_EQ(objects({"knob", "unset", size, "--level", "host"}),
              (Objects{change("unset", size, "host", "2m", nullptr)}));
    EXPECT_FALSE(std::filesystem::exists(site.path(size_file)));
    EXPECT_EQ(veliactl({"knob", "unset", size, "--level", "host"}).status, FAILED);
    EXPECT_EQ(veliactl({"knob", "unset", size, "--level", "site"}).status, FAILED);
    EXPECT_EQ(veliactl({"knob", "unset", size, "--level", "user"}).status, FAILED);
}

TEST_F(VeliactlKnob, WhatALevelDoesNotTakeIsRefusedAndNotWritten) {
    EXPECT_THAT(veliactl({"knob", "set", size, "1", "--level", "host"}).errors,
                HasSubstr("must be >= 1024000 (was 1)"));
    EXPECT_EQ(veliactl({"knob", "set", size, "junk", "--level", "host", "--dry-run"}).status, FAILED);
    EXPECT_FALSE(std::filesystem::exists(site.path(size_file)));
    EXPECT_THAT(veliactl({"knob", "set", "view_shareable_dos", "TRUE", "--level", "host"}).errors,
                HasSubstr("view_shareable_dos has no value in this host"));
    EXPECT_THAT(veliactl({"knob", "set", "checkout_reserve_policy", "--level", "user", "--", "-reserved"}).errors,
                HasSubstr("a profile is its user's to edit"));
    EXPECT_EQ(veliactl({"knob", "set", size, "2m"}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"knob", "set", size, "2m", "--level", "planet"}).status, WRONG_USE);
}

TEST_F(VeliactlKnob, ExplainTellsEveryLevelAndWhichOneWins) {
    succeed({"knob", "set", size, "2m", "--level", "site"});
    site.write(size_file, "4m\n");
    const auto rows = objects({"knob", "explain", size});
    EXPECT_EQ(member(rows, "what", "user", "state"), "no such");
    EXPECT_EQ(member(rows, "what", "host", "state"), "in force");
    EXPECT_EQ(member(rows, "what", "host", "value"), "4m");
    EXPECT_EQ(member(rows, "what", "host", "origin"), site.path(size_file));
    EXPECT_EQ(member(rows, "what", "site", "state"), "overridden");
    EXPECT_EQ(member(rows, "what", "site", "value"), "2m");
    EXPECT_THAT(member(rows, "what", "site", "origin"), HasSubstr("entry "));
    EXPECT_EQ(member(rows, "what", "default", "value"), "4096000");
    EXPECT_EQ(member(rows, "what", "default", "state"), "overridden");
    EXPECT_EQ(member(rows, "what", "range", "value"), ">= 1024000");
    EXPECT_EQ(member(rows, "what", "type", "value"), "integer");
    EXPECT_EQ(member(rows, "what", "description", "value"), "Default size (in bytes) of a new view's cache.");
    site.write(size_file, "");
    const auto unreadable = objects({"knob", "explain", size});
    EXPECT_EQ(member(unreadable, "what", "host", "state"), "unreadable");
    EXPECT_EQ(member(unreadable, "what", "site", "state"), "overridden");
    EXPECT_EQ(member(objects({"knob", "explain", "fl_site_name"}), "what", "site", "state"), "not set");
    EXPECT_EQ(member(objects({"knob", "explain", "checkout_reserve_policy"}), "what", "range", "value"),
              "-reserved,-unreserved,-reserved -unreserved,-unreserved -reserved");
}

TEST_F(VeliactlKnob, CheckTakesGoodValuesAndChangesNothing) {
    const std::pair<std::string, std::string> good[] = {{size, "4096k"},
                                                        {size, "1024000"},
                                                        {"lyfs_acenabled", "false"},
                                                        {"checkout_reserve_policy", "-Unreserved"},
                                                        {"fl_site_name", ""}};
    for (const auto &[name, value] : good)
        EXPECT_EQ(veliactl({"knob", "check", name, "--", value}).status, DONE) << name << " " << value;
    const std::pair<std::string, std::string> bad[] = {{size, "1023999"},
                                                       {size, "4294967296"},
                                                       {size, "junk"},
                                                       {"lyfs_acenabled", "1"},
                                                       {"checkout_reserve_policy", "-reserve"},
                                                       {"checkout_nmaster_policy", ""}};
    for (const auto &[name, value] : bad) {
        const auto outcome = veliactl({"knob", "check", name, "--", value});
        EXPECT_EQ(outcome.status, FAILED) << name << " " << value;
        EXPECT_NE(outcome.errors, "");
    }
}

TEST_F(VeliactlKnob, DiffComparesTheSitesOfTwoHosts) {
    EXPECT_THAT(objects({"knob", "diff", "alpha", "beta"}), IsEmpty()); // one daemon serves both
    EXPECT_NE(veliactl({"knob", "diff", "alpha", "nowhere"}).status, DONE);
}

TEST_F(VeliactlKnob, ALevelThatIsExportedIsImportedAgain) {
    succeed({"knob", "set", "fl_site_name", "the lab", "--level", "site"});
    succeed({"knob", "set", size, "2m", "--level", "site"});
    const auto file = site.path("settings");
    succeed({"knob", "export", file, "--level", "site"});
    const auto text = site.read("settings");
    EXPECT_THAT(text, HasSubstr("level = site\nstamp = "));
    EXPECT_THAT(text, HasSubstr("view_cache_size = 2m\n"));
    EXPECT_THAT(text, HasSubstr("fl_site_name = the lab\n"));
    EXPECT_THAT(objects({"knob", "import", file}), IsEmpty()); // nothing differs
    site.write("settings", text + "fl_vault_max_import_attempts = 7\n# a comment\n\nfl_site_name2\n");
    EXPECT_EQ(veliactl({"knob", "import", file}).status, FAILED);
    const auto stamp = text.substr(0, text.find('\n', text.find("stamp")) + 1);
    site.write("settings", stamp + "fl_vault_max_import_attempts = 7\n# a comment\n\nfl_site_name\n");
    const Objects expected = {change("would set", "fl_vault_max_import_attempts", "site", nullptr, "7"),
                              change("would unset", "fl_site_name", "site", "the lab", nullptr)};
    EXPECT_EQ(objects({"knob", "import", file, "--dry-run"}), expected);
    EXPECT_EQ(value_of("fl_site_name"), "the lab");
    EXPECT_THAT(objects({"knob", "import", file}), SizeIs(2));
    EXPECT_EQ(value_of("fl_site_name"), "");
    EXPECT_EQ(value_of("fl_vault_max_import_attempts"), "7");
    EXPECT_EQ(value_of(size), "2m");
}

TEST_F(VeliactlKnob, AnImportIsRefusedWhenTheSiteHasChangedSinceTheExport) {
    succeed({"knob", "set", "fl_site_name", "lab", "--level", "site"});
    const auto file = site.path("settings");
    succeed({"knob", "export", file, "--level", "site"});
    succeed({"knob", "set", "fl_vault_notify_email", "a@b", "--level", "site"});
    const auto outcome = veliactl({"knob", "import", file});
    EXPECT_EQ(outcome.status, FAILED);
    EXPECT_THAT(outcome.errors, HasSubstr("changed since they were read"));
    EXPECT_EQ(veliactl({"knob", "import", file, "--dry-run"}).status, FAILED);
}

TEST_F(VeliactlKnob, AnImportTakesAllOrNothing) {
    site.write("settings", "level = host\nview_cache_size = 2m\nlyfs_mnmax = -1\nno_such = 1\nfl_site_name = x\n");
    const auto refused = veliactl({"knob", "import", site.path("settings")});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("lyfs_mnmax must be >= 0"));
    EXPECT_THAT(refused.errors, HasSubstr("'no_such' is no setting"));
    EXPECT_THAT(refused.errors, HasSubstr("fl_site_name has no value in this host"));
    EXPECT_FALSE(std::filesystem::exists(site.path(size_file)));
    // The second change fails, since its directory is not there: the first one is put back.
    site.write(size_file, "4m\n");
    std::filesystem::remove_all(site.path("host/data"));
    site.write("settings", "level = host\nview_cache_size = 2m\nlyfs_mnmax = 5\n");
    EXPECT_EQ(veliactl({"knob", "import", site.path("settings")}).status, FAILED);
    EXPECT_EQ(site.read(size_file), "4m\n");
}

TEST_F(VeliactlKnob, AFileThatIsNoneIsRefused) {
    for (const std::string text : {"", "view_cache_size = 2m\n", "level = planet\n",
                                   "level = host\nview_cache_size = 2m\nVIEW_CACHE_SIZE = 4m\n"}) {
        site.write("settings", text);
        EXPECT_EQ(veliactl({"knob", "import", site.path("settings")}).status, FAILED) << text;
    }
    EXPECT_EQ(veliactl({"knob", "import", site.path("nothing")}).status, FAILED);
    EXPECT_EQ(veliactl({"knob", "import", site.path("host")}).status, FAILED);
    EXPECT_FALSE(std::filesystem::exists(site.path(size_file)));
    EXPECT_EQ(veliactl({"knob", "export", site.path("no/such/file"), "--level", "host"}).status, FAILED);
}

TEST_F(VeliactlKnob, MonitorTellsEachChangeOfAValueInForce) {
    Monitor monitor(site);
    ASSERT_TRUE(monitor.comes_to_say(R"("change":"present","name":"server_group_lifetime")"))
        << site.read("monitor.err");
    succeed({"knob", "set", "fl_site_name", "lab", "--level", "site"});
    EXPECT_TRUE(
        monitor.comes_to_say(R"("change":"changed","name":"fl_site_name","before":"","value":"lab","level":"site")"))
        << monitor.output();
    site.write(size_file, "2048000\n");
    EXPECT_TRUE(monitor.comes_to_say(
        R"("change":"changed","name":"view_cache_size","before":"4096000","value":"2048000","level":"host")"));
    site.write(size_file, "2048001\n"); // as long as before
    EXPECT_TRUE(monitor.comes_to_say(R"("before":"2048000","value":"2048001","level":"host")"));
    std::filesystem::remove(site.path(size_file));
    EXPECT_TRUE(monitor.comes_to_say(R"("before":"2048001","value":"4096000","level":"default")"));
    site.write("profile", "checkout -reserved\n");
    EXPECT_TRUE(monitor.comes_to_say(R"("before":"-unreserved","value":"-reserved","level":"user")"));
    succeed({"knob", "unset", "fl_site_name", "--level", "site"});
    EXPECT_TRUE(monitor.comes_to_say(R"("before":"lab","value":"","level":"default")"));
    EXPECT_EQ(monitor.end(), INTERRUPTED);
}
