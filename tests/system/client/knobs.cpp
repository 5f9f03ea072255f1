#include <tests/system/client/knobs.h>

#include <cstdio>

#include <tests/system/client/stale_adds.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

rvzd_knoblet_kind_t kind_of_site(const std::string &name) {
    uint32_t id;
    return rvzd_knob_id_by_name_and_knoblet(name.c_str(), KNOBLET_SITE, &id) == TBS_ST_OK ? KNOBLET_SITE
                                                                                          : KNOBLET_SYNC_SITE;
}

} // namespace

bool write_knob(const std::string &name, int first, int count) {
    uint32_t id;
    if (rvzd_knob_id_by_name(name.c_str(), &id) != TBS_ST_OK)
        return false;
    int done = 0;
    int failed = 0;
    for (int number = first; number < first + count; ++number) {
        const auto status =
            rvzd_knoblet_set_value_from_spelling(id, kind_of_site(name), nullptr, std::to_string(number).c_str());
        if (status != TBS_ST_OK && status != TBS_ST_STALE_ID && status != TBS_ST_ERROR)
            return false;
        done += status == TBS_ST_OK;
        failed += status != TBS_ST_OK;
    }
    printf("done %d failed %d stale %d\n", done, failed, stale_adds());
    return true;
}
