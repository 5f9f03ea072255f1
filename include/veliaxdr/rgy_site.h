/*
 * Where the registry is, which region this process is in, and the read cache of lookups.
 *
 *     tbs_status_t default_region_of(char region[RGY_REGION_SIZE]) {
 *         rgy_set_process_default_region("lab");
 *         return rgy_fetch_default_region(RGY_REGION_SIZE, region);
 *     }
 *
 * Nothing here touches the network. All operations may be called from any thread.
 */
#ifndef VELIAXDR_RGY_SITE_H
#define VELIAXDR_RGY_SITE_H

#include <stddef.h>
#include <stdint.h>

#include <veliaxdr/rgy_entry.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * For how long a cached answer is good, in seconds: by itself (5), and as long as younger answers from the same server
 * state keep coming (60 without one, and the cache is thrown away). To be changed while no other thread uses the
 * registry.
 */
extern int32_t rgy_cache_ent_lifetime;
extern int32_t rgy_cache_idle_lifetime;

/*
 * Switches the read cache on (non-zero) or off and returns the old setting; it is on at the start. Whatever it held
 * when it was switched off is never used again. Waits for a registry call of another thread.
 */
int32_t rgy_cache_action(int32_t enable);

/*
 * Give the master registry host, from "rgy_hosts.conf", as a new text in *out, which the caller releases with stg_free.
 * The two first arguments are not looked at; callers pass 1 and 0. The file is read once a process, until
 * rgy_hostname_cache_inval. Nothing is printed.
 *
 *   TBS_ST_ERROR        the file cannot be read, or its words are too long
 *   TBS_ST_NO_MEMORY    no storage
 *   TBS_ST_INVALID_ARG  a null `out`
 */
tbs_status_t rgy_get_server_host(int32_t unused1, int32_t unused2, char **out);
tbs_status_t rgy_get_server_host_sil(int32_t unused1, int32_t unused2, char **out);

/* Forgets the master registry host, for those who change the file. Always TBS_ST_OK. */
tbs_status_t rgy_hostname_cache_inval(void);

/*
 * Gives the hosts to try when the master does not answer, as a new text. It is always empty, whatever the file says: a
 * backup is not used without an administrator's word. Statuses as above.
 */
tbs_status_t rgy_get_cached_backup_list(char **out);

/*
 * The default region of this process in *out: of its user's, by the map that IVLWEB_USER_REGION_MAPFILE names, if it is
 * the web interface and there is one; else the first word of "rgy_region.conf", in whose place what
 * rgy_set_process_default_region set stands. The text lives until the same thread asks again. TBS_ST_ERROR if there is
 * no such file, also where a region is set, TBS_ST_INVALID_ARG for a null `out`.
 */
tbs_status_t rgy_get_default_region(const char **out);

/* The same, copied to `buffer` of `size` bytes; TBS_ST_INVALID_ARG for a null buffer, and if it does not fit. */
tbs_status_t rgy_fetch_default_region(size_t size, char *buffer);

/* Sets the default region of this process, null or empty for none. TBS_ST_NO_STORAGE, printed, without storage. */
tbs_status_t rgy_set_process_default_region(const char *region);

/* Whether the region is of the reduced kind, in *out (may be null): always 0, as there is none. Always TBS_ST_OK. */
tbs_status_t rgy_is_slim_region(const char *region, int32_t *out);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
