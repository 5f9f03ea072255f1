// Files of definitions as the tool reads, writes and formats them.
#include <cli/definition_format.h>
#include <cli/definition_text.h>
#include <cli/definitions.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "made_up_job.h"

using namespace velia::cli;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using velia::cli_tests::MadeUpJob;

namespace {

constexpr int made_up_jobs = 1500;

Names names_of_numbers() {
    return {[](sched_task_id_t id) { return "task " + std::to_string(id); },
            [](sched_job_id_t id) { return id % 2 == 0 ? "" : "job " + std::to_string(id); }};
}

bool number_of_task(const std::string &name, sched_task_id_t &id) {
    return sscanf(name.c_str(), "task %u", &id) == 1;
}

bool same(sched_job_rw_properties_t &left, sched_job_rw_properties_t &right) {
    tbs_boolean_t is_equal = 0;
    sched_utl_equal_job_rw_properties(nullptr, &left, &right, &is_equal);
    return is_equal != 0;
}

// What reading it again makes of a job that follows one whose name is known.
void follow_by_name(sched_job_rw_properties_t &job, const std::string &name) {
    if (job.schedule.kind == SCHED_KIND_SEQUENTIAL && !name.empty())
        job.schedule.u.sequential.follows_job = static_cast<sched_job_id_t>(std::stoul(name.substr(4)));
}

std::string job(const std::string &lines, const std::string &name = "nightly") {
    return "Job.Begin\nJob.Name: " + name + "\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\n" + lines + "Job.End\n";
}

std::string finding_of(const std::string &text) {
    const JobFile file("a.jobs", text, number_of_task);
    EXPECT_THAT(file.jobs(), IsEmpty());
    return file.findings().empty() ? "" : file.findings()[0].text();
}

std::string format(const std::string &text) {
    Findings findings;
    const JobFile file("a.jobs", text, any_task);
    EXPECT_THAT(file.findings(), IsEmpty()) << text;
    const std::string made = formatted(file, findings);
    EXPECT_THAT(findings, IsEmpty()) << text;
    return made;
}

class DefinitionFiles : public testing::Test {
protected:
    DefinitionFiles() {
        std::string name = testing::TempDir() + "velia-definitions-XXXXXX";
        folder = mkdtemp(name.data());
        path = folder + "/a.jobs";
    }
    ~DefinitionFiles() override { std::filesystem::remove_all(folder); }

    void write(const std::string &text) const { std::ofstream(path, std::ios::binary) << text; }
    std::string finding() const {
        const JobFile file(path, any_task);
        EXPECT_EQ(file.findings().size(), 1U);
        return file.findings().empty() ? "" : file.findings()[0].text().substr(path.size());
    }

    std::string folder;
    std::string path;
};

} // namespace

TEST(Definitions, WrittenOfAnyJobThatPassesTheChecksAreReadAsThatJob) {
    std::mt19937 random(20261122);
    for (int i = 0; i < made_up_jobs; ++i) {
        MadeUpJob made(random);
        uint32_t mask = 0;
        ASSERT_EQ(sched_utl_validate_job_rw_properties(nullptr, 0, &made.rw, 0, 0, &mask), TBS_ST_OK) << i;
        const std::string text = definition_of(lines_of(made.rw, names_of_numbers()));
        const JobFile file("a.jobs", text, number_of_task);
        ASSERT_EQ(file.jobs().size(), 1U) << text << (file.findings().empty() ? "" : file.findings()[0].text());
        auto &again = file.jobs()[0].job->rw;
        follow_by_name(again, file.jobs()[0].follows);
        ASSERT_TRUE(same(made.rw, again)) << text;
        ASSERT_EQ(definition_of(lines_of(again, names_of_numbers())), text);
    }
}

TEST(Definitions, OfManyJobsInOneFileAreReadAsThose) {
    std::mt19937 random(7);
    std::string text;
    std::vector<std::unique_ptr<MadeUpJob>> made;
    for (int i = 0; i < 200; ++i) {
        made.push_back(std::make_unique<MadeUpJob>(random));
        const std::string name = "job " + std::to_string(i);
        made.back()->rw.name = const_cast<char *>(name.c_str());
        text += definition_of(lines_of(made.back()->rw, {}));
        made.back()->rw.name = nullptr;
    }
    const JobFile file("a.jobs", text, number_of_task);
    ASSERT_EQ(file.jobs().size(), made.size());
    for (size_t i = 0; i < made.size(); ++i) {
        auto again = file.jobs()[i].job->rw;
        again.name = nullptr;
        EXPECT_TRUE(same(made[i]->rw, again)) << i;
    }
}

TEST(Definitions, ThatAreSpoiledAreReadOrRefusedWithAPlace) {
    std::mt19937 random(3);
    for (int i = 0; i < 1000; ++i) {
        MadeUpJob made(random);
        std::string text = definition_of(lines_of(made.rw, {}));
        for (uint32_t n = 0; n < 1 + random() % 3; ++n)
            text[random() % text.size()] = static_cast<char>(1 + random() % 255);
        const JobFile file("a.jobs", text, number_of_task);
        if (file.findings().empty()) {
            EXPECT_THAT(format(text), HasSubstr("Job.Begin")) << text;
        } else {
            EXPECT_THAT(file.findings()[0].text(), StartsWith("a.jobs:")) << text;
        }
    }
}

TEST(Definitions, CutOffAnywhereAreReadUpToAWholeOneOrRefused) {
    const std::string text = job("Job.Args: 'two words'\nJob.Description.Begin:\nwords\nJob.Description.End:\n");
    for (size_t size = 0; size < text.size(); ++size) {
        const JobFile file("a.jobs", text.substr(0, size), any_task);
        const bool is_good = size == 0 || size == text.size() - 1;
        EXPECT_EQ(file.findings().empty(), is_good) << size;
    }
}

TEST(Definitions, FindingsStandAtTheValueThatIsWrong) {
    EXPECT_EQ(finding_of(job("  Job.DeleteWhenCompleted:   maybe\n")),
              "a.jobs:5:30: Illegal Boolean specifier \"maybe\".");
    EXPECT_EQ(finding_of(job("  Job.Colour: red\n")), "a.jobs:5:3: Expected tag \"Job.Colour:\".");
    EXPECT_EQ(finding_of("Job.Begin\nJob.Name: a\n"), "a.jobs:2:11: Unexpected EOF.");
    EXPECT_EQ(finding_of(job("Job.Task:\n")), "a.jobs:5:1: Conflict: Task was already specified.");
}

TEST(Definitions, FindingsOfTheChecksStandAtTheLineThatTheyAreAbout) {
    const std::string begin = "\nJob.Begin\nJob.Task: 7\nJob.Name: a\n";
    EXPECT_EQ(finding_of(begin + "Job.Schedule.Daily.Frequency: 0\nJob.End\n"),
              "a.jobs:5:31: Invalid daily frequency specification \"0\".");
    EXPECT_EQ(
        finding_of(begin + "Job.Schedule.Monthly.Frequency: 1\nJob.Schedule.Monthly.Day: 32\nJob.End\n").substr(0, 13),
        "a.jobs:6:27: ");
    EXPECT_THAT(finding_of(begin + "Job.End\n"), StartsWith("a.jobs:2:1: "));
    EXPECT_THAT(finding_of("\nJob.Begin\nJob.Schedule.Daily.Frequency: 1\nJob.Task: 7\nJob.End\n"),
                StartsWith("a.jobs:2:1: "));
}

TEST(Definitions, FindingsOfASecondOfOneNameStandAtTheName) {
    EXPECT_THAT(finding_of(job("") + job("")), StartsWith("a.jobs:7:11: Duplicate job name \"nightly\""));
    EXPECT_THAT(finding_of(job("Job.Id: 3\n") + job("Job.Id: 3\n", "other")),
                StartsWith("a.jobs:11:9: Duplicate job id 3"));
}

TEST(Definitions, OfAnUnknownTaskAreRefusedAsAWhole) {
    const std::string text =
        job("") + "Job.Begin\nJob.Name: b\nJob.Schedule.Daily.Frequency: 1\nJob.Task: none\nJob.End\n";
    EXPECT_THAT(finding_of(text), StartsWith("a.jobs:9:11: Unable to lookup task \"none\""));
}

TEST(Definitions, ExactLinesAreRefusedWhereThereIsNothingThatTheySet) {
    EXPECT_THAT(finding_of(job("Job.RunCntl.More: \"a\"\n")), StartsWith("a.jobs:5:1: "));
    EXPECT_THAT(finding_of(job("Job.RunCntl.Recipient: \"a\"\n")), StartsWith("a.jobs:5:1: "));
    EXPECT_THAT(finding_of(job("Job.RunCntl.Day: 1 1\n")), StartsWith("a.jobs:5:1: "));
    EXPECT_THAT(finding_of("Job.Begin\nJob.Name: a\nJob.RunCntl.FirstStartTime: 1\nJob.End\n"),
                StartsWith("a.jobs:3:1: "));
    EXPECT_THAT(finding_of(job("Job.RunCntl.Colour: 1\n")), StartsWith("a.jobs:5:1: "));
}

TEST(Definitions, ExactLinesAreRefusedForAValueThatIsNone) {
    for (const char *value : {"", "a", "1x", "-1", "4294967296", "99999999999999999999999"})
        EXPECT_THAT(finding_of(job(std::string("Job.RunCntl.MaxRunTime: ") + value + "\n")), StartsWith("a.jobs:5:"))
            << value;
    for (const char *value : {"", "a", "\"", "\"a", "\"a\\\"", "\"a\"b"})
        EXPECT_THAT(finding_of(job(std::string("Job.RunCntl.Name: ") + value + "\n")), StartsWith("a.jobs:5:"))
            << value;
    const std::string monthly = "Job.Begin\nJob.Name: a\nJob.Task: 7\nJob.Schedule.Monthly.Frequency: 1\n"
                                "Job.Schedule.Monthly.Day: 1\nJob.RunCntl.Day: ";
    for (const char *value : {"", "1", "a 1", "1 b"})
        EXPECT_THAT(finding_of(monthly + value + "\nJob.End\n"), StartsWith("a.jobs:6:")) << value;
}

TEST(Definitions, ExactTextsHaveTheirEscapes) {
    const std::string text = job("Job.RunCntl.Name: \"a\\x41\\n\\\\\\\"\\q\\xg\"\nJob.RunCntl.More: \" b\"\n");
    const JobFile file("a.jobs", text, any_task);
    ASSERT_EQ(file.jobs().size(), 1U);
    EXPECT_STREQ(file.jobs()[0].job->rw.name, "aA\n\\\"qxg b");
}

TEST(Definitions, LinesOfMoreGoOnWithTheLineBeforeThemAndNoOther) {
    const std::string begin = "Job.RunCntl.Name: \"a long name\"\n";
    const JobFile file("a.jobs", job(begin + "# that goes on\n\nJob.RunCntl.More: \" here\"\n"), any_task);
    ASSERT_EQ(file.jobs().size(), 1U);
    EXPECT_STREQ(file.jobs()[0].job->rw.name, "a long name here");
    EXPECT_THAT(finding_of(job(begin + "Job.Name: b\nJob.RunCntl.More: \"c\"\n")), StartsWith("a.jobs:7:1: "));
}

TEST(Definitions, ATextOfManyLinesIsWhole) {
    std::string lines = "Job.RunCntl.Name: \"begin\"\n";
    std::string name = "begin";
    for (int i = 0; i < 5000; ++i) {
        const std::string piece(i % 7, static_cast<char>('a' + i % 26));
        lines += "Job.RunCntl.More: \"" + piece + "\"\n";
        name += piece;
    }
    const JobFile file("a.jobs", job(lines), any_task);
    ASSERT_EQ(file.jobs().size(), 1U);
    EXPECT_EQ(file.jobs()[0].job->rw.name, name);
}

TEST(Definitions, ExactArgumentsFollowThoseOfTheLine) {
    const JobFile file("a.jobs", job("Job.Args: a b c\nJob.RunCntl.Arg: \"d\"\nJob.RunCntl.Arg: \"e\"\n"), any_task);
    ASSERT_EQ(file.jobs().size(), 1U);
    ASSERT_EQ(file.jobs()[0].job->rw.arg_count, 5U);
    EXPECT_STREQ(file.jobs()[0].job->rw.args[4], "e");
}

TEST(Definitions, FieldsAreTheirLinesByTheirNames) {
    const auto fields = fields_of({{"Job.Name:", "a"}, {description_begin, "b\n"}, {"Job.X:", "1"}, {"Job.X:", "2"}});
    ASSERT_EQ(fields.size(), 3U);
    EXPECT_EQ(fields[1].name, "Job.Description");
    EXPECT_EQ(fields[2].value, "1; 2");
}

TEST(DefinitionForm, IsThatOfThePrinter) {
    EXPECT_EQ(format("# of all\n\n\njob.begin\n\tjob.task:  \"12\"\n # why\n  JOB.ARGS: 'a b'  c\n"
                     "job.deletewhencompleted: true\n"
                     "job.schedule.weekly.frequency:  007 days\n#days\njob.schedule.weekly.days:  fri , Mon\n"
                     "job.schedule.lastdate: startdate\njob.schedule.firststarttime: 1:2:3\n"
                     "job.description.begin:\n as it # is \njob.description.end: x\n"
                     "job.name: two words\n#end\n\tJob.End\n#after\n"),
              "# of all\n\n\nJob.Begin\n    Job.Name: \"two words\"\n    Job.Description.Begin:\n as it # is \n"
              "    Job.Description.End:\n    Job.Schedule.Weekly.Frequency: 7\n    #days\n"
              "    Job.Schedule.Weekly.Days: Mon,Fri\n    Job.Schedule.LastDate: StartDate\n"
              "    Job.Schedule.FirstStartTime: 01:02:03\n    Job.DeleteWhenCompleted: TRUE\n    Job.Task: 12\n"
              "    # why\n    Job.Args: \"a b\" c\n    #end\nJob.End\n#after\n");
}

TEST(DefinitionForm, IsKeptByWhatHasIt) {
    std::mt19937 random(11);
    for (int i = 0; i < 200; ++i) {
        MadeUpJob made(random);
        const std::string once = format(definition_of(lines_of(made.rw, {})));
        EXPECT_EQ(format(once), once);
    }
}

TEST(DefinitionForm, KeepsLinesThatArePassedOverAndBlocks) {
    const std::string text =
        "Job.Begin\n    Job.Name: a\n    Job.Schedule.Monthly.Frequency: 1\n    Job.Schedule.Monthly.Day: First Mon\n"
        "    Job.Schedule.StartDate: <now>\n    Job.Task: \"b\"\n    Job.NotifyInfo.OnEvents: JobEndFail\n"
        "    Job.NotifyInfo.Using: email\n    Job.NotifyInfo.Recipients: anna\n    Job.Created: x\n"
        "    Job.Predefined: TRUE\n    Job.RunningStatus.Strange: 4\n    Job.NextRunTime: x\n"
        "    Job.LastCompletionInfo.ProcessId: 4\n    Job.LastCompletionInfo.Started: x\n"
        "    Job.LastCompletionInfo.Ended: x\n    Job.LastCompletionInfo.ExitStatus: 0x0\n"
        "    Job.LastCompletionInfo.Messages.Begin:\n# kept \n    Job.LastCompletionInfo.Messages.End:\nJob.End\n";
    EXPECT_EQ(format(text), text);
}

TEST_F(DefinitionFiles, ThatChangeWhileTheyAreReadAreRefused) {
    write(std::string(4 << 20, '\n'));
    std::atomic<bool> is_over = false;
    std::thread writer([&] {
        std::ofstream out(path, std::ios::binary | std::ios::app);
        while (!is_over)
            out << "# more\n" << std::flush;
    });
    constexpr int tries = 1000; // a reader may be quicker than the writer's next line
    Findings findings;
    for (int i = 0; i < tries && findings.empty(); ++i) {
        std::string text;
        read_text_file(path, text, findings);
    }
    is_over = true;
    writer.join();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].message, "the file was changed while it was read");
}

TEST_F(DefinitionFiles, ThatAreNoneAreRefusedByTheirKindAndSize) {
    EXPECT_EQ(finding(), ": No such file or directory");
    std::filesystem::create_directory(path);
    EXPECT_EQ(finding(), ": Is a directory");
    std::filesystem::remove(path);
    mkfifo(path.c_str(), 0600);
    EXPECT_THAT(finding(), StartsWith(": Not a regular file"));
    std::filesystem::remove(path);
    write("");
    std::filesystem::resize_file(path, 100 << 20);
    EXPECT_THAT(finding(), HasSubstr("larger than 67108864 bytes"));
}

TEST_F(DefinitionFiles, ThatAreBinaryAreRefused) {
    write(std::string("Job.Begin\0x", 11));
    EXPECT_EQ(finding(), ": this is no text: it holds a byte of zeros");
    write("\x7f\x45LF\x01\x02\n\xff\xfe");
    EXPECT_EQ(finding(), ":1:1: Expected tag \"Job.Begin\".");
}

TEST_F(DefinitionFiles, HaveLinesAsTheLibraryCountsThem) {
    for (const size_t length : {1998, 1999, 2000, 3998, 3999}) {
        const std::string text = "#" + std::string(length - 1, ' ') + "\nJob.Wrong\n";
        write(text);
        const auto lines = lines_of_text(text);
        EXPECT_EQ(finding(), ":" + std::to_string(lines.size()) + ":1: Expected tag \"Job.Begin\".") << length;
        EXPECT_EQ(lines.back(), "Job.Wrong") << length;
    }
}

TEST_F(DefinitionFiles, OfTasksAreReadAndFoundFaultWith) {
    write("Task.Begin\nTask.Id: 4\nTask.Name: a\nTask.Pathname: /b\nTask.End\n");
    const TaskFile good(path);
    ASSERT_EQ(good.tasks().size(), 1U);
    EXPECT_EQ(good.tasks()[0].first_line, 1U);
    EXPECT_EQ(good.tasks()[0].task->task_id, 4U);
    write("Task.Begin\nTask.Id: 4\nTask.Name: a\nTask.Pathname: /b\nTask.RunAsCredentials: root\nTask.End\n");
    const TaskFile bad(path);
    ASSERT_EQ(bad.findings().size(), 1U);
    EXPECT_EQ(bad.findings()[0].line, 5U);
    write("Task.Begin\nTask.Id: 0\nTask.Name: a\nTask.Pathname: /b\nTask.End\n");
    EXPECT_EQ(TaskFile(path).findings()[0].line, 2U);
    EXPECT_THAT(TaskFile(folder).findings()[0].message, HasSubstr("directory"));
}
