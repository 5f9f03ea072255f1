// A file of 10,000 job definitions read, against its lines read and nothing else, with and without the allocations that
// the jobs need; and what the comparison of each job with all before it costs, by files of other sizes.
#include <bench/support/check.h>
#include <bench/support/ratio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <veliaxdr/sched_definitions.h>
#include <veliaxdr/sched_jobs.h>

namespace {

using bench::check;

constexpr uint32_t many = 10000;
constexpr uint32_t few = 1000;

std::string name_of(uint32_t number) {
    return "nightly cleaning of view " + std::to_string(number);
}

std::string definition(uint32_t number) {
    return "Job.Begin\n    Job.Id: " + std::to_string(number + 1) + "\n    Job.Name: \"" + name_of(number) +
           "\"\n    Job.Description.Begin:\nRemoves what nobody has used for a week.\n    Job.Description.End:\n"
           "    Job.Schedule.Weekly.Frequency: 1\n    Job.Schedule.Weekly.Days: Mon,Tue,Wed,Thu,Fri\n"
           "    Job.Schedule.StartDate: 2026-01-02\n    Job.Schedule.FirstStartTime: 01:00:00\n"
           "    Job.Task: 7\n    Job.Args: -all \"/var/storage/views/build7\"\n"
           "    Job.NotifyInfo.OnEvents: JobEndFail\n    Job.NotifyInfo.Using: email\n"
           "    Job.NotifyInfo.Recipients: builders@example.com\nJob.End\n\n";
}
constexpr size_t lines_of_definition = 17;

// A file that goes with the process.
class File {
public:
    explicit File(uint32_t jobs) {
        std::string made = (std::filesystem::temp_directory_path() / "velia-bench-XXXXXX").string();
        const int descriptor = mkstemp(made.data());
        check(descriptor >= 0, "mkstemp");
        close(descriptor);
        path_ = made;
        std::ofstream out(path_);
        for (uint32_t i = 0; i < jobs; ++i)
            out << definition(i);
    }
    ~File() { std::filesystem::remove(path_); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    const char *path() const { return path_.c_str(); }

private:
    std::string path_;
};

std::string many_path;
std::string few_path;
size_t memory_of_jobs;

void read_jobs(const std::string &path, uint32_t expected) {
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    char **followed = nullptr;
    const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    check(sched_utl_parse_job_properties(nullptr, path.c_str(), &count, &jobs, &followed) == TBS_ST_OK &&
              count == expected,
          "reading");
    memory_of_jobs = mallinfo2().uordblks + mallinfo2().hblkhd - before;
    sched_utl_free_extra_job_infos(nullptr, count, &followed);
    sched_free_jobs(nullptr, count, &jobs);
}

void ReadManyJobs(benchmark::State &state) {
    for (auto _ : state)
        read_jobs(many_path, many);
}

void ReadFewJobs(benchmark::State &state) {
    for (auto _ : state)
        read_jobs(few_path, few);
}

size_t read_lines() {
    FILE *file = fopen(many_path.c_str(), "r");
    check(file != nullptr, "opening");
    char line[2000];
    size_t count = 0;
    while (fgets(line, sizeof line, file) != nullptr)
        ++count;
    fclose(file);
    return count;
}

void ReadLines(benchmark::State &state) {
    for (auto _ : state)
        check(read_lines() == many * lines_of_definition, "reading lines");
}

// What decoding the jobs leaves on the heap.
constexpr size_t blocks_of_job[] = {36, 42, 6, 26, 21, 2 * sizeof(char *), sizeof(char *), sizeof(sched_notify_info_t)};

void ReadLinesAndAllocate(benchmark::State &state) {
    std::vector<void *> made;
    for (auto _ : state) {
        check(read_lines() == many * lines_of_definition, "reading lines");
        made.clear();
        made.push_back(malloc(sizeof(sched_job_properties_t) * many));
        for (uint32_t i = 0; i < many; ++i)
            for (const size_t size : blocks_of_job)
                made.push_back(malloc(size));
        benchmark::ClobberMemory();
        for (void *block : made)
            free(block);
    }
}

// A job's records and texts, without what an allocator adds.
size_t bytes_of_jobs() {
    size_t bytes = sizeof(sched_job_properties_t);
    for (const size_t size : blocks_of_job)
        bytes += size;
    return bytes * many;
}

BENCHMARK(ReadManyJobs)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadFewJobs)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadLines)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadLinesAndAllocate)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    const File many_jobs(many);
    const File few_jobs(few);
    many_path = many_jobs.path();
    few_path = few_jobs.path();
    read_jobs(many_path, many);
    printf("%u jobs: %zu lines, %zu bytes of records and texts, %zu bytes of memory\n", many,
           many * lines_of_definition, bytes_of_jobs(), memory_of_jobs);
    return bench::run(argc, argv,
                      {{"ReadManyJobs", "ReadLinesAndAllocate", 3},
                       {"ReadManyJobs", "ReadLines", 0},
                       {"ReadManyJobs", "ReadFewJobs", 15}});
}
