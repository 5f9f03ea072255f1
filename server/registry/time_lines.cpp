#include <server/registry/time_lines.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include <common/text_cursor.h>
#include <common/text_file.h>
#include <server/loop/unique_fd.h>
#include <server/registry/sqlite.h>
#include <server/registry/store.h>
#include <support/fileutl.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr size_t systems_max = 64; // databases that a host was ever pointed at
constexpr FileBounds bounds = {8192, 80};

using ByName = std::map<std::string, uint32_t>;

struct Seen {
    std::atomic<uint64_t> news = 0; // counts what is higher than before
    std::mutex lock;                // of all that follows
    std::string file_name;
    ByName lines;
};

Seen &seen() {
    static Seen the_seen;
    return the_seen;
}

void note(ByName &lines, const std::string &system, uint32_t time_line) {
    if (lines.size() < systems_max || lines.contains(system))
        lines[system] = std::max(lines[system], time_line);
}

// "NAME NUMBER"; what is neither is passed over.
void note_line(ByName &lines, std::string_view line) {
    TextCursor cursor(line);
    const std::string system(cursor.take_until(' '));
    int32_t time_line = 0;
    if (!system.empty() && cursor.consume(" ") && cursor.take_number(time_line) && cursor.at_end())
        note(lines, system, static_cast<uint32_t>(time_line));
}

void warn(const std::string &file_name, const char *words) {
    imsg_print(IMSG_WARNING,
               "What was seen of database servers cannot be kept in \"%s\", and a former primary may be taken for one "
               "by the next daemon: %s\n",
               IMSG_FORMAT, file_name.c_str(), words);
}

void read_file(const std::string &file_name, ByName &lines) {
    TextFile file;
    FileOutcome outcome = file.open(file_name.c_str(), bounds);
    if (outcome == FileOutcome::absent)
        return;
    const bool is_open = outcome == FileOutcome::ok;
    for (TextLine line; outcome == FileOutcome::ok && (outcome = file.next_line(line)) == FileOutcome::ok;)
        note_line(lines, {line.text, line.length});
    if (outcome != FileOutcome::end) {
        char words[file_words_size];
        warn(file_name, file.why(outcome, words));
    }
    if (is_open)
        file.close();
}

std::string text_of(const ByName &lines) {
    std::string text;
    for (const auto &[system, time_line] : lines)
        text += system + ' ' + std::to_string(time_line) + '\n';
    return text;
}

// An administrator's program leaves it to the daemon's user.
void give_to_owner_of_directory(int fd, const std::string &file_name) {
    struct stat status = {};
    const std::string directory = file_name.substr(0, file_name.rfind('/'));
    if (geteuid() == 0 && stat(directory.c_str(), &status) == 0 && fchown(fd, status.st_uid, status.st_gid) != 0)
        errno = 0; // it is this user's, then
}

bool write_file(const std::string &file_name, const std::string &text) {
    const std::string unfinished = file_name + ".new";
    unlink(unfinished.c_str());
    const UniqueFd fd(
        open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!fd)
        return false;
    give_to_owner_of_directory(fd.get(), file_name);
    return write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd.get()) == 0 &&
           fileutl_rename(unfinished.c_str(), file_name.c_str()) == 0;
}

// Another process of the host may have seen more meanwhile.
void keep(Seen &seen) {
    if (seen.file_name.empty())
        return;
    read_file(seen.file_name, seen.lines);
    if (!write_file(seen.file_name, text_of(seen.lines)))
        warn(seen.file_name, imsg_strerror(errno));
}

} // namespace

void keep_time_lines_in(const std::string &file_name) {
    Seen &all = seen();
    const std::scoped_lock hold(all.lock);
    all.file_name = file_name;
    all.lines.clear();
    if (!file_name.empty())
        read_file(file_name, all.lines);
}

void require_newest_time_line(const std::string &system, uint32_t time_line) {
    Seen &all = seen();
    const std::scoped_lock hold(all.lock);
    const auto known = all.lines.find(system);
    const uint32_t highest = known != all.lines.end() ? known->second : 0;
    if (time_line < highest)
        throw StoreAway("the server is a former primary: it is on time line " + std::to_string(time_line) + ", and " +
                        std::to_string(highest) + " has been seen");
    if (time_line == highest)
        return;
    note(all.lines, system, time_line);
    ++all.news;
    keep(all);
}

// What comes between is looked at once more than needed.
TimeLine::TimeLine(std::string system, uint32_t number)
    : system_(std::move(system)), number_(number), news_(seen().news) {
    require_newest_time_line(system_, number_);
}

bool TimeLine::is_newest() {
    Seen &all = seen();
    const uint64_t news = all.news;
    if (news == news_)
        return true;
    const std::scoped_lock hold(all.lock);
    const auto known = all.lines.find(system_);
    const bool is_newest = known == all.lines.end() || known->second <= number_;
    if (is_newest)
        news_ = news;
    return is_newest;
}

} // namespace velia::server
