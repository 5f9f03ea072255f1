// Jobs taken from where they are kept to somewhere else: into a database that several daemons share, or back into this
// host's file.
#pragma once

#include <string>

#include <server/scheduler/job_store.h>

namespace velia::server {

// The file of this host's jobs, whether they are there or not.
std::string jobs_file();

// All that a store has.
JobStock stock_of(JobStore &store);

// From where the daemon has them to the database of this connection string, or with "sqlite" into this host's file.
// What stood in that file is kept beside it, what stood in the database is taken out of it. Tells how many there are.
// Throws StoreError, and then nothing was moved; also where the daemon of another host has told within `take_over_s`
// that it has its jobs in the database.
void move_jobs_of_host(const std::string &to, uint32_t take_over_s);

} // namespace velia::server
