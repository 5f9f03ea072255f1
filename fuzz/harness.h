// What the harnesses share: an invariant that stops the run, messages that nobody reads, and a root directory.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <support/imsg.h>

namespace fuzz {

// What must hold whatever the input is.
#define FUZZ_REQUIRE(CONDITION)                                                                                        \
    do {                                                                                                               \
        if (!(CONDITION)) {                                                                                            \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #CONDITION);                             \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)

// Counts messages instead of printing them.
class Messages {
public:
    Messages() { imsg_set_sink(take, this); }
    Messages(const Messages &) = delete;
    Messages &operator=(const Messages &) = delete;

    size_t count = 0;

private:
    static void take(void *context, int, const char *, const imsg_table_t *, int, const char *text) {
        FUZZ_REQUIRE(text != nullptr);
        ++static_cast<Messages *>(context)->count;
    }
};

// A root directory of this process, with files in it.
class Root {
public:
    Root() {
        std::string made = (std::filesystem::temp_directory_path() / "velia-fuzz-XXXXXX").string();
        FUZZ_REQUIRE(mkdtemp(made.data()) != nullptr);
        path_ = made;
        setenv("VELIA_ROOT", path_.c_str(), 1);
    }
    ~Root() { std::filesystem::remove_all(path_); }
    Root(const Root &) = delete;
    Root &operator=(const Root &) = delete;

    void write(const std::filesystem::path &below, std::string_view text) const {
        const auto path = path_ / below;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }

private:
    std::filesystem::path path_;
};

} // namespace fuzz
