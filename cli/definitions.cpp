#include <cli/definitions.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cli/messages.h>
#include <common/text_file.h>
#include <support/imsg.h>
#include <support/tbs.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_messages.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

constexpr FileBounds definition_file = {64 << 20, text_line_bytes_max};
constexpr size_t piece_bytes = 1999;
constexpr const char *blanks = " \t\v\f\r";

// What the checks find is in a line with this tag, wherever the reader was by then.
struct Place {
    int message;
    const char *tag;
};
constexpr Place places[] = {
    {SCHED_MSG_LAST_DATE, "Job.Schedule.LastDate:"},
    {SCHED_MSG_START_TIME_ORDER, "Job.Schedule.FirstStartTime:"},
    {SCHED_MSG_FIRST_START, "Job.RunCntl.FirstStartTime:"},
    {SCHED_MSG_LAST_START, "Job.RunCntl.LastStartTime:"},
    {SCHED_MSG_RESTART_FREQUENCY, "Job.RunCntl.StartTimeRestartFrequency:"},
    {SCHED_MSG_MONTHLY_FREQUENCY, "Job.Schedule.Monthly.Frequency:"},
    {SCHED_MSG_DAY_NUMBER, "Job.Schedule.Monthly.Day:"},
    {SCHED_MSG_DAY_ORDINAL, "Job.Schedule.Monthly.Day:"},
    {SCHED_MSG_DAY_OF_WEEK_KIND, "Job.Schedule.Monthly.Day:"},
    {SCHED_MSG_WEEKLY_FREQUENCY, "Job.Schedule.Weekly.Frequency:"},
    {SCHED_MSG_DAILY_FREQUENCY, "Job.Schedule.Daily.Frequency:"},
    {SCHED_MSG_EVENT_MASK, "Job.NotifyInfo.OnEvents:"},
    {SCHED_MSG_DELIVERY_MASK, "Job.NotifyInfo.Using:"},
    {SCHED_MSG_CANNOT_LOOK_UP_TASK, "Job.Task:"},
    {SCHED_MSG_DUPLICATE_JOB_ID, "Job.Id:"},
    {SCHED_MSG_DUPLICATE_JOB_NAME, "Job.Name:"},
    {SCHED_MSG_DUPLICATE_TASK_ID, "Task.Id:"},
    {SCHED_MSG_DUPLICATE_TASK_NAME, "Task.Name:"},
    {SCHED_MSG_ILLEGAL_TASK_ID, "Task.Id:"},
    // What is missing altogether is missing in the definition.
    {SCHED_MSG_NIL_NAME, ""},
    {SCHED_MSG_NIL_TASK, ""},
    {SCHED_MSG_SCHEDULE_KIND, ""},
};

const char *tag_of(int message) {
    for (const auto &place : places)
        if (place.message == message)
            return place.tag;
    return nullptr;
}

std::string_view first_word(std::string_view line) {
    const size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return line.substr(begin, line.find_first_of(blanks, begin) - begin);
}

bool has_tag(std::string_view line, std::string_view tag) {
    const std::string_view word = first_word(line);
    return word.size() == tag.size() && strncasecmp(word.data(), tag.data(), tag.size()) == 0;
}

// Where the value begins, and with its quotation marks; the tag where there is none.
size_t column_of_value(std::string_view line) {
    const std::string_view tag = first_word(line);
    const auto begin = static_cast<size_t>(tag.data() != nullptr ? tag.data() - line.data() : 0);
    const size_t value = line.find_first_not_of(blanks, begin + tag.size());
    return (value != std::string_view::npos ? value : begin) + 1;
}

size_t column_of_tag(std::string_view line) {
    const size_t begin = line.find_first_not_of(blanks);
    return begin != std::string_view::npos ? begin + 1 : 1;
}

// A file in memory, under a path.
class MemoryFile {
public:
    explicit MemoryFile(const std::string &text)
        : descriptor_(memfd_create("definitions", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(descriptor_)) {
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t count = write(descriptor_, text.data() + done, text.size() - done);
            if (count <= 0)
                break;
            done += static_cast<size_t>(count);
        }
    }
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    const char *path() const { return path_.c_str(); }

private:
    int descriptor_;
    std::string path_;
};

using Span = std::pair<uint32_t, uint32_t>;

// One reading of a text by the library, with what it tells.
class Reading {
public:
    Reading(const std::string &path, const std::string &text, const TextLines &lines, const TaskFinder &find_task,
            Findings &findings)
        : path_(path), lines_(lines), find_task_(find_task), findings_(findings), file_(text) {
        words_.context = this;
        words_.find_task = [](void *context, const char *name, sched_task_id_t *id) {
            const bool is_one = static_cast<Reading *>(context)->find_task_(name, *id);
            return is_one ? tbs_status_t{TBS_ST_OK} : tbs_status_t{TBS_ST_NOT_FOUND};
        };
        words_.took = [](void *context, uint32_t first_line, uint32_t last_line) {
            static_cast<Reading *>(context)->spans_.emplace_back(first_line, last_line);
        };
    }

    // What the library did not take and told nothing of is told, too.
    void run(const std::function<tbs_status_t(const char *path, sched_reading_t *reading)> &read) {
        tbs_status_t status = TBS_ST_OK;
        hear([&](const Heard &heard) { note(heard); }, [&] { status = read(file_.path(), &words_); });
        if (status != TBS_ST_OK && findings_.empty())
            findings_.push_back({path_, words_.line, 1, tbs_strerror(status)});
    }

    const std::vector<Span> &spans() const { return spans_; }

private:
    std::string_view line(uint32_t number) const {
        return number >= 1 && number <= lines_.size() ? lines_[number - 1] : std::string_view{};
    }

    uint32_t line_with(std::string_view tag) const {
        for (uint32_t number = words_.first_line; number <= words_.line && !tag.empty(); ++number)
            if (has_tag(line(number), tag))
                return number;
        return words_.first_line;
    }

    void note(const Heard &heard) {
        const bool is_of_table = heard.table == &_sched_rvzd_msg_table;
        if (heard.severity != IMSG_ERROR ||
            (is_of_table && (heard.index == SCHED_MSG_SYNTAX_ERROR || heard.index == SCHED_MSG_PROBLEM_IN_JOBS ||
                             heard.index == SCHED_MSG_PROBLEM_IN_TASKS)))
            return;
        const char *tag = is_of_table ? tag_of(heard.index) : nullptr;
        const uint32_t number = tag != nullptr ? line_with(tag) : words_.line;
        const bool is_of_tag =
            is_of_table && (heard.index == SCHED_MSG_EXPECTED_TAG || (tag != nullptr && *tag == '\0'));
        const size_t column = is_of_tag ? column_of_tag(line(number)) : column_of_value(line(number));
        findings_.push_back(
            {path_, number, static_cast<uint32_t>(column), heard.text.substr(0, heard.text.find('\n'))});
    }

    const std::string &path_;
    const TextLines &lines_;
    const TaskFinder &find_task_;
    Findings &findings_;
    MemoryFile file_;
    sched_reading_t words_ = {};
    std::vector<Span> spans_;
};

bool same_file(const struct stat &left, const struct stat &right) {
    return left.st_ino == right.st_ino && left.st_dev == right.st_dev && left.st_size == right.st_size &&
           left.st_mtim.tv_sec == right.st_mtim.tv_sec && left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

FileOutcome read_all(TextFile &file, std::string &text) {
    std::array<char, 65536> piece;
    FileOutcome outcome = FileOutcome::ok;
    for (size_t count = 1; outcome == FileOutcome::ok && count != 0;) {
        outcome = file.next_bytes(piece.data(), piece.size(), count);
        if (outcome == FileOutcome::ok)
            text.append(piece.data(), count);
    }
    return outcome;
}

std::string words_for(const TextFile &file, FileOutcome outcome) {
    char words[file_words_size];
    return file.why(outcome, words);
}

} // namespace

std::string Finding::text() const {
    return file + ":" + (line != 0 ? std::to_string(line) + ":" + std::to_string(column) + ":" : "") + " " + message;
}

bool read_text_file(const std::string &path, std::string &text, Findings &findings) {
    struct stat before = {};
    struct stat after = {};
    stat(path.c_str(), &before);
    TextFile file;
    FileOutcome outcome = file.open(path.c_str(), definition_file);
    if (outcome == FileOutcome::ok) {
        outcome = read_all(file, text);
        file.close();
    }
    std::string fault;
    if (outcome != FileOutcome::ok)
        fault = words_for(file, outcome);
    else if (stat(path.c_str(), &after) != 0 || !same_file(before, after) ||
             text.size() != static_cast<size_t>(after.st_size))
        fault = "the file was changed while it was read";
    else if (text.find('\0') != std::string::npos)
        fault = "this is no text: it holds a byte of zeros";
    if (!fault.empty())
        findings.push_back({path, 0, 0, fault});
    return fault.empty();
}

TextLines lines_of_text(std::string_view text) {
    TextLines lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        if (end >= piece_bytes) {
            lines.push_back(text.substr(0, piece_bytes));
            text.remove_prefix(piece_bytes);
            continue;
        }
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

bool any_task(const std::string & /*name*/, sched_task_id_t &id) {
    id = 1;
    return true;
}

TaskFinder finder_of(const TaskIds &tasks) {
    return [tasks](const std::string &name, sched_task_id_t &id) {
        const auto found = tasks.find(name);
        if (found != tasks.end())
            id = found->second;
        return found != tasks.end();
    };
}

JobFile::JobFile(std::string path, const TaskFinder &find_task) : path_(std::move(path)) {
    if (read_text_file(path_, text_, findings_))
        read(find_task);
}

JobFile::JobFile(std::string name, std::string text, const TaskFinder &find_task)
    : path_(std::move(name)), text_(std::move(text)) {
    read(find_task);
}

void JobFile::read(const TaskFinder &find_task) {
    lines_ = lines_of_text(text_);
    Reading reading(path_, text_, lines_, find_task, findings_);
    reading.run([&](const char *path, sched_reading_t *words) {
        return sched_utl_read_job_definitions(nullptr, path, words, &count_, &jobs_, &followed_);
    });
    for (uint32_t i = 0; i < count_; ++i)
        definitions_.push_back({&jobs_[i], followed_[i] != nullptr ? followed_[i] : "", reading.spans()[i].first,
                                reading.spans()[i].second});
}

JobFile::~JobFile() {
    sched_utl_free_extra_job_infos(nullptr, count_, &followed_);
    sched_free_jobs(nullptr, count_, &jobs_);
}

TaskFile::TaskFile(const std::string &path) {
    std::string text;
    if (!read_text_file(path, text, findings_))
        return;
    const TextLines lines = lines_of_text(text);
    Reading reading(path, text, lines, any_task, findings_);
    reading.run([&](const char *from, sched_reading_t *words) {
        return sched_utl_read_task_definitions(nullptr, from, words, &count_, &tasks_);
    });
    for (uint32_t i = 0; i < count_; ++i)
        definitions_.push_back({&tasks_[i], reading.spans()[i].first});
}

TaskFile::~TaskFile() {
    sched_free_tasks(nullptr, count_, &tasks_);
}

Finding finding_at(const JobFile &file, const JobDefinition &job, const char *tag, std::string message) {
    const TextLines &lines = file.lines();
    for (uint32_t number = job.first_line; number <= job.last_line; ++number)
        if (has_tag(lines[number - 1], tag))
            return {file.path(), number, static_cast<uint32_t>(column_of_value(lines[number - 1])), std::move(message)};
    return {file.path(), job.first_line, 1, std::move(message)};
}

void tell_findings(const Findings &findings) {
    for (const auto &finding : findings)
        if (tells_in_json())
            tell_failure(TBS_ST_INVALID_ARG, "", "%s\n", finding.text().c_str());
        else
            std::cerr << finding.text() << '\n';
}

} // namespace velia::cli
