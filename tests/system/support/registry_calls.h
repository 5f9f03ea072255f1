// What tests ask a registry, over calls that cache nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::system_test {

struct FreeHandle {
    void operator()(rvzd_handle_t *handle) const { rvzd_free_handle(handle); }
};
using OwnedHandle = std::unique_ptr<rvzd_handle_t, FreeHandle>;

OwnedHandle own_handle(const char *host, uint32_t prim = 1);

// Adds with the stamps of the moment, again and again while somebody else is quicker.
tbs_status_t add(rgy_db_t db, const std::string &text, const char *host = "alpha", int *stale_answers = nullptr);

std::string text_of(const rgy_entry_t *entry, uint32_t item);

// The names of all entries of a database, in the order in which they come; nothing when the scan fails.
std::optional<std::vector<std::string>> names_of(rgy_db_t db, int64_t batch = 100, const char *host = nullptr);

// The text of an entry that has a name alone.
std::string name_entry(const std::string &name);

} // namespace velia::system_test
