// The messages of the daemon's build service: lines of its control file's usage text, and the pieces from which a rule
// is printed again.
#include <veliaxdr/rvzd_messages.h>

#include <rvzd/xdr/messages/message_table.h>

namespace {

constexpr velia::MessageRow rows[] = {
    {0, 2, "Illegal host specification - * conflicts with host\n"},
    {1, 3, "Option -host requires arguments\n"},
    {2, 4, "Missing group specification - allow any group\n"},
    {3, 5, "Missing user and group specification\n"},
    {4, 6, "Invalid user or group name\n"},
    {5, 7, "Missing idle specification\n"},
    {6, 8, "Option -idle requires an integer argument between 0 and 100\n"},
    {7, 9, "Error in -time option\n"},
    {8, 10, "Unrecognized option: %s\n"},
    {9, 11, "Build server control file rule specification usage:\n"},
    {10, 12, "    [ -host hostname[,hostname] | \n"},
    {11, 13, "      -user {username | userid | *}[.{groupname | groupid | *}] | \n"},
    {12, 14, "      -time integer_start_hour:integer_start_min,integer_end_hour:integer_end_min ... | \n"},
    {13, 15, "      -idle integer[%%]  ]\n"},
    {14, 16, "-host "},
    {15, 17, "*"},
    {16, 18, "."},
    {17, 19, "%d%"},
    {18, 20, "%d:%d"},
    {19, 21, " -time "},
    {20, 22, " -idle "},
    {21, 23, "%%"},
    {22, 24, "Unknown host %s\n"},
    {23, 25, "Unable to open file \"%s\" error %s\n"},
    {24, 26, "Unable to contact rstatd\n"},
    {25, 27, "Line %s overflowed internal buffer\n"},
    {26, 28, "Build server control file %s does not exist. No restrictions on remote building on this host\n"},
    {27, 29, "Option -power requires a floating point argument\n"},
    {28, 30, "Invalid power specification - must be greater than 0.0\n"},
    {29, 31, "Build server control file power specification usage: -power floating-point-number\n"},
    {30, 32, "Illegal use of power specification and permission specifications.\n"},
    {31, 33, "load avg= %5.2f, power= %5.2f, power_avg= %10.2f\n"},
    {32, 34, "Setting bldsvr_power_spec= %10.2f\n"},
    {33, 35, "1 min load avg = %5d\n"},
    {34, 36, "Power specification = %10.2f\n"},
    {35, 37, "!"},
};

constexpr auto table = velia::make_message_table<36>(rows);

} // namespace

const imsg_table_t _bldsvr_rvzd_msg_table = velia::describe("BLDSVR", 68, table);
