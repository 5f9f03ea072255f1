// Processors are counted from the last, since interrupts are often on the first.
#include <bench/support/placement.h>

#include <cstdlib>
#include <string_view>

#include <sched.h>

namespace bench {

namespace {

// The nth processor from the end of those that this process was given, or -1.
int processor_from_end(const cpu_set_t &allowed, int nth) {
    for (int processor = CPU_SETSIZE - 1; processor >= 0; --processor)
        if (CPU_ISSET(processor, &allowed) && nth-- == 0)
            return processor;
    return -1;
}

cpu_set_t given_processors() {
    cpu_set_t given;
    CPU_ZERO(&given);
    sched_getaffinity(0, sizeof given, &given);
    return given;
}

} // namespace

void pin(End end) {
    static const cpu_set_t given = given_processors();
    const char *wanted = getenv("VELIA_BENCH_PROCESSORS");
    const std::string_view processors = wanted != nullptr ? wanted : "one";
    const int processor = processor_from_end(given, processors == "two" && end == End::server ? 1 : 0);
    if (processors == "any" || processor < 0)
        return;
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    CPU_SET(processor, &chosen);
    sched_setaffinity(0, sizeof chosen, &chosen);
}

} // namespace bench
