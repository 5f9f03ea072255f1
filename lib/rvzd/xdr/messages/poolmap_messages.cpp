// The messages of pool maps. Nobody prints position 4; it keeps its place in the catalogue.
#include <veliaxdr/poolmap.h>

#include <rvzd/xdr/messages/message_table.h>

namespace {

constexpr velia::MessageRow rows[] = {
    {0, 1, "Invalid VAULT pool path translation \"%s\".\n"},
    {1, 2, "A translation must end with the pathname separator.\n"},
    {2, 3, "Invalid VAULT pool mapping prefix \"%s\".\n"},
    {3, 4, "Invalid VAULT pool mapping target \"%s\".\n"},
    {4, 5, "Expansion of target \"%s\" is too long.\n"},
    {5, 6, "Invalid VAULT pool mapping option \"%s\".\n"},
};

constexpr auto table = velia::make_message_table<6>(rows);

} // namespace

const imsg_table_t _poolmap_rvzd_msg_table = velia::describe("poolmap", 69, table);
