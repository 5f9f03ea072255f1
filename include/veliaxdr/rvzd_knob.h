/*
 * The settings of the suite ("knobs"): 57 named and typed values, each with a default, and with places where a site, a
 * host or a user keeps another ("knoblets").
 *
 *     int32_t lifetime_s(void) {
 *         uint32_t id;
 *         int32_t seconds;
 *         if (rvzd_knob_id_by_name("server_group_lifetime", &id) != TBS_ST_OK)
 *             return 0;
 *         return rvzd_knob_get_integer(id, NULL, &seconds) == TBS_ST_OK ? seconds : 0;
 *     }
 *
 * The value in force is that of the first place that holds one, in this order: the user's profile, the host's file, the
 * site's registry (as a setting of synchronisation, or a general one), the default. A place that cannot be read is an
 * error and not the next place's turn, and so is a value that does not fit the setting's type. Nothing is kept: every
 * read asks the places anew. Only writes are checked against the range.
 *
 * Every place holds a text, the value's spelling. Booleans are "TRUE" and "FALSE" in any case. An integer is decimal,
 * has 32 bits, and may end in k, m or g for 1024, its square and its cube, as the support layer reads sizes; such a
 * suffix is stored as it was spelled. A string is itself.
 *
 * A site's value is an entry of site_config with the setting's name and value. view_cache_size has a second entry
 * besides, in an old form that has another item alone. Of several entries the first counts, which is printed as message
 * 131, a warning. An entry that has neither name nor old form is nobody's and is passed over, and values of others'
 * entries are not looked at; the setting's own entry without a value is as none. A text of RGY_ITEM_TEXT_SIZE bytes is
 * a failure: in a value of the setting's own, and in any entry's name. A registry that cannot be found or does not
 * answer is a failure, never "no value". A write replaces the entries, in between which there is none, ten times at
 * most when others change the database meanwhile; one that finds an entry gone which it was about to remove fails. It
 * is not atomic: a value that the entry layer refuses (1,024 bytes, ";", a line feed) is refused after the old ones are
 * gone.
 *
 * A host's value is the first line of the file of that name in the host configuration directory; settings of the file
 * system have theirs in "lyfsconfig" in the host data directory, or in what lyfs_get_host_config_dir names below it. A
 * line of more than 1,023 bytes counts with its first 1,023. A file that cannot be opened is as none; an empty one, and
 * what is no regular file, is an error (TBS_ST_ERROR; the second also printed). It is rewritten in place, and what is
 * no regular file is not written.
 *
 * A user's value is what the user's profile gives to certain commands. It cannot be written.
 *
 * Messages are those of _rvzd_knob_rvzd_msg_table at severity 6, unless told otherwise. `host` is the registry host of
 * site values, null for the configured one; other places ignore it. An `id` is 1 to 57 (else message 1), a `kind` 0
 * to 4. Out arguments must not be null; a null text is an invalid value. Any thread may call. One lock is held
 * throughout, and site values block for a host's time-out (25 seconds) in each step, for all threads that read
 * settings.
 *
 * Statuses of all operations that have an id, beside their own:
 *
 *   TBS_ST_ERROR        no such id, the wrong type (5), a kind that its row says nothing of (4) or says no to (10)
 *   TBS_ST_INVALID_ARG  no value of the type, or too long for the buffer (8); out of range (13 to 18)
 *   TBS_ST_NO_MEMORY    no storage
 *   else                what the registry says; for a host's file the status of the errno value
 */
#ifndef VELIAXDR_RVZD_KNOB_H
#define VELIAXDR_RVZD_KNOB_H

#include <stddef.h>
#include <stdint.h>

#include <support/imsg.h>
#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The message table of the settings, names and descriptions included. */
extern const imsg_table_t _rvzd_knob_rvzd_msg_table;

/* Positions that are printed; each names the arguments of its text. */
enum {
    KNOB_MSG_INVALID_ID = 1,          /* id */
    KNOB_MSG_NO_SUCH_KNOB = 2,        /* id */
    KNOB_MSG_INVALID_KNOBLET = 4,     /* name, kind */
    KNOB_MSG_INCORRECT_TYPE = 5,      /* name */
    KNOB_MSG_NO_DEFAULT = 6,          /* name */
    KNOB_MSG_UNKNOWN_KIND = 7,        /* kind */
    KNOB_MSG_INVALID_VALUE = 8,       /* text, name, type */
    KNOB_MSG_INVALID_TYPE = 9,        /* name, type */
    KNOB_MSG_NO_SUCH_KNOBLET = 10,    /* name, kind */
    KNOB_MSG_DEFAULT_UPDATED = 11,    /* name */
    KNOB_MSG_NO_TEMPLATE = 12,        /* name */
    KNOB_MSG_NONZERO = 13,            /* name, value */
    KNOB_MSG_NONNEGATIVE = 14,        /* name, value */
    KNOB_MSG_MINIMUM = 15,            /* name, bound, value */
    KNOB_MSG_MAXIMUM = 16,            /* name, bound, value */
    KNOB_MSG_BETWEEN = 17,            /* name, bound, bound, value */
    KNOB_MSG_LIST = 18,               /* name, list, value */
    KNOB_MSG_DUPLICATE_ENTRIES = 131, /* name */
};

enum { RVZD_KNOB_ID_MAX = 57 };

/* Size of a buffer that every value fits, the terminator included. */
enum { RVZD_KNOB_TEXT_SIZE = 1024 };

/* Settings that programs of the suite ask for by their id. */
enum { RVZD_KNOB_VIEW_CACHE_SIZE = 1, RVZD_KNOB_SERVER_GROUP_LIFETIME = 57 };

typedef int32_t rvzd_knob_type_t;
enum { KNOB_BOOLEAN = 0, KNOB_INTEGER = 1, KNOB_STRING = 2 };

/* The two kinds of site behave alike; no setting has both. */
typedef int32_t rvzd_knoblet_kind_t;
enum {
    KNOBLET_DEFAULT = 0,
    KNOBLET_SITE = 1,
    KNOBLET_SYNC_SITE = 2,
    KNOBLET_HOST = 3,
    KNOBLET_USER = 4,
    KNOBLET_KIND_COUNT = 5,
};

/* Name and description lend texts that live as long as the process. */
tbs_status_t rvzd_knob_name(uint32_t id, const char **name);
tbs_status_t rvzd_knob_description(uint32_t id, const char **text);
tbs_status_t rvzd_knob_type(uint32_t id, rvzd_knob_type_t *type);

/*
 * The id of a name, compared without case; the second form wants a setting that has a knoblet of this kind.
 * TBS_ST_NOT_FOUND without a message, and then the first has stored 0 and the second nothing.
 */
tbs_status_t rvzd_knob_id_by_name(const char *name, uint32_t *id);
tbs_status_t rvzd_knob_id_by_name_and_knoblet(const char *name, rvzd_knoblet_kind_t kind, uint32_t *id);

/*
 * Enumeration, in an order of the catalogue's own: begin with a cursor of 0 and go on with what is returned; 0, with an
 * id of 0, is the end, and so is every cursor beyond it. The second form visits only settings with a knoblet of this
 * kind.
 */
int32_t rvzd_knob_next(int32_t cursor, uint32_t *id);
int32_t rvzd_knob_next_with_knoblet(rvzd_knoblet_kind_t kind, int32_t cursor, uint32_t *id);

/*
 * The value in force. Strings go to `buffer` of `size` bytes, of which rvzd_knob_get_value_spelling, which takes
 * strings only, clears the first one in any case. Of an integer that does not fit 32 bits the lower ones are stored
 * with the error.
 */
tbs_status_t rvzd_knob_get_boolean(uint32_t id, const char *host, tbs_boolean_t *value);
tbs_status_t rvzd_knob_get_integer(uint32_t id, const char *host, int32_t *value);
tbs_status_t rvzd_knob_get_string(uint32_t id, const char *host, size_t size, char *buffer);
tbs_status_t rvzd_knob_get_value_spelling(uint32_t id, const char *host, size_t size, char *buffer);

/*
 * The value of one knoblet. *found is 1 with TBS_ST_OK if it holds one, else 0, also for every failure. The last takes
 * a setting of any type.
 */
tbs_status_t rvzd_knoblet_get_boolean(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                      tbs_boolean_t *value);
tbs_status_t rvzd_knoblet_get_integer(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                      int32_t *value);
tbs_status_t rvzd_knoblet_get_string(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                     size_t size, char *buffer);
tbs_status_t rvzd_knoblet_get_value_spelling(uint32_t id, rvzd_knoblet_kind_t kind, const char *host,
                                             tbs_boolean_t *found, size_t size, char *buffer);

/*
 * Write one knoblet. A boolean becomes "TRUE" or "FALSE", an integer decimal digits; a text is stored as it is, also by
 * the last, which takes a setting of any type and looks at type and range only: whether the setting has such a
 * knoblet is not tested, but where its row says nothing of the kind it counts as the default. The default is never
 * written (TBS_ST_ERROR, message 11), nor the user's (TBS_ST_ERROR, no message).
 *
 *   TBS_ST_STALE_ID  others changed the site's settings ten times meanwhile
 */
tbs_status_t rvzd_knoblet_set_boolean(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t value);
tbs_status_t rvzd_knoblet_set_integer(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, int32_t value);
tbs_status_t rvzd_knoblet_set_string(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, const char *text);
tbs_status_t rvzd_knoblet_set_value_from_spelling(uint32_t id, rvzd_knoblet_kind_t kind, const char *host,
                                                  const char *text);

/*
 * Takes the value away; kinds are tested as by the last. A host without the file is told as TBS_ST_NOT_SET, a site
 * without the entry is no failure.
 */
tbs_status_t rvzd_knoblet_unset_value(uint32_t id, rvzd_knoblet_kind_t kind, const char *host);

/* TBS_ST_OK for a value within the range, and for a setting without one, whatever its type. Nothing is read. */
tbs_status_t rvzd_knob_range_check_boolean(uint32_t id, tbs_boolean_t value);
tbs_status_t rvzd_knob_range_check_integer(uint32_t id, int32_t value);
tbs_status_t rvzd_knob_range_check_string(uint32_t id, const char *text);

/* Removes the host's value, as rvzd_knoblet_unset_value. */
tbs_status_t adm_host_knoblet_set_install_default(uint32_t id, const char *host);

/* TBS_ST_NOT_FOUND, whatever is asked: an installation has no defaults of its own. Nothing is stored. */
tbs_status_t adm_host_knoblet_get_install_default_boolean(uint32_t id, const char *host, tbs_boolean_t *value);
tbs_status_t adm_host_knoblet_get_install_default_integer(uint32_t id, const char *host, int32_t *value);

/* What is allowed, of the catalogue's constants. A bound that the setting does not have is INT32_MIN or INT32_MAX. */
typedef struct rvzd_knob_bounds {
    int32_t minimum;
    int32_t maximum;
    const char *list; /* of the spellings of a string, between commas; null: any text */
} rvzd_knob_range_t;
tbs_status_t rvzd_knob_range(uint32_t id, rvzd_knob_range_t *range);

/*
 * Where a knoblet keeps its value, for people: the path of the host's file, the number of the entry that counts in the
 * site's database (asks the registry), the template by which the profile is asked; empty for the default. Fails as the
 * reading of the knoblet does, and with TBS_ST_NOT_FOUND where the site has no entry.
 */
tbs_status_t rvzd_knoblet_origin(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, size_t size, char *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
