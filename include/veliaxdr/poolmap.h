/*
 * Pool maps: how a client reaches the storage pools of a vault, which live under another path on the host that serves
 * them. A map is pairs of a prefix and a target, "prefix=target|prefix=target", as the option "poolmap" of a vault's
 * mount options holds it.
 *
 *     char map[] = "/vaults/=/net/pluto/vaults/|/old/=/net/moon/old/", reached[1024];
 *     size_t pairs;
 *     poolmap_elem_t *prefixes, *targets;
 *     if (poolmap_crack_mapstring(map, area, &pairs, &prefixes, &targets) == TBS_ST_OK &&
 *         poolmap_translate_pathname(path, pairs, prefixes, targets, sizeof reached, reached) == TBS_ST_OK)
 *         puts(reached[0] != '\0' ? reached : path);
 *
 * Text and memory only: nothing here blocks or asks the network. All operations may be called from any thread; a map
 * text, and an area, belong to one thread at a time. Cracking uses the thread's strutl_tokenize, so a caller's own
 * tokens in progress are lost.
 */
#ifndef VELIAXDR_POOLMAP_H
#define VELIAXDR_POOLMAP_H

#include <stddef.h>
#include <stdint.h>

#include <support/imsg.h>
#include <support/stg.h>
#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The message table of this module. */
extern const imsg_table_t _poolmap_rvzd_msg_table;

enum {
    POOLMAP_MSG_INVALID_TRANSLATION = 0,
    POOLMAP_MSG_TRANSLATION_MUST_END = 1,
    POOLMAP_MSG_INVALID_PREFIX = 2,
    POOLMAP_MSG_INVALID_TARGET = 3,
    POOLMAP_MSG_INVALID_OPTION = 5,
};

/* A prefix or a target of a cracked map, in the area that was given for it. */
typedef struct poolmap_elem {
    char *text;
    uint64_t length;
    uint64_t size; /* length + 1 */
} poolmap_elem_t;

/* A prefix of this length or more matches no pathname. */
enum { POOLMAP_PREFIX_MAX = 1024 };

/*
 * Crack a map text into two arrays of *count elements each, taken with their texts from `area`, where they stay until
 * the area is deleted; with STG_HEAP_AREA every text and both arrays are the caller's to free. The text is cut up in
 * place, so it cannot be cracked twice. Empty pairs ("a/=b/||c/=d/") are passed over; a null or empty text has none. A
 * pair is cut at its first "="; further ones belong to the target.
 *
 * With `check_slashes`, as poolmap_crack_mapstring has it, prefix and target must both end in "/"; without it they
 * must not be empty. What is wrong is printed as message 5 (no "=", with the pair), 2 (the prefix) or 3 (the target) of
 * _poolmap_rvzd_msg_table.
 *
 * The outs are written on TBS_ST_OK only. What was taken from the area before a failure stays in it.
 *
 *   TBS_ST_INVALID_ARG  a pair is wrong, printed
 *   TBS_ST_NO_MEMORY    no storage, nothing printed
 */
tbs_status_t poolmap_crack_mapstring_and_check(char *map_text, stg_area_t area, tbs_boolean_t check_slashes,
                                               size_t *count, poolmap_elem_t **prefixes, poolmap_elem_t **targets);
tbs_status_t poolmap_crack_mapstring(char *map_text, stg_area_t area, size_t *count, poolmap_elem_t **prefixes,
                                     poolmap_elem_t **targets);

/*
 * Cracks the map that a vault's mount options hold, "ro,poolmap=/a/=/b/", with the slashes checked; the text is cut up
 * in place. TBS_ST_OK with no pairs and null arrays if there is no such option, if it has no value, or if the options
 * cannot be read by rgy_find_attrval, which takes no name and no value of 1,024 characters or more. Otherwise as above.
 */
tbs_status_t poolmap_crack_mntopts(char *mount_options, stg_area_t area, size_t *count, poolmap_elem_t **prefixes,
                                   poolmap_elem_t **targets);

/*
 * Writes `path` with the first prefix of the map that it begins with replaced by its target to `buffer` of `size`
 * bytes, which does not overlap the path; the empty text if it begins with none. Prefixes are compared by
 * fileutl_pname_equal. Prints nothing.
 *
 *   TBS_ST_NAME_TOO_LONG  the result does not fit, and the buffer holds the empty text; also for a size of 0
 *   TBS_ST_INVALID_ARG    the path or the buffer is null
 */
tbs_status_t poolmap_translate_pathname(const char *path, size_t count, const poolmap_elem_t *prefixes,
                                        const poolmap_elem_t *targets, size_t size, char *buffer);

/*
 * Translates the name of a pool directory, which has no separator at its end and must be a prefix of the map as a
 * whole; the result in `buffer` of `size` bytes has none either, and is empty if no prefix is this name. All pairs are
 * walked in their order, and each sees what the ones before it made of the name: pairs chain. The name may stand in
 * `buffer` itself, which is worked in and must hold the name, and each target on the way, with its separator.
 *
 *   TBS_ST_NAME_TOO_LONG  the name with a separator does not fit (the buffer is empty then; also for a size of 0, where
 *                         nothing is written), or the last target that matched does not (what fits of it is in the
 *                         buffer; logged as an internal error, as is each target that does not fit)
 *   TBS_ST_ERROR          the target has no separator: printed, messages 0 and 1; the target is in the buffer
 *   TBS_ST_INVALID_ARG    the name or the buffer is null
 */
tbs_status_t poolmap_translate_poolname(const char *pool_name, size_t count, const poolmap_elem_t *prefixes,
                                        const poolmap_elem_t *targets, size_t size, char *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
