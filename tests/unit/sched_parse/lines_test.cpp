// Files, lines, tags and values, whatever the grammar is.
#include <tests/bad_files.h>
#include <tests/unit/sched_parse/fixture.h>

using testing::HasSubstr;

namespace {

using DefinitionLines = DefinitionTest;

TEST_F(DefinitionLines, FileWithNothingButCommentsHasNoJobs) {
    for (const char *text : {"", "\n", "# nothing\n   #\n\t # here\n \t \n", "#"}) {
        jobs = reinterpret_cast<sched_job_properties_t *>(this);
        followed = reinterpret_cast<char **>(this);
        write(text);
        EXPECT_EQ(sched_utl_parse_job_properties(scheduler, path.c_str(), &job_count, &jobs, &followed), TBS_ST_OK);
        EXPECT_EQ(job_count, 0u);
        EXPECT_EQ(jobs, nullptr);
        EXPECT_EQ(followed, nullptr);
        EXPECT_EQ(told(), "");
    }
}

TEST_F(DefinitionLines, CommentsAndEmptyLinesCountAsLines) {
    expect_refused("# one\n\n   # three\nJob.Begin\n\n#\nJob.Sname: x\n",
                   syntax_error(7, "Expected tag \"Job.Sname:\"."));
}

TEST_F(DefinitionLines, LastLineNeedsNoEnd) {
    const std::string text = job();
    expect_read(text.substr(0, text.size() - 1));
}

TEST_F(DefinitionLines, CarriageReturnsAreWhiteSpace) {
    std::string text =
        "# c\n" + job("Job.Description.Begin:\nkept\nJob.Description.End:\nJob.DeleteWhenCompleted: TRUE\n");
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
        text.insert(at, "\r");
    expect_read(text);
    EXPECT_STREQ(jobs[0].rw.name, "nightly");
    EXPECT_EQ(jobs[0].rw.task, 7u);
    EXPECT_TRUE(jobs[0].rw.delete_when_completed);
    EXPECT_STREQ(jobs[0].rw.description, "kept\r\n");
}

TEST_F(DefinitionLines, CaseAndIndentationOfTagsMeanNothing) {
    expect_read(
        "  job.begin of it\n\tJOB.NAME: Nightly\n job.schedule.daily.frequency: 1\nJob.task: 7\n  jOB.eND now\n");
    EXPECT_STREQ(jobs[0].rw.name, "Nightly");
}

TEST_F(DefinitionLines, WordThatTheEndTagBeginsEndsTheDefinition) {
    std::string text = job();
    text.replace(text.find("Job.End"), 7, "Job.Ending");
    expect_read(text);
}

TEST_F(DefinitionLines, ExpectedTagIsAWholeWord) {
    expect_refused("Job.Beginning\n", syntax_error(1, "Expected tag \"Job.Begin\"."));
    expect_refused("Job.Begi\n", syntax_error(1, "Expected tag \"Job.Begin\"."));
    expect_refused("nothing of that\n", syntax_error(1, "Expected tag \"Job.Begin\"."));
}

TEST_F(DefinitionLines, UnknownTagIsNamed) {
    expect_refused(job("Something else\n"), syntax_error(first_own_line, "Expected tag \"Something\"."));
    expect_refused(job("Job.Begin\n"), syntax_error(first_own_line, "Expected tag \"Job.Begin\"."));
}

TEST_F(DefinitionLines, EndOfTheFileWithinADefinitionIsTold) {
    const std::string text = job("Job.NotifyInfo.OnEvents: JobBegin\nJob.NotifyInfo.Using: email\n"
                                 "Job.NotifyInfo.Recipients: anna\n");
    for (size_t size = 1; size < text.size() - 2; ++size) {
        const tbs_status_t status = read_jobs(text.substr(0, size));
        EXPECT_NE(status, TBS_ST_OK) << size;
        EXPECT_THAT(told(), testing::EndsWith(bad_jobs));
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
    expect_refused("Job.Begin\nJob.Name: nightly\n", syntax_error(2, "Unexpected EOF."));
    expect_refused("# only\nJob.Begin", syntax_error(2, "Unexpected EOF."));
}

TEST_F(DefinitionLines, LongLineComesInPieces) {
    // The second piece is a line by itself: in a comment it is none.
    expect_refused("# " + std::string(2498, 'x') + "\n", syntax_error(2, "Expected tag \"Job.Begin\"."));
    expect_read("# " + std::string(1996, 'x') + "\n" + job());
    expect_read("# " + std::string(1997, 'x') + "\n" + job());
    expect_refused("# " + std::string(1998, 'x') + "\n", syntax_error(2, "Expected tag \"Job.Begin\"."));
    expect_read("# " + std::string(1997, 'x'), 0);
}

TEST_F(DefinitionLines, PiecesCountAsLines) {
    const auto line_of_error = [&](size_t length) {
        read_jobs("#" + std::string(length - 1, ' ') + "\nwrong\n");
        const std::string words = told();
        return words.substr(0, words.find('.'));
    };
    EXPECT_EQ(line_of_error(1998), "Syntax error on line 2");
    EXPECT_EQ(line_of_error(1999), "Syntax error on line 3") << "its end is a line of its own";
    EXPECT_EQ(line_of_error(2000), "Syntax error on line 3");
    EXPECT_EQ(line_of_error(2500), "Syntax error on line 3");
}

TEST_F(DefinitionLines, TagOfMoreThan255CharactersIsCut) {
    const std::string tag(300, 't');
    expect_refused("Job.Begin\n" + tag + "\n", syntax_error(2, "Expected tag \"" + tag.substr(0, 255) + "\"."));
    expect_read(job("Job.Created:" + std::string(600, 'x') + "\n"));
}

TEST_F(DefinitionLines, ValueBehindATagThatWasCutBeginsWithinTheWord) {
    expect_read(job("Job.Args:" + std::string(246, 'x') + "rest\n"));
    ASSERT_EQ(jobs[0].rw.arg_count, 1u);
    EXPECT_STREQ(jobs[0].rw.args[0], "rest");
}

TEST_F(DefinitionLines, ValuesMayBeQuoted) {
    const auto name_of = [&](const std::string &value) {
        expect_read("Job.Begin\nJob.Name:" + value + "\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\nJob.End\n");
        return std::string(jobs[0].rw.name);
    };
    EXPECT_EQ(name_of(" nightly run  "), "nightly run");
    EXPECT_EQ(name_of("\t\"nightly run\" \t"), "nightly run");
    EXPECT_EQ(name_of(" \" a \""), " a ");
    EXPECT_EQ(name_of(" \"a\"b\""), "a\"b") << "inner quotes stay";
    EXPECT_EQ(name_of(" a\"b\""), "a\"b\"") << "quotes begin a value";
    EXPECT_EQ(name_of(" \"a\\\"\""), "a\\\"") << "nothing escapes";
}

TEST_F(DefinitionLines, QuoteThatDoesNotEndIsTold) {
    for (const char *value : {"\"", "\"nightly", "\"nightly\" run", " \" "})
        expect_refused(std::string("Job.Begin\nJob.Name: ") + value + "\n",
                       syntax_error(2, "Quoted string is missing a terminating quote."));
    EXPECT_EQ(read_jobs("Job.Begin\nJob.Name: \"\"\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\nJob.End\n"),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(told(), "Job name must not be nil.\n" + bad_jobs);
}

TEST_F(DefinitionLines, BooleansAreTheFirstWord) {
    for (const char *value : {" TRUE", "\ttrue now", " True\r"}) {
        expect_read(job("Job.DeleteWhenCompleted:" + std::string(value) + "\nJob.Predefined: TRUE\n"));
        EXPECT_TRUE(jobs[0].rw.delete_when_completed);
        EXPECT_TRUE(jobs[0].ro.predefined);
    }
    expect_read(job("Job.Predefined: TRUE\nJob.Predefined: false\n"));
    EXPECT_FALSE(jobs[0].ro.predefined);
    expect_refused(job("Job.Predefined:\n"), syntax_error(first_own_line, "Missing Boolean specifier."));
    expect_refused(job("Job.Predefined: TRUER no\n"),
                   syntax_error(first_own_line, "Illegal Boolean specifier \"TRUER\"."));
    expect_refused(job("Job.DeleteWhenCompleted: yes\n"),
                   syntax_error(first_own_line, "Illegal Boolean specifier \"yes\"."));
}

TEST_F(DefinitionLines, ZeroBytesEndTheirLineForAllThatLooksAtIt) {
    expect_read(job() + std::string("\0 junk\n", 7) + std::string("# \0 Job.Begin\n", 14));
    expect_refused(std::string("Job\0Begin\n", 10), syntax_error(1, "Expected tag \"Job.Begin\"."));
}

TEST_F(DefinitionLines, BytesOfAnyKindAreRefusedInPeace) {
    for (int i = 0; i < 200; ++i) {
        std::string bytes(sampler.number(5000), '\0');
        for (char &c : bytes)
            c = static_cast<char>(sampler.number(255));
        const bool is_read = read_jobs(bytes) == TBS_ST_OK;
        EXPECT_TRUE(!is_read || job_count == 0);
        EXPECT_EQ(sim::Holdings::now(world), before);
        told();
    }
}

TEST_F(DefinitionLines, MissingFileIsToldWithItsPath) {
    const tbs_status_t status = read_jobs();
    EXPECT_EQ(status, tbs_errno2status(ENOENT));
    EXPECT_EQ(told(), "Unable to open file \"" + path + "\": " + tbs_strerror(status) + ".\n" + bad_jobs);
    EXPECT_EQ(sched_utl_parse_task_properties(scheduler, path.c_str(), &task_count, &tasks), status);
    EXPECT_EQ(told(), "Unable to open file \"" + path + "\": " + tbs_strerror(status) + ".\n" + bad_tasks);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(DefinitionLines, FilesAreClosed) {
    const auto open_files = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before_reading = open_files();
    expect_read(job());
    EXPECT_EQ(open_files(), before_reading);
    expect_refused("wrong\n", syntax_error(1, "Expected tag \"Job.Begin\"."));
    EXPECT_EQ(open_files(), before_reading);
}

// The process's own memory looks like a file, and nothing is at its beginning.
TEST_F(DefinitionLines, FileThatCannotBeReadIsTold) {
    path = "/proc/self/mem";
    const tbs_status_t status = read_jobs();
    EXPECT_EQ(status, tbs_errno2status(EIO));
    EXPECT_EQ(told(), "Error reading from \"/proc/self/mem\": " + std::string(tbs_strerror(status)) + ".\n" + bad_jobs);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(DefinitionLines, PathThatDoesNotFitIsRefused) {
    write(job());
    const std::string name = "definitions";
    path = directory + std::string(1023 - directory.size() - name.size(), '/') + name;
    EXPECT_EQ(read_jobs(), TBS_ST_OK);
    EXPECT_EQ(job_count, 1u);
    path.insert(directory.size(), "/");
    EXPECT_EQ(read_jobs(), TBS_ST_NAME_TOO_LONG);
    EXPECT_THAT(told(), HasSubstr(path));
}

TEST_F(DefinitionLines, WhatIsNoFileIsRefusedAtOnce) {
    for (const auto kind : bad_files::all_kinds) {
        const bad_files::BadFile bad(kind, path);
        const auto held = sim::Holdings::now(world);
        EXPECT_NE(read_jobs(), TBS_ST_OK) << static_cast<int>(kind);
        const std::string words = told();
        EXPECT_THAT(words, HasSubstr(path));
        EXPECT_THAT(words, testing::EndsWith(bad_jobs));
        EXPECT_EQ(sim::Holdings::now(world), held);
    }
}

} // namespace
