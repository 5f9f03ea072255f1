// Host information as the broker client keeps it: ten texts that are copied and released one by one.
#pragma once

#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>

namespace velia::rvzd_clnt {

// What a text of a record is, by its place.
inline constexpr char *clnt_hostinfo_t::*hostinfo_texts[] = {
    &clnt_hostinfo_t::hostname,  &clnt_hostinfo_t::product, &clnt_hostinfo_t::version,       &clnt_hostinfo_t::osname,
    &clnt_hostinfo_t::osversion, &clnt_hostinfo_t::machine, &clnt_hostinfo_t::registry_host, &clnt_hostinfo_t::region,
    &clnt_hostinfo_t::reserved,  &clnt_hostinfo_t::options};

// Heap copies of the texts that are there; one for which there is no storage is null.
void copy_hostinfo(const clnt_hostinfo_t &from, clnt_hostinfo_t &to);

// Releases what clnt_list_get_local_hostinfo left to its caller.
void release_local_hostinfo(clnt_hostinfo_t &info);

// The status of a question that a broker may not know.
tbs_status_t status_of_question(clnt_stat outcome, tbs_status_t reply_status);

} // namespace velia::rvzd_clnt
