#include <tests/system/client/rounds.h>

#include <chrono>
#include <cstdio>

#include <unistd.h>

#include <support/ks.h>
#include <tests/system/support/client.h>
#include <veliaxdr/rgy_entry.h>
#include <veliaxdr/rgy_wire.h>

using velia::system_test::Handle;

namespace {

constexpr int tries_max = 12'000;     // a minute of a daemon that refuses: on a busy machine a start takes its time
constexpr useconds_t pause_us = 5000; // a daemon that is not there refuses at once

// Nothing makes two entries of a title alone the same to the registry, so one that is added twice stands there twice.
constexpr rgy_db_t db = RGY_DB_REGIONS;

int64_t now_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

class Client {
public:
    explicit Client(const RoundsWanted &wanted) : wanted_(wanted) {}

    bool look_up() {
        return succeeds([&] {
            return told("look-up", [&](const Handle &handle) {
                const auto protocol = static_cast<rvzd_protocol_in_t>(wanted_.protocol);
                return velia::system_test::find(handle, wanted_.program, protocol).status;
            });
        });
    }

    // An add whose answer did not come may have been made or may yet be: the stamps are asked for first, then whether
    // the entry stands, and an add with these stamps is refused if that changed in between.
    bool add(int number) {
        const std::string title = wanted_.name + "-" + std::to_string(number);
        bool is_uncertain = false;
        return succeeds([&] {
                   rgy_dtm_pair_t stamps = {};
                   auto status = stamps_now(stamps);
                   if (status != TBS_ST_OK)
                       return status;
                   if (is_uncertain && (status = look_for(title)) != TBS_ST_NOT_FOUND)
                       return status;
                   status = told("add", [&](const Handle &handle) {
                       return rvzd_rgy_add_entry(handle.get(), db, RGY_PROTOCOL_VERSION, &stamps,
                                                 ("-title=" + title + ";").c_str());
                   });
                   is_uncertain = is_uncertain || (status != TBS_ST_OK && status != TBS_ST_STALE_ID);
                   return status;
               }) &&
               printf("added %s\n", title.c_str()) > 0;
    }

private:
    template <class Work>
    bool succeeds(Work &&work) const {
        for (int tries = 0; tries < tries_max && access(wanted_.stop_file.c_str(), F_OK) != 0; ++tries) {
            const tbs_status_t status = work();
            if (status == TBS_ST_OK)
                return true;
            if (status != TBS_ST_STALE_ID)
                usleep(pause_us);
        }
        return false;
    }

    // One call with a handle for it, which the library may have from before.
    template <class Call>
    tbs_status_t told(const char *name, Call &&call) const {
        const int64_t begin_us = now_us();
        if (wanted_.limit_ms > 0)
            ks_set_deadline(wanted_.limit_ms);
        tbs_status_t status;
        {
            const Handle handle(wanted_.host, wanted_.protocol);
            status = handle.status() == TBS_ST_OK ? call(handle) : handle.status();
        }
        ks_set_deadline(-1);
        printf("%s %d %lld %lld\n", name, status, static_cast<long long>(begin_us), static_cast<long long>(now_us()));
        fflush(stdout);
        return status;
    }

    tbs_status_t stamps_now(rgy_dtm_pair_t &stamps) const {
        return told("stamps", [&](const Handle &handle) {
            return rvzd_rgy_get_id(handle.get(), db, RGY_PROTOCOL_VERSION, &stamps);
        });
    }

    // TBS_ST_NOT_FOUND: an answer, and no entry.
    tbs_status_t look_for(const std::string &title) const {
        return told("search", [&](const Handle &handle) {
            rgy_dtm_pair_t stamps = {};
            uint64_t cursor = 0;
            int64_t count = 0;
            rgy_elist_t found = rgy_elist_alloc(1);
            tbs_status_t status;
            do {
                status = rvzd_rgy_findbystring_entry(handle.get(), db, RGY_PROTOCOL_VERSION, "",
                                                     registry_item_name(RGY_ITEM_TITLE), title.c_str(), &stamps,
                                                     &cursor, 1, found, &count);
            } while (status == TBS_ST_OK && count == 0 && cursor != 0);
            rgy_elist_free(found, 1);
            return status == TBS_ST_OK && count == 0 ? tbs_status_t{TBS_ST_NOT_FOUND} : status;
        });
    }

    const RoundsWanted &wanted_;
};

} // namespace

bool run_rounds(const RoundsWanted &wanted) {
    Client client(wanted);
    for (int number = 0; number < wanted.count && access(wanted.stop_file.c_str(), F_OK) != 0; ++number)
        if (!client.look_up() || !client.add(number))
            return access(wanted.stop_file.c_str(), F_OK) == 0;
    return true;
}
