#include <server/registry/remote_source.h>

#include <array>
#include <cstring>
#include <vector>

#include <support/stg.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::server {

namespace {

constexpr int exact_readings_max = 3; // before one that saw changes is taken as it is
constexpr int64_t page_records_max = 1000;
constexpr int barren_pages_max = 1000; // one after the other

void require_ok(tbs_status_t status) {
    if (status != TBS_ST_OK)
        throw CopyError(tbs_strerror(status));
}

// A page's elements, which own their texts.
class Page {
public:
    Page() : elements_(page_records_max) {}
    ~Page() {
        for (const auto &element : elements_)
            stg_free(element.flex_text);
    }
    Page(const Page &) = delete;
    Page &operator=(const Page &) = delete;

    rgy_svr_entry_t *elements() { return elements_.data(); }

    // True when a record among them was not there yet.
    bool move_to(Contents &contents, int64_t count) {
        bool is_new = false;
        for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
            const auto &element = elements_[i];
            is_new |= contents.emplace(element.entry_id, element.flex_text != nullptr ? element.flex_text : "").second;
        }
        return is_new;
    }

private:
    std::vector<rgy_svr_entry_t> elements_;
};

} // namespace

RemoteSource::RemoteSource(const std::string &host) {
    rvzd_handle_t *handle = nullptr;
    require_ok(rvzd_get_handle_proto(host.c_str(), RVZD_PROTOCOL_TCP, &handle));
    handle_.reset(handle);
}

Stamps RemoteSource::stamps(rgy_db_t db) {
    Stamps stamps;
    require_ok(rvzd_rgy_get_dtm(handle_.get(), db, RGY_PROTOCOL_VERSION, &stamps.pair, &stamps.registry, &stamps.copy));
    return stamps;
}

Reading RemoteSource::read_once(rgy_db_t db) {
    Reading reading;
    rgy_dtm_pair_t stamps = {};
    uint64_t cursor = 0;
    int barren_pages = 0;
    bool is_first = true;
    do {
        Page page;
        const uint64_t sent_cursor = cursor;
        int64_t count = 0;
        require_ok(rvzd_rgy_get_entry(handle_.get(), db, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, page_records_max,
                                      page.elements(), &count));
        if (is_first)
            reading.stamps = stamps;
        else if (reading.stamps && !is_same(*reading.stamps, stamps))
            reading.stamps.reset();
        is_first = false;
        barren_pages = page.move_to(reading.contents, count) ? 0 : barren_pages + 1;
        if (cursor != 0 && (cursor == sent_cursor || barren_pages > barren_pages_max))
            throw CopyError("the listing makes no progress");
    } while (cursor != 0);
    return reading;
}

Reading RemoteSource::read(rgy_db_t db) {
    Reading reading = read_once(db);
    for (int tries = 1; !reading.stamps && tries < exact_readings_max; ++tries)
        reading = read_once(db);
    return reading;
}

std::string RemoteSource::backup_hosts() {
    std::array<char, RGY_WIRE_HOST_LIST_MAX + 1> hosts = {};
    char *text = hosts.data();
    require_ok(rvzd_rgy_get_backup(handle_.get(), RGY_PROTOCOL_VERSION, &text));
    return hosts.data();
}

// A daemon of before there were terms has none.
Term RemoteSource::term(const tbs_uuid_t &registry, const Term &known) {
    rvzd_registry_state_reply_t state = {};
    const auto status = rvzd_registry_state(handle_.get(), &registry, known.number, known.host.c_str(), &state);
    if (status == TBS_ST_UNSUPPORTED)
        return {};
    require_ok(status);
    Term term = {state.term, state.master, state.heard_term, state.heard_host};
    rvzd_registry_state_free(&state);
    return term;
}

} // namespace velia::server
