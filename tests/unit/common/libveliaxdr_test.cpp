#include <veliaxdr/libveliaxdr.h>

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/sim/world.h>

namespace {

const std::string version_line = "libveliaxdr                       11.0.0.1 (Tue May 28 13:33:43 2024) 64-bit\n";

TEST(Version, LineHasTheNamePaddedTo33ThenVersionBuildTimeAndWordSize) {
    sim::World world;
    char line[LIBVELIAXDR_VERID_SIZE];
    EXPECT_GE(libveliaxdr_sprintf_verid(line), 0);
    EXPECT_EQ(line, version_line);
}

TEST(Version, PrintedLineIsTheSameAtSeverityZero) {
    sim::World world;
    libveliaxdr_print_verid();
    EXPECT_THAT(world.take_messages(),
                testing::ElementsAre(sim::Message{IMSG_PLAIN, nullptr, IMSG_FORMAT, version_line}));
}

TEST(Notice, IsNineLinesOfOneWidthBetweenRulesOfDashes) {
    const char *const *notice = libveliaxdr_copyright_array();
    std::vector<std::string> lines;
    for (; *notice != nullptr; ++notice)
        lines.emplace_back(*notice);
    ASSERT_EQ(lines.size(), 9u);
    const std::string rule(lines[0].size(), '-');
    EXPECT_EQ(lines.front(), rule);
    EXPECT_EQ(lines.back(), rule);
    for (const auto &line : lines)
        EXPECT_EQ(line.size(), rule.size()) << line;
}

} // namespace
