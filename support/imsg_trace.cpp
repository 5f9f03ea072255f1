// Verbosity and traces. The environment is read at the first question, and what nobody can mean by it is told then; a
// program's options may replace it.
#include <support/imsg.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <pthread.h>
#include <strings.h>

#include <support/pfm.h>

#include "forked_locks.h"

namespace {

constexpr char verbosity_variable[] = "VELIA_VERBOSITY";
constexpr char trace_variable[] = "VELIA_TRACE";
constexpr size_t entry_count_max = 32;
constexpr size_t name_size = 64;
constexpr size_t fault_count_max = 4;

struct TraceEntry {
    char subsystem[name_size];
    int level;
    bool has_level;
};

// An item of a variable that is passed over.
struct Fault {
    const char *variable;
    char item[name_size];
};

pthread_mutex_t trace_lock = PTHREAD_MUTEX_INITIALIZER;
TraceEntry entries[entry_count_max];
size_t entry_count;
bool has_trace_list;
int wanted_verbosity;
Fault faults[fault_count_max];
size_t fault_count;

// -1 until the environment has been read; then what imsg_get_desired_verbosity answers.
int effective_verbosity = -1;

// False, and 0, for what is no number.
bool parse_level(std::string_view text, int &level) {
    level = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9' || level > INT_MAX / 10 - 1) {
            level = 0;
            return false;
        }
        level = level * 10 + (digit - '0');
    }
    return !text.empty();
}

// `variable` is null for what a program has set by itself.
void note_fault(const char *variable, std::string_view item) {
    if (variable == nullptr || fault_count == fault_count_max)
        return;
    Fault &fault = faults[fault_count++];
    fault = {variable, ""};
    memcpy(fault.item, item.data(), item.size() < name_size ? item.size() : name_size - 1);
}

// A subsystem's name may hold a "/" but no ":".
void add_entry(const char *variable, std::string_view item) {
    const size_t colon = item.find(':');
    const std::string_view name = item.substr(0, colon);
    if (item.empty())
        return;
    if (name.empty() || name.size() >= name_size || entry_count == entry_count_max)
        return note_fault(variable, item);
    TraceEntry &entry = entries[entry_count++];
    entry = {};
    memcpy(entry.subsystem, name.data(), name.size());
    entry.has_level = colon != std::string_view::npos;
    if (entry.has_level && !parse_level(item.substr(colon + 1), entry.level))
        note_fault(variable, item);
}

void take_trace_list(const char *variable, const char *list) {
    entry_count = 0;
    has_trace_list = list != nullptr && *list != '\0';
    if (!has_trace_list)
        return;
    for (std::string_view rest = list; !rest.empty();) {
        const size_t comma = rest.find(',');
        add_entry(variable, rest.substr(0, comma));
        rest = comma != std::string_view::npos ? rest.substr(comma + 1) : std::string_view();
    }
}

// A name without a level must pass the callers' first test, which asks for the verbosity alone.
void settle_verbosity() {
    constexpr int every_level = 9;
    int highest = wanted_verbosity;
    for (size_t i = 0; i < entry_count; ++i) {
        const int level = entries[i].has_level ? entries[i].level : every_level;
        highest = level > highest ? level : highest;
    }
    __atomic_store_n(&effective_verbosity, highest, __ATOMIC_RELEASE);
}

void read_environment() {
    if (__atomic_load_n(&effective_verbosity, __ATOMIC_RELAXED) >= 0)
        return;
    const char *verbosity = getenv(verbosity_variable);
    if (verbosity != nullptr && *verbosity != '\0' && !parse_level(verbosity, wanted_verbosity))
        note_fault(verbosity_variable, verbosity);
    take_trace_list(trace_variable, getenv(trace_variable));
    settle_verbosity();
}

bool is_granted(const TraceEntry &entry, const char *subsystem, int level) {
    const bool is_meant = strcasecmp(entry.subsystem, "all") == 0 || strcasecmp(entry.subsystem, subsystem) == 0;
    return is_meant && (!entry.has_level || level <= entry.level);
}

bool is_traced(const char *subsystem, int level) {
    if (!has_trace_list)
        return level <= wanted_verbosity;
    for (size_t i = 0; i < entry_count; ++i) {
        if (is_granted(entries[i], subsystem, level))
            return true;
    }
    return false;
}

size_t take_faults(Fault *taken) {
    const size_t count = fault_count;
    memcpy(taken, faults, count * sizeof *taken);
    fault_count = 0;
    return count;
}

void print_faults(const Fault *taken, size_t count) {
    pfm_inhibit();
    for (size_t i = 0; i < count; ++i)
        imsg_print(IMSG_WARNING, "Variable %s: \"%s\" is not understood and passed over.\n", IMSG_FORMAT,
                   taken[i].variable, taken[i].item);
    pfm_enable();
}

// The faults are printed when the lock is free, since whoever prints may ask what to trace.
template <class Body>
auto with_trace_lock(Body &&body) {
    Fault taken[fault_count_max];
    velia::support::free_in_children(trace_lock);
    pthread_mutex_lock(&trace_lock);
    read_environment();
    const auto result = body();
    const size_t count = take_faults(taken);
    pthread_mutex_unlock(&trace_lock);
    if (count > 0)
        print_faults(taken, count);
    return result;
}

} // namespace

int imsg_get_desired_verbosity(void) {
    const int verbosity = __atomic_load_n(&effective_verbosity, __ATOMIC_ACQUIRE);
    if (verbosity >= 0)
        return verbosity;
    return with_trace_lock([] { return effective_verbosity; });
}

int imsg_should_trace(const char *subsystem, int level) {
    return with_trace_lock([&] { return is_traced(subsystem, level) ? 1 : 0; });
}

void imsg_set_desired_verbosity(int level) {
    with_trace_lock([&] {
        wanted_verbosity = level > 0 ? level : 0;
        settle_verbosity();
        return 0;
    });
}

void imsg_set_trace(const char *trace_list) {
    with_trace_lock([&] {
        take_trace_list(nullptr, trace_list);
        settle_verbosity();
        return 0;
    });
}
