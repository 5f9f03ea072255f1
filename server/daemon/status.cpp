#include <server/daemon/status.h>

#include <array>
#include <sstream>
#include <sys/stat.h>

#include <support/sysutl.h>
#include <veliaxdr/libveliaxdr.h>

namespace velia::server {

namespace {

uint64_t bytes_of(const std::string &file_name) {
    struct stat status = {};
    return stat(file_name.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

} // namespace

std::string version_text() {
    std::array<char, LIBVELIAXDR_VERID_SIZE> line = {};
    if (libveliaxdr_sprintf_verid(line.data()) < 0)
        return "";
    std::string text;
    std::istringstream words(line.data());
    for (std::string word; words >> word;)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

RegistryBytes registry_bytes(const RegistryService::Standing &registry) {
    if (is_registry_shared())
        return {registry.size_bytes, 0};
    return {bytes_of(registry_file()), bytes_of(registry_file() + "-wal")};
}

std::vector<ServedProcedure> StatusProcedures::rows() {
    return {serve<procedures::daemon_status, &StatusProcedures::status>(*this)};
}

tbs_status_t StatusProcedures::status(const rvzd_daemon_status_req_t & /*request*/, const Caller & /*caller*/,
                                      Reply<rvzd_daemon_status_reply_t> &reply) {
    const DaemonFigures figures = figures_();
    auto &record = reply.record;
    record.version = reply.arena.text(version_text());
    record.host = reply.arena.text(sysutl_myhostname());
    record.now = time(nullptr);
    record.started = figures.started;
    record.connections = figures.connections;
    record.connections_max = figures.connections_max;
    record.services = figures.services;
    record.servers = figures.servers;
    record.servers_busy = figures.servers_busy;
    record.registry_entries = figures.registry.entries;
    const RegistryBytes bytes = registry_bytes(figures.registry);
    record.registry_bytes = bytes.file;
    record.registry_log_bytes = bytes.log;
    auto &rows = reply.arena.keep(std::vector<rvzd_procedure_figures_t>());
    for (const auto &row : calls_.rows())
        if (rows.size() < RVZD_DAEMON_PROCEDURES_MAX)
            rows.push_back({row.procedure, row.calls, row.median_us, row.p99_us});
    record.count = static_cast<uint32_t>(rows.size());
    record.procedures = rows.data();
    return TBS_ST_OK;
}

} // namespace velia::server
