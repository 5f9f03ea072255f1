// A site's values: entries of site_config. The first setting of the catalogue has an old form beside the common one, an
// entry without a name that holds the value under a key of its own.
#include <cstring>
#include <iterator>

#include <rvzd/client/registry_clnt/stale_passes.h>
#include <rvzd/client/rvzd_knob/knob.h>
#include <support/stg.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_manage.h>

using namespace velia;
using namespace velia::rvzd_knob;

namespace {

constexpr int64_t one_at_a_time = 1;
constexpr uint32_t old_form_id = RVZD_KNOB_VIEW_CACHE_SIZE;

using Text = char[RGY_ITEM_TEXT_SIZE];

// One walk over the entries. The entry in hand is good until the next step.
struct Scan {
    const char *host;
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entry = nullptr;

    void drop_entry() {
        if (entry != nullptr)
            rgy_delete_entry(&entry);
    }
    void give_back() {
        with_inhibit([&] {
            drop_entry();
            if (cursor != nullptr)
                rgy_close_cursor(&cursor);
        });
    }

    // TBS_ST_NOT_FOUND is the end and nothing else: a host that is not known would else pass for one without values.
    tbs_status_t next() {
        drop_entry();
        int64_t count = 0;
        const auto status = rgy_get_entry(RGY_DB_SITE_CONFIG, host, nullptr, &cursor, one_at_a_time, &entry, &count);
        if (status != TBS_ST_OK)
            return status == TBS_ST_NOT_FOUND ? tbs_status_t{TBS_ST_ERROR} : status;
        return cursor != nullptr ? TBS_ST_OK : TBS_ST_NOT_FOUND;
    }
};

template <class Body>
tbs_status_t with_scan(const char *host, Body &&body) {
    Scan scan = {host};
    return with_release([&] { return body(scan); }, [&] { scan.give_back(); });
}

bool has_item(const rgy_entry_t *entry, uint32_t item) {
    const char *text = nullptr;
    return rgy_getstring_from_entry_const(entry, item, &text) == TBS_ST_OK;
}

// Whether the entry in hand is the setting's. A batch may be empty.
tbs_status_t is_own_entry(const Knob &knob, const Scan &scan, bool &is_own) {
    is_own = false;
    if (scan.entry == nullptr)
        return TBS_ST_OK;
    Text name;
    const auto status = rgy_getstring_from_entry(scan.entry, RGY_ITEM_NAME, sizeof name, name);
    if (status == TBS_ST_NOT_FOUND) {
        is_own = knob.id == old_form_id && has_item(scan.entry, RGY_ITEM_DEFAULT_VIEWSIZE);
        return TBS_ST_OK;
    }
    is_own = status == TBS_ST_OK && strcmp(name_of(knob), name) == 0;
    return status;
}

// Goes on to the setting's next entry. TBS_ST_NOT_FOUND: there is none.
tbs_status_t next_own_entry(const Knob &knob, Scan &scan) {
    bool is_own = false;
    tbs_status_t status = TBS_ST_OK;
    while (status == TBS_ST_OK && !is_own) {
        status = scan.next();
        if (status == TBS_ST_OK)
            status = is_own_entry(knob, scan, is_own);
    }
    return status;
}

tbs_status_t copy_value(const rgy_entry_t *entry, char **text) {
    const bool is_old_form = !has_item(entry, RGY_ITEM_NAME);
    Text value;
    const auto status =
        rgy_getstring_from_entry(entry, is_old_form ? RGY_ITEM_DEFAULT_VIEWSIZE : RGY_ITEM_VALUE, sizeof value, value);
    if (status != TBS_ST_OK)
        return status;
    *text = stg_strdup(value);
    return *text != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

// The setting with the old form has two entries as a rule.
void warn_of_duplicates(const Knob &knob, int32_t count) {
    const bool is_usual = count == 1 || (count == 2 && knob.id == old_form_id);
    if (!is_usual)
        imsg_print(IMSG_WARNING, &_rvzd_knob_rvzd_msg_table, KNOB_MSG_DUPLICATE_ENTRIES, name_of(knob));
}

// The rest is looked at for duplicates only; trouble there ends it without a word.
tbs_status_t read_value(const Knob &knob, Scan &scan, char **text) {
    auto status = next_own_entry(knob, scan);
    if (status == TBS_ST_OK)
        status = copy_value(scan.entry, text);
    if (status != TBS_ST_OK)
        return status;
    int32_t count = 1;
    while (next_own_entry(knob, scan) == TBS_ST_OK)
        ++count;
    warn_of_duplicates(knob, count);
    return TBS_ST_OK;
}

tbs_status_t remove_own_entries(const Knob &knob, const char *host) {
    return with_scan(host, [&](Scan &scan) -> tbs_status_t {
        tbs_status_t status;
        while ((status = next_own_entry(knob, scan)) == TBS_ST_OK) {
            const auto removed = rgy_remove_entry(RGY_DB_SITE_CONFIG, scan.entry);
            if (removed != TBS_ST_OK)
                return removed;
        }
        return status == TBS_ST_NOT_FOUND ? tbs_status_t{TBS_ST_OK} : status;
    });
}

struct Item {
    uint32_t item;
    const char *text;
};

using registry_clnt::Pass;

// Only the add can find the stamps out of date.
template <size_t Count>
Pass add_filled(rgy_entry_t *entry, const Item (&items)[Count]) {
    for (const auto &[item, text] : items) {
        const auto status = rgy_setstring_in_entry(entry, item, text);
        if (status != TBS_ST_OK)
            return {status, false};
    }
    const auto status = rgy_add_entry(RGY_DB_SITE_CONFIG, entry);
    return {status, status == TBS_ST_STALE_ID};
}

template <size_t Count>
Pass add(const char *host, const Item (&items)[Count]) {
    rgy_entry_t *entry = nullptr;
    return with_release(
        [&]() -> Pass {
            const auto status = rgy_create_entry(RGY_DB_SITE_CONFIG, host, &entry);
            return status == TBS_ST_OK ? add_filled(entry, items) : Pass{status, false};
        },
        [&] {
            if (entry != nullptr)
                rgy_delete_entry(&entry);
        });
}

// The old form goes first, so that those who know nothing else are served as soon as the others.
Pass replace_entries(const Knob &knob, const char *host, const char *text) {
    const auto removed = remove_own_entries(knob, host);
    if (removed != TBS_ST_OK || text == nullptr)
        return {removed, false};
    if (knob.id == old_form_id) {
        const Pass added = add(host, {{RGY_ITEM_DEFAULT_VIEWSIZE, text}});
        if (added.status != TBS_ST_OK)
            return added;
    }
    return add(host, {{RGY_ITEM_NAME, name_of(knob)}, {RGY_ITEM_VALUE, text}});
}

} // namespace

tbs_status_t velia::rvzd_knob::rvzd_knoblet_p_get_site_value_as_string(const Knob &knob, const char *host,
                                                                       char **text) {
    *text = nullptr;
    return with_scan(host, [&](Scan &scan) { return read_value(knob, scan, text); });
}

tbs_status_t velia::rvzd_knob::rvzd_knoblet_p_set_site_value_as_string(const Knob &knob, const char *host,
                                                                       const char *text) {
    return registry_clnt::until_not_stale([&] { return replace_entries(knob, host, text); }).status;
}

tbs_status_t velia::rvzd_knob::find_site_entry(const Knob &knob, const char *host, uint64_t *entry_id) {
    return with_scan(host, [&](Scan &scan) {
        const auto status = next_own_entry(knob, scan);
        if (status == TBS_ST_OK)
            *entry_id = scan.entry->entry_id;
        return status;
    });
}
