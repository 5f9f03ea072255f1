#include <tests/unit/job_store/job_store_fixture.h>

#include <cstdlib>

#include <server/scheduler/shared_job_store.h>
#include <server/scheduler/xdr_bytes.h>
#include <tests/postgres/server.h>
#include <veliaxdr/sched_wire.h>

namespace velia::server {

namespace {

class PostgresPlace : public JobStorePlace {
public:
    std::unique_ptr<JobStore> open() override { return open_postgres_job_store(conninfo_, "alpha"); }

private:
    const std::string conninfo_ = new_jobs_conninfo();
};

} // namespace

SqliteJobStorePlace::SqliteJobStorePlace() {
    std::string name = (std::filesystem::temp_directory_path() / "velia-jobs-XXXXXX").string();
    directory_ = mkdtemp(name.data());
}

SqliteJobStorePlace::~SqliteJobStorePlace() {
    std::filesystem::remove_all(directory_);
}

std::string new_jobs_conninfo() {
    static int number = 0;
    const std::string schema = "jobs" + std::to_string(++number);
    postgres_test::server().run("CREATE SCHEMA " + schema);
    return postgres_test::server().conninfo() + "options='-c search_path=" + schema + "'";
}

std::string body_of(const std::string &name, sched_job_id_t follows) {
    sched_job_utc_rw_props_t props = {};
    props.rw.name = const_cast<char *>(name.c_str());
    props.rw.description = props.rw.name;
    props.rw.task = 1;
    props.rw.schedule.kind = SCHED_KIND_DAILY;
    props.rw.schedule.u.daily.frequency = 1;
    if (follows != 0) {
        props.rw.schedule = {};
        props.rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        props.rw.schedule.u.sequential.follows_job = follows;
    }
    return xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
}

std::vector<JobStoreKind> job_store_kinds() {
    return {{"Sqlite", [] { return std::make_unique<SqliteJobStorePlace>(); }},
            {"Postgres", [] { return std::make_unique<PostgresPlace>(); }}};
}

} // namespace velia::server
