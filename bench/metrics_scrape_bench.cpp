// What a collector of the daemon's figures costs those who look something up meanwhile: the same look-ups without one,
// beside ten scrapes a second, and beside one after the other; and a scrape by itself.
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace {

using bench::check;

constexpr const char *wanted = "entry";
constexpr std::string_view request = "GET /metrics HTTP/1.1\r\nHost: bench\r\n\r\n";
constexpr std::chrono::milliseconds tenth_of_second(100);

const bench::Site *site;

std::string place() {
    return site->root() + "/metrics";
}

void scrape() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = place();
    std::copy(path.begin(), path.end(), address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connection");
    check(write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size()), "request");
    std::array<char, 65536> piece;
    size_t bytes = 0;
    for (ssize_t count = 1; count > 0; bytes += count > 0 ? static_cast<size_t>(count) : 0)
        count = read(fd, piece.data(), piece.size());
    check(bytes > 1000, "page");
    close(fd);
}

// Scrapes while it lives.
class Collector {
public:
    explicit Collector(std::chrono::milliseconds pause)
        : thread_([this, pause] {
              for (; !is_over_; std::this_thread::sleep_for(pause)) {
                  scrape();
                  ++scrapes_;
              }
          }) {}
    ~Collector() {
        is_over_ = true;
        thread_.join();
    }
    Collector(const Collector &) = delete;
    Collector &operator=(const Collector &) = delete;

    double scrapes() const { return static_cast<double>(scrapes_.load()); }

private:
    std::atomic<bool> is_over_ = false;
    std::atomic<uint64_t> scrapes_ = 0;
    std::thread thread_;
};

void look_up() {
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entry = nullptr;
    int64_t count = 0;
    check(rgy_findbystring_entry(RGY_DB_REGIONS, nullptr, nullptr, RGY_ITEM_NAME, wanted, &cursor, 1, &entry, &count) ==
                  TBS_ST_OK &&
              count == 1,
          "look-up");
    rgy_delete_entry(&entry);
    rgy_close_cursor(&cursor);
}

void look_up_beside(benchmark::State &state, const std::optional<std::chrono::milliseconds> &pause) {
    rgy_cache_action(0);
    std::optional<Collector> collector;
    if (pause)
        collector.emplace(*pause);
    for (auto _ : state)
        look_up();
    if (collector)
        state.counters["scrapes"] = benchmark::Counter(collector->scrapes(), benchmark::Counter::kIsRate);
}

void Lookup(benchmark::State &state) {
    look_up_beside(state, std::nullopt);
}
void LookupBesideTenScrapesASecond(benchmark::State &state) {
    look_up_beside(state, tenth_of_second);
}
void LookupBesideScrapesWithoutPause(benchmark::State &state) {
    look_up_beside(state, std::chrono::milliseconds(0));
}
void Scrape(benchmark::State &state) {
    for (auto _ : state)
        scrape();
}

BENCHMARK(Lookup)->UseRealTime();
BENCHMARK(LookupBesideTenScrapesASecond)->UseRealTime();
BENCHMARK(LookupBesideScrapesWithoutPause)->UseRealTime();
BENCHMARK(Scrape)->UseRealTime();

void add_entry() {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_prim(bench::Site::host, 1, &handle) == TBS_ST_OK, "handle");
    rgy_dtm_pair_t stamps;
    check(rvzd_rgy_get_id(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps) == TBS_ST_OK, "stamps");
    check(rvzd_rgy_add_entry(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, &stamps, "-name=entry;") == TBS_ST_OK,
          "add");
    rvzd_free_handle(handle);
}

} // namespace

int main(int argc, char **argv) {
    bench::Site own_site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    site = &own_site;
    own_site.restart("option metrics " + place() + "\n", [] {});
    add_entry();
    return bench::run(
        argc, argv, {{"LookupBesideTenScrapesASecond", "Lookup", 0}, {"LookupBesideScrapesWithoutPause", "Lookup", 0}});
}
