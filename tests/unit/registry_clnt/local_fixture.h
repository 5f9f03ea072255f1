// What the tests of this host's registry files share: a world whose host configuration directory exists.
#pragma once

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rvzd/client/registry_clnt/local/local_files.h>
#include <support/stg.h>
#include <tests/bad_files.h>
#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_messages.h>

namespace {

using testing::IsEmpty;

class LocalFilesTest : public testing::Test {
protected:
    LocalFilesTest() { std::filesystem::create_directories(path_of("")); }
    ~LocalFilesTest() override {
        EXPECT_EQ(velia::registry_clnt::rgy_prop_local_mutex.depth, 0u);
        EXPECT_EQ(world.live_blocks(), 0u);
        EXPECT_EQ(bad_files::open_descriptors(), descriptors);
    }

    std::string path_of(const std::string &name) const { return world.root() + "/host/config/" + name; }

    void write(const std::string &name, const std::string &text) { world.write_file("host/config/" + name, text); }

    // The contents of a file; nothing if there is none.
    static std::optional<std::string> contents(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        if (!file)
            return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    // How a file of the host configuration directory, or any other, is refused by those who read it by themselves, and
    // by the support layer, which reads whole files for them.
    static sim::Message refusal(const std::string &path, const std::string &words, const char *subsystem = "registry") {
        return {IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, 20, "Error reading from \"" + path + "\": " + words + ".\n",
                subsystem};
    }

    sim::World world;
    const size_t descriptors = bad_files::open_descriptors();
};

} // namespace
