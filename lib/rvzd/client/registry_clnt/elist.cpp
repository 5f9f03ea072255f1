// Lists of entries as the wire carries them.
#include <cstring>

#include <common/with.h>
#include <support/stg.h>
#include <veliaxdr/rgy_entry.h>

using namespace velia;

namespace {

constexpr int64_t count_max = INT64_MAX / static_cast<int64_t>(sizeof(rgy_svr_entry_t));

} // namespace

rgy_elist_t rgy_elist_alloc(int64_t count) {
    if (count < 0 || count > count_max)
        return nullptr;
    const size_t size_bytes = static_cast<size_t>(count) * sizeof(rgy_svr_entry_t);
    void *list = stg_malloc(size_bytes);
    return list != nullptr ? static_cast<rgy_elist_t>(memset(list, 0, size_bytes)) : nullptr;
}

void rgy_elist_free(rgy_elist_t list, int64_t count) {
    if (list == nullptr)
        return;
    with_inhibit([&] {
        for (int64_t i = count - 1; i >= 0; --i)
            stg_free(list[i].flex_text);
        stg_free(list);
    });
}
