// veliactl beside a daemon with tasks.
#pragma once

#include <cstdio>
#include <sys/wait.h>

#include "scheduler_fixture.h"

namespace velia::system_test {

struct SchedulerTool : SchedulerFixture {
    struct Told {
        int status;
        std::string text;
    };
    // Both streams, one behind the other as they come.
    static Told tool(const std::string &words, const std::string &before = "") {
        FILE *stream = popen((before + VELIACTL + " " + words + " 2>&1").c_str(), "r");
        Told told = {-1, ""};
        for (int character = 0; (character = fgetc(stream)) != EOF;)
            told.text += static_cast<char>(character);
        const int status = pclose(stream);
        told.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return told;
    }
    static std::string json(const std::string &words) { return tool(words, "VELIACTL_OUTPUT=jsonl ").text; }
};

} // namespace velia::system_test
