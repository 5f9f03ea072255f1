// The tables of jobs in a database.
#pragma once

#include <server/registry/postgres_schema.h>

namespace velia::server {

PostgresSchema job_schema();

} // namespace velia::server
