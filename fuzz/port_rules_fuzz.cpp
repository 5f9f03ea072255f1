// The port rules: a low end, a newline, a high end, a newline, and the run-time parameter file. What the rules have
// read holds as long as a process, so the harness holds that state itself, by including the source, and forgets it for
// each input.
#include <fuzz/harness.h>

#include <rvzd/client/rvzd_clnt/port_rules.cpp>

// The library's own are hidden in it; nothing forks here.
void velia::begin_to_watch(ForkWatch & /*watch*/) {}
velia::ForkWatch velia::rvzd_clnt::call_lock_watch = {rvzd_call_lock, [] {}};

namespace {

void forget_rules() {
    ivladm_svr_port = fladm_svr_port = flshp_min_port = flshp_max_port = 0;
    flshp_strict_range = strict_int = 0;
    parse_ivladm_port_value = parse_fladm_port_value = parse_flshp_port_value = false;
    rt_min_stat = rt_max_stat = rt_strict_stat = TBS_ST_OK;
}

// Takes the text up to the next newline.
std::string take_line(std::string_view &text) {
    const auto end = text.find('\n');
    const std::string line(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    return line.substr(0, line.find('\0'));
}

void set_or_clear(const char *name, const std::string &value) {
    value.empty() ? unsetenv(name) : setenv(name, value.c_str(), 1);
}

void ask(uint64_t program, int least_low, int most_low) {
    uint16_t low[2] = {};
    uint16_t high[2] = {};
    int32_t strict[2] = {};
    const int found = rvzd_bindport_has_port_range(program, &low[0], &high[0], &strict[0]);
    if (found == 0)
        return;
    FUZZ_REQUIRE(low[0] >= least_low && low[0] <= most_low);
    FUZZ_REQUIRE(strict[0] == 0 || strict[0] == 1);
    // What was found once is found again.
    FUZZ_REQUIRE(rvzd_bindport_has_port_range(program, &low[1], &high[1], &strict[1]) == found);
    FUZZ_REQUIRE(low[0] == low[1] && high[0] == high[1]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    forget_rules();
    set_or_clear("IRONVALE_MIN_PORT", take_line(text));
    set_or_clear("IRONVALE_MAX_PORT", take_line(text));
    root.write("config/services/rvzd_rt_params.conf", text);
    ask(RVZD_GENERIC_SERVICE_PROGRAM, 1026, 65535);
    ask(RVZD_IVLADM_PROGRAM, 1024, 65533);
    ask(RVZD_FLADM_PROGRAM, 1025, 65534);
    uint16_t low = 77;
    uint16_t high = 78;
    int32_t strict = 79;
    FUZZ_REQUIRE(rvzd_bindport_has_port_range(RVZD_PROGRAM, &low, &high, &strict) == 0);
    FUZZ_REQUIRE(low == 77 && high == 78 && strict == 79);
    return 0;
}
