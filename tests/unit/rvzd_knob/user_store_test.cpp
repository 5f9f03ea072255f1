// Values of the user: what a template makes of the profile.
#include <tests/unit/rvzd_knob/knob_fixture.h>

namespace {

class UserValues : public KnobTest {
protected:
    // What `command_template` makes of the profile, of a setting without a list.
    tbs_status_t evaluate(const char *command_template, std::string &value, tbs_boolean_t &found) {
        row(checkout_reserve_policy).knoblets[KNOBLET_USER].detail = command_template;
        char buffer[2048] = "";
        found = 99;
        const auto status =
            rvzd_knoblet_get_string(checkout_reserve_policy, KNOBLET_USER, nullptr, &found, sizeof buffer, buffer);
        value = buffer;
        return status;
    }
    std::string value_of(const char *command_template) {
        std::string value;
        tbs_boolean_t found;
        EXPECT_EQ(evaluate(command_template, value, found), TBS_ST_OK);
        return found != 0 ? value : "(none)";
    }
    tbs_status_t status_of(const char *command_template) {
        std::string value;
        tbs_boolean_t found;
        const auto status = evaluate(command_template, value, found);
        EXPECT_EQ(found, 0);
        return status;
    }
    std::string in_force() {
        char buffer[64] = "";
        EXPECT_EQ(rvzd_knob_get_string(checkout_reserve_policy, nullptr, sizeof buffer, buffer), TBS_ST_OK);
        return buffer;
    }
};

TEST_F(UserValues, TheProfileDecidesAboutCheckouts) {
    EXPECT_EQ(in_force(), "-reserved"); // the default
    write_profile("checkout -unreserved\n");
    EXPECT_EQ(in_force(), "-unreserved");
    write_profile("checkout -unreserved\ncheckout -reserved\n");
    EXPECT_EQ(in_force(), "-reserved -unreserved");
    write_profile("checkin -unreserved\n");
    EXPECT_EQ(in_force(), "-reserved");
}

TEST_F(UserValues, AllPoliciesReadTheirOwnOptions) {
    char buffer[64];
    for (const uint32_t id : {uint32_t{nmaster_policy}, 56u}) {
        EXPECT_EQ(rvzd_knob_get_string(id, nullptr, sizeof buffer, buffer), TBS_ST_OK);
        EXPECT_STREQ(buffer, "");
    }
    write_profile("checkout -nmaster\nmkelem -master\n");
    EXPECT_EQ(rvzd_knob_get_string(nmaster_policy, nullptr, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "-nmaster");
    EXPECT_EQ(rvzd_knob_get_string(56, nullptr, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "-master");
}

TEST_F(UserValues, ThePlaceholderNeverMatches) {
    write_profile("checkout -x\nJIVEDUMMY ENTRY TO\n");
    for (const uint32_t id : {4u, 6u, 7u}) {
        tbs_boolean_t found = 99, value = 99;
        EXPECT_EQ(rvzd_knoblet_get_boolean(id, KNOBLET_USER, nullptr, &found, &value), TBS_ST_OK);
        EXPECT_EQ(found, 0);
        EXPECT_EQ(rvzd_knob_get_boolean(id, nullptr, &value), TBS_ST_OK);
        EXPECT_EQ(value, 0);
    }
}

TEST_F(UserValues, ResultsAreTheOptionTheArgumentOrThemselves) {
    write_profile("cmd -opt the argument\ncmd -bare\n");
    EXPECT_EQ(value_of("cmd -opt <"), "-opt");
    EXPECT_EQ(value_of("cmd -opt %"), "the argument");
    EXPECT_EQ(value_of("cmd -bare %"), "");
    EXPECT_EQ(value_of("cmd -opt yes"), "yes");
    EXPECT_EQ(value_of("cmd -opt <<"), "<<");
    EXPECT_EQ(value_of("cmd -opt %d"), "%d");
    EXPECT_EQ(value_of("cmd -opt <%"), "<%");
}

TEST_F(UserValues, FieldsAreApartByBlanksAndTabsAndThoseBehindTheThirdAreIgnored) {
    write_profile("cmd -opt x\n");
    EXPECT_EQ(value_of("\t cmd  \t-opt\tyes more and more "), "yes");
}

TEST_F(UserValues, AllMatchesAreJoinedByOneBlank) {
    write_profile("a -x 1\nb -y\nc -z 3\n");
    EXPECT_EQ(value_of("a -x %&b -n no& c -z %"), "1 3");
    EXPECT_EQ(value_of("a -x % & b -y % & c -z %"), "1  3"); // an empty one has its blank, too
    EXPECT_EQ(value_of("b -y % & a -x %"), "1");             // but none stands in front
}

TEST_F(UserValues, WithABarTheFirstMatchDecides) {
    write_profile("a -x 1\nb -y 2\n");
    EXPECT_EQ(value_of("n -n % | b -y % | a -x %"), "2");
    EXPECT_EQ(value_of("a -x % & b -y % | n -n %"), "1"); // one bar anywhere
    EXPECT_EQ(value_of("n -n % | m -m %"), "(none)");
}

TEST_F(UserValues, ATemplateWithoutClausesMatchesNothing) {
    write_profile("a -x 1\n");
    for (const char *nothing : {"", " ", "&", "|", " & | \t", "a", "a -x", "a -x & a", "&&a -x|"})
        EXPECT_EQ(value_of(nothing), "(none)") << nothing;
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(UserValues, NoTemplateIsAnInternalError) {
    EXPECT_EQ(status_of(nullptr), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(12, "checkout_reserve_policy")));
}

TEST_F(UserValues, ATemplateThatDoesNotFitIsRefused) {
    write_profile("a -x 1\n");
    const std::string fits = "a -x % " + std::string(1023 - 7, 'x');
    const std::string too_long = fits + "x";
    EXPECT_EQ(value_of(fits.c_str()), "1");
    EXPECT_EQ(status_of(too_long.c_str()), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(12, "checkout_reserve_policy")));
}

TEST_F(UserValues, AValueThatDoesNotFitIsRefusedAndNotCut) {
    const std::string longest(1023, 'v');
    write_profile("a -x " + longest + "\nb -y " + longest + "v\nc -z 1\n");
    EXPECT_EQ(value_of("a -x %"), longest);
    EXPECT_EQ(status_of("b -y %"), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(told(8, (longest + "v").c_str(), "checkout_reserve_policy", "string")));
    EXPECT_EQ(status_of("a -x % & c -z %"), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(8, "1", "checkout_reserve_policy", "string")));
}

TEST_F(UserValues, TheOriginIsTheTemplate) {
    char buffer[128];
    EXPECT_EQ(rvzd_knoblet_origin(checkout_reserve_policy, KNOBLET_USER, nullptr, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "checkout -reserved < & checkout -unreserved <");
    EXPECT_EQ(rvzd_knoblet_origin(checkout_reserve_policy, KNOBLET_USER, nullptr, 10, buffer), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_origin(checkout_reserve_policy, KNOBLET_DEFAULT, nullptr, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "");
}

TEST_F(UserValues, AUsersValueIsNeverWritten) {
    EXPECT_EQ(rvzd_knoblet_set_string(checkout_reserve_policy, KNOBLET_USER, nullptr, "-reserved"), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(checkout_reserve_policy, KNOBLET_USER, nullptr, "-reserved"),
              TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_unset_value(checkout_reserve_policy, KNOBLET_USER, nullptr), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(UserValues, NoFailureAndNoRaiseLeaks) {
    write_profile("checkout -reserved x\n");
    row(checkout_reserve_policy).knoblets[KNOBLET_USER].detail = "checkout -reserved %";
    EXPECT_EQ(in_force(), "x");
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    const auto read = [&] {
        char buffer[64];
        status = rvzd_knob_get_string(checkout_reserve_policy, nullptr, sizeof buffer, buffer);
    };
    sim::sweep_allocations(world, read, [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    EXPECT_EQ(status, TBS_ST_OK);
    sim::sweep_raises(world, read, [&](int number) {
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        EXPECT_EQ(velia::rvzd_knob::rvzd_knob_lock.depth, 0u) << number;
    });
}

} // namespace
