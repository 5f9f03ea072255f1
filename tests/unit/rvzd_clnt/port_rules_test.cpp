#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <tuple>

namespace {

class PortRules : public BrokerTest {
protected:
    static constexpr int32_t untouched = -7;

    void file(const std::string &text) { world.write_file("config/services/rvzd_rt_params.conf", text); }

    // Applies, low, high, strict.
    using Rule = std::tuple<int, int, int, int>;
    Rule rule(uint64_t program) {
        uint16_t low = 0;
        uint16_t high = 0;
        int32_t strict = untouched;
        const int applies = rvzd_bindport_has_port_range(program, &low, &high, &strict);
        return applies != 0 ? Rule{applies, low, high, strict} : Rule{0, 0, 0, 0};
    }
    const Rule none = {0, 0, 0, 0};
};

TEST_F(PortRules, OtherProgramsHaveNone) {
    file("IVLADM_SVR_PORT = 2000\nFLADM_SVR_PORT = 2001\nFLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\n");
    for (uint64_t program : {RVZD_PROGRAM + 0ul, 0ul, 390521ul, 390524ul, (1ul << 32) + RVZD_IVLADM_PROGRAM})
        EXPECT_EQ(rule(program), none) << program;
}

TEST_F(PortRules, AFixedPortIsLowAndHigh) {
    file("IVLADM_SVR_PORT = 2000\nFLADM_SVR_PORT = 2001\n");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), Rule(1, 2000, 2000, 0));
    EXPECT_EQ(rule(RVZD_FLADM_PROGRAM), Rule(1, 2001, 2001, 0));
}

TEST_F(PortRules, ARememberedFixedPortDoesNotWriteStrict) {
    file("IVLADM_SVR_PORT = 2000\n");
    rule(RVZD_IVLADM_PROGRAM);
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), Rule(1, 2000, 2000, untouched));
}

TEST_F(PortRules, AFixedPortIsClampedFromBelow) {
    file("IVLADM_SVR_PORT = 80\nFLADM_SVR_PORT = 80\n");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), Rule(1, 1024, 1024, 0));
    EXPECT_EQ(rule(RVZD_FLADM_PROGRAM), Rule(1, 1025, 1025, 0));
}

TEST_F(PortRules, AFixedPortIsClampedFromAbove) {
    file("IVLADM_SVR_PORT = 70000\nFLADM_SVR_PORT = 70000\n");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), Rule(1, 65533, 65533, 0));
    EXPECT_EQ(rule(RVZD_FLADM_PROGRAM), Rule(1, 65534, 65534, 0));
}

TEST_F(PortRules, AFixedPortOfZeroIsNoRule) {
    file("IVLADM_SVR_PORT = 0\n");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), none);
}

TEST_F(PortRules, AFixedPortThatWasNotThereIsNotLookedForAgain) {
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), none);
    file("IVLADM_SVR_PORT = 2000\n");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), none);
}

TEST_F(PortRules, AFixedPortOutlivesItsFile) {
    file("IVLADM_SVR_PORT = 2000\n");
    rule(RVZD_IVLADM_PROGRAM);
    file("");
    EXPECT_EQ(rule(RVZD_IVLADM_PROGRAM), Rule(1, 2000, 2000, untouched));
}

TEST_F(PortRules, ARangeIsClampedOutOfTheReservedPorts) {
    file("FLSHP_MIN_PORT = 100\nFLSHP_MAX_PORT = 2000\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 1026, 2000, 0));
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 1026, 2000, 0));
}

TEST_F(PortRules, ARangeIsClampedFromAbove) {
    file("FLSHP_MIN_PORT = 60000\nFLSHP_MAX_PORT = 99999\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 60000, 65535, 0));
}

TEST_F(PortRules, ARangeWhollyAboveIsTheLastPort) {
    file("FLSHP_MIN_PORT = 70000\nFLSHP_MAX_PORT = 80000\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 65535, 65535, 0));
}

TEST_F(PortRules, EqualEndsAreNoRange) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3000\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, AnInvertedOrZeroRangeIsNone) {
    file("FLSHP_MIN_PORT = 3001\nFLSHP_MAX_PORT = 3000\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, ARangeOfTheEnvironmentWhollyBelowZeroHasNoHighEndAndIsNotRemembered) {
    setenv("IRONVALE_MIN_PORT", "-5", 1);
    setenv("IRONVALE_MAX_PORT", "-1", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 1026, 0, 1));
    setenv("IRONVALE_MIN_PORT", "3000", 1);
    setenv("IRONVALE_MAX_PORT", "3010", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 3000, 3010, 1));
}

TEST_F(PortRules, ALowEndOfZeroIsNone) {
    file("FLSHP_MIN_PORT = 0\nFLSHP_MAX_PORT = 3000\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, ARangeOfTheFileIsStrictOnlyWhenAskedFor) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\nFLSHP_STRICT = 1\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 3000, 3010, 1));
}

TEST_F(PortRules, AStrictValueOtherThanOneIsNotStrict) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\nFLSHP_STRICT = 2\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 3000, 3010, 0));
}

TEST_F(PortRules, StrictnessOfTheRangeShowsInAFixedPortReadLater) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\nFLSHP_STRICT = 1\nFLADM_SVR_PORT = 2001\n");
    rule(RVZD_GENERIC_SERVICE_PROGRAM);
    EXPECT_EQ(rule(RVZD_FLADM_PROGRAM), Rule(1, 2001, 2001, 1));
}

TEST_F(PortRules, ARefusedRangeOfTheFileIsNotReadAgain) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3000\n");
    rule(RVZD_GENERIC_SERVICE_PROGRAM);
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\n");
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, WithoutARangeInTheFileTheEnvironmentGivesAStrictOne) {
    setenv("IRONVALE_MIN_PORT", "4000", 1);
    setenv("IRONVALE_MAX_PORT", "4010", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 4000, 4010, 1));
}

TEST_F(PortRules, TheFileWinsOverTheEnvironment) {
    file("FLSHP_MIN_PORT = 3000\nFLSHP_MAX_PORT = 3010\n");
    setenv("IRONVALE_MIN_PORT", "4000", 1);
    setenv("IRONVALE_MAX_PORT", "4010", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 3000, 3010, 0));
}

TEST_F(PortRules, HalfARangeInTheFileLeavesItToTheEnvironment) {
    file("FLSHP_MIN_PORT = 3000\n");
    setenv("IRONVALE_MIN_PORT", "4000", 1);
    setenv("IRONVALE_MAX_PORT", "4010", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 4000, 4010, 1));
}

TEST_F(PortRules, HalfARangeInTheEnvironmentIsNone) {
    setenv("IRONVALE_MIN_PORT", "4000", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, ARefusedRangeOfTheEnvironmentIsLookedAtAgain) {
    setenv("IRONVALE_MIN_PORT", "4010", 1);
    setenv("IRONVALE_MAX_PORT", "4000", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
    setenv("IRONVALE_MAX_PORT", "4020", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 4010, 4020, 1));
}

TEST_F(PortRules, WordsInTheEnvironmentCountAsZero) {
    setenv("IRONVALE_MIN_PORT", "low", 1);
    setenv("IRONVALE_MAX_PORT", "4000", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

TEST_F(PortRules, HugeNumbersInTheEnvironmentAreClamped) {
    setenv("IRONVALE_MIN_PORT", "-99999999999999999999", 1);
    setenv("IRONVALE_MAX_PORT", "99999999999999999999", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), Rule(1, 1026, 65535, 1));
}

TEST_F(PortRules, AnOverlongEnvironmentValueDoesNoHarm) {
    setenv("IRONVALE_MIN_PORT", std::string(5000, '1').c_str(), 1);
    setenv("IRONVALE_MAX_PORT", "4000", 1);
    EXPECT_EQ(rule(RVZD_GENERIC_SERVICE_PROGRAM), none);
}

} // namespace
