// From the start of a process to its first answered contact, and its end.
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void run_program(benchmark::State &state, const char *name) {
    const std::string path = std::string(BENCH_PROGRAMS) + "/" + name;
    char *arguments[] = {const_cast<char *>(path.c_str()), const_cast<char *>(bench::Site::host), nullptr};
    for (auto _ : state) {
        pid_t child;
        int status = -1;
        if (posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ) != 0 ||
            waitpid(child, &status, 0) != child || status != 0) {
            fprintf(stderr, "%s failed\n", name);
            exit(1);
        }
    }
}

void FirstContact(benchmark::State &state) {
    run_program(state, "first_contact");
}
void BareContact(benchmark::State &state) {
    run_program(state, "bare_contact");
}
void DoNothing(benchmark::State &state) {
    run_program(state, "do_nothing");
}

BENCHMARK(FirstContact)->UseRealTime();
BENCHMARK(BareContact)->UseRealTime();
BENCHMARK(DoNothing)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    return bench::run(argc, argv, {{"FirstContact", "BareContact", 0}, {"FirstContact", "DoNothing", 0}});
}
