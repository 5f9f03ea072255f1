// The messages of the client list: the library's writer prints a few, the daemon that reads and rotates the file the
// rest.
#include <veliaxdr/rvzd_hosts.h>

#include <rvzd/xdr/messages/message_table.h>

namespace {

constexpr velia::MessageRow rows[] = {
    {0, 1, "Unable to open client list file \"%s\": %s.\n"},
    {1, 2, "Client list file \"%s\" not found.\n"},
    {2, 3, "Invalid entry, file \"%s\", line %d. Skipping.\n"},
    {3, 4, "Invalid address format, file \"%s\", line %d. Skipping.\n"},
    {4, 5, "Duplicate address found, file \"%s\", line %d. Skipping.\n"},
    {5, 6, "Unable to create client list file \"%s\": %s.\n"},
    {6, 7, "Created client list file \"%s\".\n"},
    {7, 8, "Unable to write to client list file \"%s\": %s.\n"},
    {8, 9, "Unable to force write client list file \"%s\": %s.\n"},
    {9, 10, "Unable to close client list file \"%s\": %s.\n"},
    {10, 11, "Unable to rename current client list file \"%s\" to backup: %s.\n"},
    {11, 12, "Unable to rename new client list file \"%s\" to current: %s.\n"},
    {12, 13, "Unable to remove old client list file \"%s\": %s.\n"},
    {13, 14, "Restored %s to client list\n"},
    {14, 15, "Read %d lines from file %s\n"},
    {15, 16, "Added %s to client list\n"},
    {16, 17, "Updated %s in client list\n"},
    {17, 18, "Nothing modified, no write done\n"},
    {18, 19, "Entering function \"%s\"\n"},
    {19, 20, "Wrote %d lines to file %s\n"},
    {20, 21, "Returned %d entries. No more to send.\n"},
    {21, 22, "Returned %d entries. More to send.\n"},
    {22, 23, "Client list database version \"%s\" unknown, not reading.\n"},
    {23, 24, "Unable to get host information for host \"%s\": %s.\n"},
    {24, 25, "No OS-Name info for server \"%s\".\n"},
    {25, 26, "Unable to get local host's platform information.\n"},
};

constexpr auto table = velia::make_message_table<26>(rows);

} // namespace

const imsg_table_t _clnt_list_rvzd_msg_table = velia::describe("clnt_list", 71, table);
