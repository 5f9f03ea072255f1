// What the engine promises its grammars, and no file can show.
#include <rvzd/sched_utl_parse/engine.h>
#include <tests/unit/sched_parse/fixture.h>

using namespace velia::sched_utl_parse;
using testing::HasSubstr;

namespace {

class Engine : public DefinitionTest {
protected:
    ~Engine() override { release_state(&state); }

    void open(const std::string &text) {
        write(text);
        ASSERT_EQ(parse_new_state(scheduler, path.c_str(), &state), TBS_ST_OK);
    }
    std::string next_line(bool skip_comments = false) {
        return parse_next_line(state, skip_comments, true) == TBS_ST_OK ? state->line : "the end";
    }

    // An action that keeps what it is called with.
    static tbs_status_t keep(parse_state_t * /*state*/, const char *tag, char *value) {
        kept_tag = tag;
        kept_value = value;
        return TBS_ST_NO_ACCESS;
    }
    static inline std::string kept_tag;
    static inline std::string kept_value;

    parse_state_t *state = nullptr;
};

TEST_F(Engine, LineThatIsPushedBackComesAgainAndCountsOnce) {
    open("one\n# two\nthree\n");
    EXPECT_EQ(next_line(), "one");
    EXPECT_EQ(parse_unget_cur_line(state), TBS_ST_OK);
    EXPECT_EQ(next_line(), "one");
    EXPECT_EQ(state->line_no, 1u);
    EXPECT_EQ(next_line(), "# two");
    EXPECT_EQ(parse_unget_cur_line(state), TBS_ST_OK);
    EXPECT_EQ(next_line(true), "# two") << "it was delivered before";
    EXPECT_EQ(next_line(true), "three");
    EXPECT_EQ(next_line(), "the end");
    EXPECT_EQ(state->line_no, 3u);
    EXPECT_EQ(told(), "");
}

TEST_F(Engine, SecondPushBackIsAnErrorOfTheProgram) {
    open("one\n");
    next_line();
    EXPECT_EQ(parse_unget_cur_line(state), TBS_ST_OK);
    EXPECT_EQ(parse_unget_cur_line(state), TBS_ST_ERROR);
    EXPECT_THAT(told(), HasSubstr("multilevel unget isn't supported.\n"));
    EXPECT_EQ(next_line(), "one");
}

TEST_F(Engine, TagAndValueAreGivenAsTheyStand) {
    open("\t Tag:  a value \n\n");
    next_line();
    EXPECT_EQ(parse_cur_match(state, true, "tAG:", keep), TBS_ST_NO_ACCESS) << "the action's own status";
    EXPECT_EQ(kept_tag, "Tag:");
    EXPECT_EQ(kept_value, "  a value ");
    EXPECT_EQ(parse_cur_match(state, true, "*", keep), TBS_ST_NO_ACCESS) << "any line";
    EXPECT_EQ(parse_cur_match(state, true, "*", nullptr), TBS_ST_OK);
    next_line();
    EXPECT_EQ(parse_cur_match(state, true, "*", keep), TBS_ST_NO_ACCESS);
    EXPECT_EQ(kept_tag, "");
    EXPECT_EQ(kept_value, "");
}

TEST_F(Engine, LineWithoutAWordIsAllValue) {
    open(" \t \n");
    next_line();
    EXPECT_EQ(parse_cur_match(state, true, "*", keep), TBS_ST_NO_ACCESS);
    EXPECT_EQ(kept_tag, "");
    EXPECT_EQ(kept_value, " \t ");
}

TEST_F(Engine, TagThatIsNotRequiredIsPushedBack) {
    open("one\n");
    next_line();
    EXPECT_EQ(parse_cur_match(state, false, "two", keep), TBS_ST_OK);
    EXPECT_EQ(state->unget_flag, 1u);
    EXPECT_EQ(parse_cur_match(state, false, "two", keep), TBS_ST_ERROR) << "and not twice";
    told();
}

TEST_F(Engine, FirstRowThatFitsHasTheLine) {
    open("Job.One: x\nJob.Two: y\nJob.Two: z\n");
    const parse_tag_action_t ignoring_first[] = {{"Job.O", nullptr}, {"job.", keep}};
    EXPECT_EQ(parse_next_match_set(state, true, 2, ignoring_first), TBS_ST_OK);
    EXPECT_EQ(parse_next_match_set(state, true, 2, ignoring_first), TBS_ST_NO_ACCESS);
    EXPECT_EQ(kept_value, " y");
    EXPECT_EQ(parse_next_match_set(state, true, 0, ignoring_first), TBS_ST_ERROR) << "no row, no line";
    EXPECT_EQ(told(), syntax_error(3, "Expected tag \"Job.Two:\"."));
}

// A long table is searched from where the last line was found, but only if no tag has two rows in it.
TEST_F(Engine, FirstRowThatFitsHasTheLineBehindAnyOther) {
    static std::string rows;
    constexpr auto in_first = [](parse_state_t *, const char *, char *) {
        return rows += "1", tbs_status_t{TBS_ST_OK};
    };
    constexpr auto in_other = [](parse_state_t *, const char *, char *) {
        return rows += "2", tbs_status_t{TBS_ST_OK};
    };
    const parse_tag_action_t table[] = {{"A:", in_other},    {"Job.Two", in_first}, {"C:", in_other},  {"D:", in_other},
                                        {"JOB.T", in_other}, {"F:", in_other},      {"Job.", in_other}};
    open("D: x\nJob.Two: y\nF: z\njob.two: y\nJob.Three: y\nEnd\n");
    EXPECT_EQ(parse_next_match_set_until(state, true, std::size(table), table, "End"), TBS_ST_OK) << told();
    EXPECT_EQ(rows, "21212");
}

TEST_F(Engine, RowsAreFoundInAnyOrderOfTheLines) {
    static std::string tags;
    constexpr auto note = [](parse_state_t *, const char *tag, char *) { return tags += tag, tbs_status_t{TBS_ST_OK}; };
    const parse_tag_action_t table[] = {{"A:", note}, {"B:", note}, {"C:", note},
                                        {"D:", note}, {"E:", note}, {"F:", note}};
    for (const std::string order : {"ABCDEF", "FEDCBA", "CCACCF", "FAFAFA"}) {
        std::string lines;
        std::string expected;
        for (const char tag : order) {
            lines += std::string(1, tag) + ": x\n";
            expected += std::string(1, tag) + ":";
        }
        write(lines + "G: x\n");
        release_state(&state);
        ASSERT_EQ(parse_new_state(scheduler, path.c_str(), &state), TBS_ST_OK);
        tags.clear();
        EXPECT_EQ(parse_next_match_set_until(state, true, std::size(table), table, "End"), TBS_ST_ERROR);
        EXPECT_EQ(tags, expected);
        EXPECT_EQ(told(), syntax_error(7, "Expected tag \"G:\"."));
    }
}

// The schedule's kind stands in the way of a second line in a file.
TEST_F(Engine, FollowedJobIsGivenOnce) {
    constexpr int schedule_row = 9;
    open("Job.Schedule.Sequential.FollowsJob: x\nJob.Schedule.Sequential.FollowsJob: y\n");
    const auto follow = [&] {
        next_line();
        state->job_rec.rw.schedule.kind = 0;
        return parse_unget_cur_line(state) == TBS_ST_OK
                   ? parse_next_match_set(state, true, 1, &top_tag_actions[schedule_row])
                   : tbs_status_t{TBS_ST_ERROR};
    };
    EXPECT_EQ(follow(), TBS_ST_OK);
    EXPECT_EQ(follow(), TBS_ST_ERROR);
    EXPECT_EQ(told(), syntax_error(2, "Conflict: Follows Job was already specified."));
}

TEST_F(Engine, JobOfAnIdIsFollowedOnce) {
    open("Job.Schedule.Sequential.FollowsJob: 3\n");
    state->job_rec.rw.schedule.u.sequential.follows_job = 2;
    EXPECT_EQ(parse_next_match_set(state, true, 1, &top_tag_actions[9]), TBS_ST_ERROR);
    EXPECT_EQ(told(), syntax_error(1, "Conflict: Follows Job was already specified."));
}

TEST_F(Engine, StateThatIsNoneIsReleasedInPeace) {
    parse_state_t *none = nullptr;
    release_state(&none);
    EXPECT_EQ(none, nullptr);
}

} // namespace
