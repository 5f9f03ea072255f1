/*
 * This host's relation to the registry, in the text files of its host configuration directory: "rgy_svr.conf" holds its
 * server type, "rgy_hosts.conf" the master registry host and its backup, "rgy_region.conf" the default region and a
 * second name. A fourth file, anywhere, maps users to regions.
 *
 *     void print_registry_host(void) {
 *         char master[64], backup[64];
 *         size_t length;
 *         if (registry_prop_get_hostnames_local(sizeof master, sizeof backup, &length, &length, master, backup) ==
 *             TBS_ST_OK)
 *             printf("%s, then %s\n", master, backup);
 *     }
 *
 * Files only, no network. What stands in the place of a file but is none, such as a pipe, is never waited for. All
 * operations may be called from any thread. A file that is replaced keeps its former
 * version under its name with ".old" behind it, and a reader sees the one or the other; a change of the server type
 * rewrites its file in place.
 */
#ifndef VELIAXDR_RGY_LOCAL_H
#define VELIAXDR_RGY_LOCAL_H

#include <stddef.h>
#include <stdint.h>

#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What a host is as a registry server. */
enum {
    RGY_SVR_NONE = 0,
    RGY_SVR_MASTER = 1,
    RGY_SVR_SLAVE = 2,
    RGY_SVR_BACKUP = 3,
    RGY_SVR_STANDBY = 4,
};

/* The types and their texts; the row behind the last has a null text. */
typedef struct rgy_svrtype {
    const char *text;
    int32_t value;
} rgy_svrtype_t;
extern const rgy_svrtype_t rgy_svrtype_table[6];

/*
 * The word in the file of the server type as a new text of 32 bytes, released with free; "" if there is none, and null
 * without storage. A file that is there but cannot be opened for reading and writing prints message 11 of
 * _registry_rvzd_msg_table, one without a word message 12. What is no regular file, or has more than 1 MiB, is not read
 * or waited for, and is message 11 with the reason behind it.
 */
char *rgy_get_svr_type_str(void);

/* The type; RGY_SVR_NONE for a word that is no type's text, and for every failure. Prints as above. */
int32_t rgy_get_svr_type(void);

/*
 * Writes the type's text to its file and prints message 16. TBS_ST_NOT_FOUND for what is no type; a file that cannot be
 * written prints message 12 and gives the status of the system's error.
 */
tbs_status_t rgy_set_svr_type(int32_t type);

/*
 * Makes `text` the contents of the configuration file `path`: written to "path.new" and put on disk, which then takes
 * the place of the file, so that a reader sees the one or the other. What stood there stays as "path.old", in place of
 * what that was. TBS_ST_ERROR, printed, with the file as it was, if the path is longer than 1019 characters or the new
 * file cannot be written or put in place; also, with nothing printed, for a null argument. A ".old" that cannot be made
 * is no failure.
 */
tbs_status_t write_file(const char *path, const char *text);

/*
 * Writes `path` with ".old" behind it, which is where write_file keeps the former file, to `out`, a buffer of
 * TBS_PATH_SIZE (1024) bytes. TBS_ST_ERROR if that does not fit, or for a null argument.
 */
tbs_status_t generate_backup_pathname(const char *path, char *out);

/* The path of the hosts file; a static text that never changes. */
const char *registry_configuration_pathname(void);

/*
 * Read the two words of the hosts file and of the region file. Sizes are those of the buffers; the lengths include the
 * terminators and may be null. A word that is not there reads as empty. The process's default region stands in for the
 * first word of the region file. TBS_ST_ERROR, with nothing copied, for a file that cannot be read, and for a word that
 * does not fit its buffer or is longer than 63 characters (regions: 47). A file that is not a regular one, or has more
 * than 1 MiB, cannot be read, and the support layer prints that as an error.
 */
tbs_status_t registry_prop_get_hostnames_local(size_t size1, size_t size2, size_t *length1, size_t *length2,
                                               char *buffer1, char *buffer2);
tbs_status_t registry_prop_get_region_names_local(size_t size1, size_t size2, size_t *length1, size_t *length2,
                                                  char *buffer1, char *buffer2);

/*
 * Replace the two files, keeping the former one as ".old". The lengths are not looked at; a null text is empty.
 * TBS_ST_ERROR, with the file as it was, when the new one cannot be put in place, which is printed.
 */
tbs_status_t registry_prop_set_hostnames_local(size_t length1, size_t length2, const char *host1, const char *host2);
tbs_status_t registry_prop_set_region_names_local(size_t length1, size_t length2, const char *name1, const char *name2);

/*
 * Sets the region that takes the place of the region file's first word in this process; null or empty clears it.
 * TBS_ST_NO_STORAGE, printed, without storage: then there is none.
 */
tbs_status_t registry_prop_set_process_default_region_local(const char *region);

/*
 * 1 if `pattern` names the user `user`, else 0. Either may have a domain in front of the name ("sales\marian"), of at
 * most 255 bytes as the name. True if `user` begins with `pattern`; or if the name in `pattern` begins with the name in
 * `user` and its domain, if it has one, with the domain of `user`. So a pattern without a domain fits a user of any.
 */
int32_t username_match(const char *user, const char *pattern);

/*
 * The region of this process's user by the map in the file `map_path`, copied to `buffer` of `size` bytes. The map is a
 * series of blocks: a region's name of at most 32 characters, its members, and a "}"; blanks, "=" and "{" separate, "#"
 * starts a comment. A member is a user, "group:" with a group behind it, or "%DEFAULT%". The user's block counts before
 * the group's, and that before the default's; of several blocks for a user the first counts, of those for a group or
 * the default the last.
 *
 * TBS_ST_ERROR if no block is for this user, for a malformed map (a "}" where a region should stand, a line of more
 * than 1,022 characters, a longer region), one that cannot be read, and a region that does not fit the buffer. Nothing
 * is printed, unless the map is not a regular file or has more than 16 MiB: that is an error. May ask the system's user
 * database.
 */
tbs_status_t registry_prop_get_user_region(const char *map_path, size_t size, char *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
