// Files of definitions: the first byte chooses the grammar, the rest is the file. What is read passes the checks. What
// is printed of it is read again or refused, and what came of that second reading stays as it is from then on.
#include <fuzz/harness.h>

#include <cstring>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_definitions.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_print.h>
#include <veliaxdr/sched_tasks.h>

// A scheduler without a wire, in the place of the library's calls: names that begin with "?" are unknown to it, and
// with
// "!" it fails.
extern "C" tbs_status_t sched_task_name_to_id(sched_h_t /*handle*/, const char *name, sched_task_id_t *id) {
    *id = 7;
    return *name == '?' ? TBS_ST_NOT_FOUND : *name == '!' ? TBS_ST_NO_ACCESS : TBS_ST_OK;
}
extern "C" tbs_status_t sched_task_id_to_name(sched_h_t /*handle*/, sched_task_id_t /*id*/, uint32_t size, char *name) {
    strutl_cpy_buf(name, "build", size);
    return TBS_ST_OK;
}
extern "C" tbs_status_t sched_job_lookup_by_id(sched_h_t /*handle*/, sched_job_id_t /*id*/, sched_job_h_t * /*out*/) {
    return TBS_ST_NOT_FOUND;
}

namespace {

// Keeps what is printed at severity 0.
class Printed {
public:
    Printed() { imsg_set_sink(take, this); }
    Printed(const Printed &) = delete;
    Printed &operator=(const Printed &) = delete;

    std::string take_text() { return std::exchange(text_, {}); }

private:
    static void take(void *context, int severity, const char *, const imsg_table_t *, int, const char *text) {
        FUZZ_REQUIRE(text != nullptr);
        if (severity == IMSG_PLAIN)
            static_cast<Printed *>(context)->text_ += text;
    }

    std::string text_;
};

// A file in memory, under a path.
class File {
public:
    File() : descriptor_(memfd_create("definitions", 0)), path_("/proc/self/fd/" + std::to_string(descriptor_)) {
        FUZZ_REQUIRE(descriptor_ >= 0);
    }
    const char *holding(const std::string &text) const {
        const auto size = static_cast<ssize_t>(text.size());
        FUZZ_REQUIRE(ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, text.data(), text.size(), 0) == size);
        return path_.c_str();
    }

private:
    int descriptor_;
    std::string path_;
};

struct Place {
    File file;
    Printed printed;
};

void require_valid(sched_job_properties_t &job, const char *followed) {
    sched_validate_job_rw_properties_err_mask_t mask = 0;
    FUZZ_REQUIRE(sched_utl_validate_job_rw_properties(nullptr, job.ro.job_id, &job.rw, 0, 1, &mask) == TBS_ST_OK);
    FUZZ_REQUIRE(followed == nullptr || job.rw.schedule.kind == SCHED_KIND_SEQUENTIAL);
}

// False if the text is refused; else `again` is what the printer makes of the jobs, or the empty text where one of them
// follows another, whose name the printer would have to ask for.
bool read_jobs(Place &place, const std::string &text, std::string &again) {
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    char **followed = nullptr;
    if (sched_utl_parse_job_properties(nullptr, place.file.holding(text), &count, &jobs, &followed) != TBS_ST_OK) {
        FUZZ_REQUIRE(jobs == nullptr && followed == nullptr);
        return false;
    }
    place.printed.take_text();
    bool is_printable = true;
    for (uint32_t i = 0; i < count; ++i) {
        require_valid(jobs[i], followed[i]);
        is_printable = is_printable && jobs[i].rw.schedule.kind != SCHED_KIND_SEQUENTIAL;
        jobs[i].ro.job_id = 0; // a comment
        sched_utl_print_job_props(nullptr, &jobs[i]);
    }
    again = is_printable ? place.printed.take_text() : std::string();
    sched_free_jobs(nullptr, count, &jobs);
    sched_utl_free_extra_job_infos(nullptr, count, &followed);
    return true;
}

bool read_tasks(Place &place, const std::string &text, std::string &again) {
    uint32_t count = 0;
    sched_task_properties_t *tasks = nullptr;
    if (sched_utl_parse_task_properties(nullptr, place.file.holding(text), &count, &tasks) != TBS_ST_OK) {
        FUZZ_REQUIRE(tasks == nullptr);
        return false;
    }
    place.printed.take_text();
    for (uint32_t i = 0; i < count; ++i) {
        FUZZ_REQUIRE(tasks[i].task_id != 0);
        sched_utl_print_task_properties(&tasks[i]);
    }
    again = place.printed.take_text();
    sched_free_tasks(nullptr, count, &tasks);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Place place;
    if (size == 0)
        return 0;
    const auto read = data[0] % 2 == 0 ? read_jobs : read_tasks;
    std::string first;
    std::string second;
    std::string third;
    if (!read(place, std::string(reinterpret_cast<const char *>(data) + 1, size - 1), first) ||
        !read(place, first, second))
        return 0;
    FUZZ_REQUIRE(read(place, second, third));
    FUZZ_REQUIRE(third == second);
    return 0;
}
