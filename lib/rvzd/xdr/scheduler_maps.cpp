// What the values of schedules and notifications are called.
#include <veliaxdr/sched_wire.h>

constexpr sched_str_map_t mds_ordinal_str_map[SCHED_MDS_ORDINAL_ROWS] = {
    {0, "<uninitialized>"}, {1, "First"}, {2, "Second"},         {3, "Third"},
    {4, "Fourth"},          {5, "Last"},  {6, "<unrecognized>"},
};

constexpr sched_str_map_t mds_kind_str_map[SCHED_MDS_KIND_ROWS] = {
    {0, "<uninitialized>"},
    {1, "Mon"},
    {2, "Tue"},
    {3, "Wed"},
    {4, "Thu"},
    {5, "Fri"},
    {6, "Sat"},
    {7, "Sun"},
    {8, "Weekday"},
    {9, "Weekendday"},
    {10, "Day"},
    {11, "<unrecognized>"},
};

constexpr strutl_flag_item_t dow_flags[SCHED_DOW_FLAGS] = {
    {"Mon", 0x1}, {"Tue", 0x2}, {"Wed", 0x4}, {"Thu", 0x8}, {"Fri", 0x10}, {"Sat", 0x20}, {"Sun", 0x40},
};

// The lowest bit has no name.
constexpr strutl_flag_item_t event_mask_flags[SCHED_EVENT_MASK_FLAGS] = {
    {"<none>", 0},        {"JobBegin", 0x2},    {"JobEndOK", 0x4},     {"JobEndOKWithMsgs", 0x8},
    {"JobEndFail", 0x10}, {"JobDeleted", 0x20}, {"JobModified", 0x40},
};

constexpr strutl_flag_item_t delivery_mask_flags[SCHED_DELIVERY_MASK_FLAGS] = {
    {"<none>", 0},
    {"email", 0x1},
};
