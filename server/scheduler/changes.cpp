// Two jobs differ in a field if the one with the other's field is sent as other bytes.
#include <server/scheduler/changes.h>

#include <algorithm>

#include <server/scheduler/xdr_bytes.h>

namespace velia::server {

namespace {

using Job = sched_job_rw_properties_t;

struct Field {
    const char *name;
    void (*copy)(Job &into, const Job &from);
};

constexpr Field fields[] = {
    {"name", [](Job &into, const Job &from) { into.name = from.name; }},
    {"description", [](Job &into, const Job &from) { into.description = from.description; }},
    {"schedule", [](Job &into, const Job &from) { into.schedule = from.schedule; }},
    {"task", [](Job &into, const Job &from) { into.task = from.task; }},
    {"arguments",
     [](Job &into, const Job &from) {
         into.arg_count = from.arg_count;
         into.args = from.args;
     }},
    {"time limit", [](Job &into, const Job &from) { into.run_control = from.run_control; }},
    {"delete when completed",
     [](Job &into, const Job &from) { into.delete_when_completed = from.delete_when_completed; }},
    {"notifications",
     [](Job &into, const Job &from) {
         into.notify_count = from.notify_count;
         into.notify = from.notify;
     }},
};

} // namespace

std::string changed_fields(const sched_job_rw_properties_t &before, const sched_job_rw_properties_t &after) {
    Job mixed = before;
    const auto bytes_before = xdr_bytes(xdr_sched_job_rw_properties_t, mixed);
    std::string names;
    for (const Field &field : fields) {
        mixed = before;
        field.copy(mixed, after);
        if (xdr_bytes(xdr_sched_job_rw_properties_t, mixed) != bytes_before)
            names += (names.empty() ? "" : ",") + std::string(field.name);
    }
    return names;
}

std::string noted_name(const std::string &name) {
    constexpr unsigned char continuation_mask = 0xC0;
    constexpr unsigned char continuation = 0x80;
    size_t size = std::min(name.size(), noted_name_bytes_max);
    while (size < name.size() && size > 0 &&
           (static_cast<unsigned char>(name[size]) & continuation_mask) == continuation)
        --size;
    return name.substr(0, size);
}

} // namespace velia::server
