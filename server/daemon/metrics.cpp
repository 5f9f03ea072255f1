#include <server/daemon/metrics.h>

#include <algorithm>

#include <server/metrics/exposition.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rvzd_procedure_names.hpp>

namespace velia::server {

namespace {

bool is_copy(int32_t role) {
    return role != RGY_SVR_MASTER && role != RGY_SVR_NONE;
}

uint64_t since(time_t then, time_t now) {
    return static_cast<uint64_t>(std::max<time_t>(now - then, 0));
}

void add_daemon(const DaemonFigures &figures, Exposition &page) {
    page.family("velia_build_info", "gauge", "Version of the daemon's program; always 1.");
    page.sample({{"version", version_text()}, {"host", sysutl_myhostname()}}, 1);
    page.gauge("velia_start_time_seconds", "When the daemon was started, in seconds since 1970.",
               static_cast<uint64_t>(figures.started));
    page.gauge("velia_connections", "Connections that are open.", figures.connections);
    page.gauge("velia_connections_limit", "Connections that may be open at each place where the daemon listens.",
               figures.connections_max);
    page.gauge("velia_services", "Services that are configured.", figures.services);
    page.family("velia_servers", "gauge", "Processes of servers, by what they do.");
    page.sample({{"state", "busy"}}, figures.servers_busy);
    page.sample({{"state", "other"}}, figures.servers - figures.servers_busy);
}

// A role is one of several, of which one is on, so that a change of it shows as a change of figures.
void add_roles(int32_t role, Exposition &page) {
    page.family("velia_registry_role", "gauge", "1 for the role that this registry server has, 0 for the others.");
    for (const auto *row = rgy_svrtype_table; row->text != nullptr; ++row)
        page.sample({{"role", row->text}}, row->value == role ? 1 : 0);
}

void add_registry(const DaemonFigures &figures, const RegistryBytes &bytes, time_t now, Exposition &page) {
    const auto &registry = figures.registry;
    add_roles(registry.role, page);
    page.gauge("velia_registry_takes_updates", "1 while updates of the registry are taken here.",
               figures.takes_updates ? 1 : 0);
    page.gauge("velia_registry_term", "Term of the registry's data.", registry.term.number);
    page.gauge("velia_registry_superseded", "1 for a master of which another host has taken the place.",
               registry.role == RGY_SVR_MASTER && registry.term.is_superseded() ? 1 : 0);
    page.gauge("velia_registry_entries", "Entries of the registry.", registry.entries);
    page.gauge("velia_registry_size_bytes", "Size of the registry's file.", bytes.file);
    page.gauge("velia_registry_log_size_bytes", "Size of the log beside the registry's file.", bytes.log);
    if (!is_copy(registry.role))
        return;
    page.gauge("velia_registry_copy_failing", "1 while a copy of the master's registry cannot be made.",
               registry.failure.empty() ? 0 : 1);
    if (registry.current > 0)
        page.gauge("velia_registry_lag_seconds", "How long ago the copy was last as its master was.",
                   since(registry.current, now));
}

void add_calls(const CallFigures &calls, Exposition &page) {
    page.family("velia_request_duration_seconds", "histogram", "From a call to its answer, by procedure.");
    for (const auto &spread : calls.spreads()) {
        const std::string procedure = procedure_name(spread.procedure);
        for (size_t i = 0; i < spread.up_to.size(); ++i)
            page.sample({{"procedure", procedure}, {"le", seconds_text(CallFigures::bounds_us[i])}}, spread.up_to[i],
                        "_bucket");
        page.sample({{"procedure", procedure}, {"le", "+Inf"}}, spread.calls, "_bucket");
        page.sample_seconds({{"procedure", procedure}}, spread.total_us, "_sum");
        page.sample({{"procedure", procedure}}, spread.calls, "_count");
    }
}

} // namespace

std::string metrics_text(const DaemonFigures &figures, const RegistryBytes &bytes, const CallFigures &calls,
                         time_t now) {
    Exposition page;
    add_daemon(figures, page);
    add_registry(figures, bytes, now, page);
    add_calls(calls, page);
    return page.take();
}

} // namespace velia::server
