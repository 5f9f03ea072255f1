// The administrator's tool on a site of a test.
#pragma once

#include <sstream>

#include <gtest/gtest.h>

#include <tests/system/support/daemon.h>
#include <tests/system/support/json.h>

namespace velia::system_test {

using Words = std::vector<std::string>;
using Objects = std::vector<Json>;

// Those of a document, which is an object or a list of them, or of lines with an object each.
inline Objects objects_of(const std::string &output) {
    const Json document = Json::parse(output);
    if (document.is_valid())
        return document.is_object() ? Objects{document} : document.items;
    Objects objects;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        objects.push_back(Json::parse(line));
    return objects;
}

struct VeliactlTest : testing::Test {
    enum ExitStatus { DONE = 0, FAILED = 1, WRONG_USE = 2, UNREACHABLE = 3, INTERRUPTED = 130, TERMINATED = 143 };

    Site site;
    std::unique_ptr<Daemon> daemon;

    void serve(const std::string &configuration, const Words &arguments = {}) {
        site.configure(configuration);
        daemon = std::make_unique<Daemon>(site, arguments);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
    void serve_registry() {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        serve("");
    }

    Outcome veliactl(Words words, const Words &environment = {}) const {
        words.insert(words.begin(), VELIACTL);
        return run_apart(site, words, environment);
    }
    // The objects that a command prints, whatever its exit status should be.
    Objects objects(Words words, int status = DONE, const Words &environment = {}) const {
        words.insert(words.end(), {"--output", "json"});
        const auto outcome = veliactl(words, environment);
        EXPECT_EQ(outcome.status, status) << outcome.errors;
        return objects_of(outcome.output);
    }
    // With its standard input from a file of the site.
    Outcome veliactl_reading(const std::string &file, const std::string &words) const {
        return run_apart(site, {"/bin/sh", "-c", std::string(VELIACTL) + " " + words + " < '" + site.path(file) + "'"});
    }
};

} // namespace velia::system_test
