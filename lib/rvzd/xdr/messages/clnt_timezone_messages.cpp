// The messages of the time-zone record.
#include <veliaxdr/clnt_timezone.h>

#include <rvzd/xdr/messages/message_table.h>

namespace {

constexpr velia::MessageRow rows[] = {
    {0, 1, "Success.\n"},
    {1, 2, "Unspecified error.\n"},
    {2, 3, "Incompatible data structure version.\n"},
    {3, 4, "Component contains invalid data.\n"},
    {4, 5, "Unknown clnt_tz_status_t code: (%1d)\n"},
    {5, 6, "\n"},
    {6, 7, "Successfully refreshed TZ cache from data.\n"},
    {7, 8, "Successfully refreshed TZ cache from rule.\n"},
    {8, 9, "Environment variable '%s' is not defined.\n"},
    {9, 10, "Unable to allocate dynamic storage.\n"},
    {11, 12, "Unexpected NULL input parameter.\n"},
    {12, 13, "Cannot open '%s' for reading.\n"},
    {13, 14,
     "TZ environment variable must be set to full POSIX specification.  Refer to environ(5) for further details.\n"},
};

constexpr auto table = velia::make_message_table<14>(rows);

} // namespace

const imsg_table_t _clnt_timezone_rvzd_msg_table = velia::describe("clnt_timezone", 73, table);
