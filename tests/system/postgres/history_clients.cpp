#include <tests/system/postgres/history_clients.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <support/ks.h>
#include <tests/system/support/client.h>
#include <veliaxdr/rgy_entry.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::system_test {

namespace {

using Kind = Operation::Kind;
using Answer = Operation::Answer;

constexpr int64_t call_limit_ms = 8000;
constexpr useconds_t pause_us = 5000; // where there is no answer
constexpr uint32_t percent = 100;
constexpr uint32_t titles_percent = 20; // of the adds
constexpr uint32_t values_of_process = 1U << 24;
constexpr int reading_tries = 2000;
constexpr std::array<rgy_db_t, 2> dbs = {RGY_DB_REGIONS, RGY_DB_CT_SERVERS}; // an entry is known by its name
constexpr rgy_db_t titles_db = RGY_DB_DOMAINS;

int64_t now_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

rgy_db_t db_of(uint32_t key) {
    return key >= HistoryClients::first_title_key ? titles_db : dbs.at(key % dbs.size());
}

// Nothing makes two entries of a title alone the same to the registry, so one that is added twice stands there twice.
std::string text_of(uint32_t key, uint32_t value) {
    if (key >= HistoryClients::first_title_key)
        return "-title=" + std::to_string(key - HistoryClients::first_title_key) + ";";
    return "-name=k" + std::to_string(key) + ";-title=" + std::to_string(value) + ";";
}

uint32_t title_in(const char *flex_text) {
    const char *title = strstr(flex_text, "-title=");
    return title != nullptr ? static_cast<uint32_t>(strtoul(title + strlen("-title="), nullptr, 10)) : 0;
}

// What a client may take for refused and not done; where it is told neither, nobody knows.
std::optional<Answer> answer_of(tbs_status_t status) {
    switch (status) {
    case TBS_ST_OK:
        return Answer::done;
    case TBS_ST_ALREADY_EXISTS:
    case TBS_ST_NOT_FOUND:
        return Answer::refused;
    case TBS_ST_STALE_ID:
    case TBS_ST_TRY_AGAIN:
        return std::nullopt;
    default:
        return Answer::uncertain;
    }
}

struct Bearer {
    uint64_t id = 0;
    uint32_t value = 0;
};

} // namespace

class HistoryClients::Client {
public:
    Client(const char *host, uint32_t number) : host_(host), next_value_(number * values_of_process + 1) {}

    // One call with a handle for it, which the library may have from before. Nothing where it did not come so far.
    template <class Call>
    static std::optional<tbs_status_t> call(const char *host, Call &&call) {
        ks_set_deadline(call_limit_ms);
        std::optional<tbs_status_t> status;
        {
            const Handle handle(host, RVZD_PROTOCOL_TCP);
            if (handle.status() == TBS_ST_OK)
                status = call(handle.get());
        }
        ks_set_deadline(-1);
        return status;
    }

    std::optional<Bearer> look_up(uint32_t key) {
        Operation seen = begin(Kind::look_up, key, 0);
        Bearer found;
        const auto status = call(host_, [&](rvzd_handle_t *handle) {
            const std::string name = "k" + std::to_string(key);
            rgy_dtm_pair_t stamps = {};
            uint64_t cursor = 0;
            int64_t count = 0;
            rgy_elist_t list = rgy_elist_alloc(1);
            const auto got = rvzd_rgy_findbystring_entry(handle, db_of(key), RGY_PROTOCOL_VERSION, "", "-name",
                                                         name.c_str(), &stamps, &cursor, 1, list, &count);
            if (got == TBS_ST_OK && count == 1)
                found = {list[0].entry_id, title_in(list[0].flex_text)};
            rgy_elist_free(list, 1);
            return got;
        });
        if (status != TBS_ST_OK)
            return std::nullopt;
        seen.value = found.value;
        end(seen, Answer::done);
        return found;
    }

    void add(uint32_t key, uint32_t value) {
        rgy_dtm_pair_t stamps = {};
        const auto known = call(host_, [&](rvzd_handle_t *handle) {
            return rvzd_rgy_get_id(handle, db_of(key), RGY_PROTOCOL_VERSION, &stamps);
        });
        if (known != TBS_ST_OK)
            return pause();
        Operation added = begin(Kind::add, key, value);
        memcpy(&added.stamp, &stamps, sizeof added.stamp);
        finish_update(added, call(host_, [&](rvzd_handle_t *handle) {
                          return rvzd_rgy_add_entry(handle, db_of(key), RGY_PROTOCOL_VERSION, &stamps,
                                                    text_of(key, value).c_str());
                      }));
    }
    void add(uint32_t key) { add(key, next_value_++); }

    void remove(uint32_t key, const Bearer &found) {
        const Operation removed = begin(Kind::remove, key, found.value);
        finish_update(removed, call(host_, [&](rvzd_handle_t *handle) {
                          const rgy_dtm_pair_t unlooked_at = {};
                          return rvzd_rgy_remove_entry(handle, db_of(key), RGY_PROTOCOL_VERSION, &unlooked_at,
                                                       found.id);
                      }));
    }

    static void pause() { usleep(pause_us); }

    uint64_t take_updates() { return std::exchange(updates_, 0); }
    std::vector<Operation> take_history() { return std::exchange(history_, {}); }

private:
    static Operation begin(Kind kind, uint32_t key, uint32_t value) {
        return {kind, Answer::done, key, value, 0, now_us(), 0};
    }
    void end(Operation operation, Answer answer) {
        operation.answer = answer;
        operation.end_us = now_us();
        history_.push_back(operation);
    }
    void finish_update(const Operation &operation, std::optional<tbs_status_t> status) {
        if (!status)
            return pause();
        const auto answer = answer_of(*status);
        if (answer)
            end(operation, *answer);
        updates_ += answer == Answer::done ? 1 : 0;
        if (status != TBS_ST_STALE_ID && answer != Answer::done && answer != Answer::refused)
            pause();
    }

    const char *const host_;
    uint32_t next_value_;
    uint64_t updates_ = 0;
    std::vector<Operation> history_;
};

HistoryClients::HistoryClients(const Site &site, const Wanted &wanted)
    : site_(site), wanted_(wanted),
      shared_(new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared()) {
    for (int number = 0; number < wanted.processes; ++number) {
        const pid_t process = fork();
        if (process == 0)
            _exit(work(number) ? 0 : 1);
        processes_.push_back(process);
    }
}

// In a process of its own, since one has one call in flight.
bool HistoryClients::work(int number) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Client client(wanted_.hosts.at(static_cast<size_t>(number) % wanted_.hosts.size()), static_cast<uint32_t>(number));
    std::mt19937 random(std::random_device{}());
    const auto below = [&](uint32_t end) { return std::uniform_int_distribution<uint32_t>(0, end - 1)(random); };
    FILE *const file = fopen(file_of(number).c_str(), "w");
    while (!shared_->is_over) {
        const uint32_t key = 1 + below(wanted_.keys);
        const bool is_update = below(percent) < wanted_.updates_percent;
        const auto found = client.look_up(key);
        if (!found)
            Client::pause();
        else if (is_update && found->value != 0)
            client.remove(key, *found);
        else if (is_update && below(percent) < titles_percent)
            client.add(first_title_key + shared_->titles++, 1);
        else if (is_update)
            client.add(key);
        shared_->updates += client.take_updates();
        const auto history = client.take_history();
        shared_->operations += history.size();
        fwrite(history.data(), sizeof(Operation), history.size(), file);
    }
    return fclose(file) == 0;
}

HistoryClients::~HistoryClients() {
    for (const pid_t process : processes_)
        kill(process, SIGKILL);
    end_processes();
    munmap(shared_, sizeof *shared_);
}

std::string HistoryClients::file_of(int process) const {
    return site_.path("history-" + std::to_string(process));
}

void HistoryClients::end_processes() {
    shared_->is_over = true;
    for (const pid_t process : processes_)
        waitpid(process, nullptr, 0);
    processes_.clear();
}

std::vector<Operation> HistoryClients::finish() {
    end_processes();
    std::vector<Operation> history;
    for (int number = 0; number < wanted_.processes; ++number) {
        FILE *const file = fopen(file_of(number).c_str(), "r");
        for (Operation operation; file != nullptr && fread(&operation, sizeof operation, 1, file) == 1;)
            history.push_back(operation);
        if (file != nullptr)
            fclose(file);
    }
    for (uint32_t key = 1; key <= wanted_.keys; ++key) {
        Client client(wanted_.hosts[key % wanted_.hosts.size()], static_cast<uint32_t>(wanted_.processes));
        for (int tries = 0; tries < reading_tries && !client.look_up(key); ++tries)
            Client::pause();
        for (const Operation &operation : client.take_history())
            history.push_back(operation);
    }
    return history;
}

std::vector<uint32_t> HistoryClients::titles_now(const char *host, size_t count) {
    std::vector<uint32_t> titles(count);
    constexpr int64_t batch = 100;
    rgy_dtm_pair_t stamps = {};
    uint64_t cursor = 0;
    do {
        rgy_elist_t list = rgy_elist_alloc(batch);
        int64_t found = 0;
        const auto status = Client::call(host, [&](rvzd_handle_t *handle) {
            return rvzd_rgy_get_entry(handle, titles_db, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, batch, list,
                                      &found);
        });
        for (int64_t i = 0; status == TBS_ST_OK && i < found; ++i)
            if (const uint32_t title = title_in(list[i].flex_text); title < count)
                ++titles[title];
        rgy_elist_free(list, batch);
        if (status != TBS_ST_OK)
            return {};
    } while (cursor != 0);
    return titles;
}

} // namespace velia::system_test
