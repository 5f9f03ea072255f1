// The settings as the tests know them: an independent list, in the order of the catalogue.
#pragma once

#include <cstdint>

#include <veliaxdr/rvzd_knob.h>

struct ExpectedKnob {
    uint32_t id;
    const char *name;
    int32_t type;
    const char *knoblets; // D, S, Y, H, U: there; small: declared absent; not in the text: not declared
    const char *range;    // "", "list", ">= n" or "n to m"
    const char *spelled_default;
    const char *description;
};

constexpr ExpectedKnob expected_knobs[] = {
    {1, "view_cache_size", KNOB_INTEGER, "DSyH", ">= 1024000", "4096000",
     "Default size (in bytes) of a new view's cache."},
    {2, "view_shareable_dos", KNOB_BOOLEAN, "DS", "", "TRUE",
     "Default for whether audited builds in new views produce shareable derived objects."},
    {3, "checkout_reserve_policy", KNOB_STRING, "DsyhU", "list", "-reserved",
     "Default for whether checkouts are done reserved or unreserved."},
    {4, "view_interop_text_mode", KNOB_BOOLEAN, "DSyhU", "", "FALSE",
     "Default for whether views will be created in Interoperability (MS-DOS) text mode."},
    {5, "rfm_gui_visibility", KNOB_BOOLEAN, "DS", "", "TRUE",
     "Default for whether the Request for Mastership GUI is visible in NT applets."},
    {6, "checkin_preserve_time", KNOB_BOOLEAN, "DSyhU", "", "FALSE",
     "Default for whether GUI checkins and add to source operations set the ptime (preserve_time) option."},
    {7, "checkout_preserve_time", KNOB_BOOLEAN, "DSyhU", "", "FALSE",
     "Default for whether GUI checkout operations set the ptime (preserve_time) option."},
    {8, "deny_remote_privileged_users", KNOB_BOOLEAN, "DSyhu", "", "FALSE",
     "Default for whether VAULTs are created to block modification by remote privileged users."},
    {9, "fl_vault_max_parallel_replica_imports", KNOB_INTEGER, "DsYHu", ">= 1", "1",
     "Maximum number of parallel Farlink import operations ongoing for a VAULT replica."},
    {10, "fl_vault_max_parallel_host_imports", KNOB_INTEGER, "DsYHu", ">= 1", "1073741824",
     "Maximum number of parallel Farlink VAULT import operations ongoing on one host."},
    {15, "fl_max_parallel_host_exports_unix", KNOB_INTEGER, "DsYHu", ">= 1", "1073741824",
     "Maximum number of parallel Farlink export operations ongoing on one UNIX host."},
    {16, "fl_max_parallel_host_exports_win", KNOB_INTEGER, "DsYHu", ">= 1", "1073741824",
     "Maximum number of parallel Farlink export operations ongoing on one Windows NT host."},
    {11, "fl_vault_max_import_attempts", KNOB_INTEGER, "DsYHu", ">= 1", "3",
     "Maximum number of attempts for a Farlink VAULT import operation."},
    {12, "fl_vault_import_retry_frequency", KNOB_INTEGER, "DsYHu", "0 to 1440", "120",
     "Amount of time, in minutes, between Farlink VAULT import operation retries."},
    {13, "fl_site_name", KNOB_STRING, "DsYhu", "", "", "Name of the Farlink Site"},
    {14, "fl_sync_status_summary_host", KNOB_STRING, "DsYhu", "", "",
     "Name of the sync manager host where high-level sync status information is stored."},
    {17, "fl_vault_believed_state_update_freq", KNOB_INTEGER, "DsYHu", ">= 10", "100",
     "Update frequency, in oplog units, of the believed state of connected synchronization export operations for a "
     "VAULT replica."},
    {18, "fl_vault_sync_status_time_window", KNOB_INTEGER, "DsYHu", "1 to 8760", "168",
     "Time period, in hours, used to check status of last VAULT import/export operation."},
    {19, "fl_vault_partial_sync_job_scrubbing_param", KNOB_INTEGER, "DsYHu", "7 to 365", "14",
     "Time period, in days, following successful job completion, after which job-specific information may be scrubbed "
     "from the Sync Manager database."},
    {20, "fl_vault_complete_sync_job_scrubbing_param", KNOB_INTEGER, "DsYHu", "7 to 365", "90",
     "Time period, in days, after a job completes, that all information pertaining to the job may be scrubbed from the "
     "Sync Manager database."},
    {21, "fl_vault_notify_email", KNOB_STRING, "DsYHu", "", "",
     "Default email notification address for synchronization failures."},
    {22, "fl_dct_max_parallel_host_imports", KNOB_INTEGER, "DsYHu", ">= 1", "1073741824",
     "Maximum number of parallel Farlink DCT import operations ongoing on one host."},
    {23, "fl_dct_max_import_attempts", KNOB_INTEGER, "DsYHu", ">= 1", "3",
     "Maximum number of attempts for a Farlink DCT import operation."},
    {24, "fl_dct_import_retry_frequency", KNOB_INTEGER, "DsYHu", "0 to 1440", "120",
     "Amount of time, in minutes, between Farlink DCT import operation retries."},
    {25, "fl_dct_believed_state_update_freq", KNOB_INTEGER, "DsYHu", ">= 10", "100",
     "Update frequency, in oplog units, of the believed state of connected synchronization export operations for a DCT "
     "replica."},
    {26, "fl_dct_sync_status_time_window", KNOB_INTEGER, "DsYHu", "1 to 8760", "168",
     "Time period, in hours, used to check status of last DCT import/export operation."},
    {27, "fl_dct_partial_sync_job_scrubbing_param", KNOB_INTEGER, "DsYHu", "7 to 365", "14",
     "Time period, in days, following successful job completion, after which job-specific information may be scrubbed "
     "from the Sync Manager database."},
    {28, "fl_dct_complete_sync_job_scrubbing_param", KNOB_INTEGER, "DsYHu", "7 to 365", "90",
     "Time period, in days, after a job completes, that all information pertaining to the job may be scrubbed from the "
     "Sync Manager database."},
    {29, "fl_dct_notify_email", KNOB_STRING, "DsYHu", "", "",
     "Default email notification address for synchronization failures."},
    {30, "lyfs_largeinit", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS largeinit tuning setting"},
    {31, "lyfs_mnmax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS mnode table size"},
    {32, "lyfs_dncdirmax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS name cache size for directories"},
    {33, "lyfs_dncregmax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS name cache size for regular files"},
    {34, "lyfs_dncnoentmax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS name cache size for files not found"},
    {35, "lyfs_vaultfreemax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS VAULT file free list size"},
    {36, "lyfs_cvpfreemax", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS cleartext free list size"},
    {37, "lyfs_client_cache_size", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS client RPC handle cache size"},
    {38, "lyfs_rddir_blocks", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS readdir cache size (per directory)"},
    {39, "lyfs_vaultfreemin", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS VAULT file free list low-water mark"},
    {40, "lyfs_cvpfreemin", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS cleartext file free list low-water mark"},
    {41, "lyfs_nt_age_cvp_time", KNOB_INTEGER, "DsyH", ">= 0", "0",
     "LYFS cleartext file maximum residence time (in seconds)"},
    {42, "lyfs_vaulthashsize", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS VAULT hash table size"},
    {43, "lyfs_cvphashsize", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS cleartext hash table size"},
    {44, "lyfs_dnchashsize", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS name cache hash table size"},
    {45, "lyfs_threadhash_sz", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS threadh hash table size"},
    {46, "lyfs_prochash_sz", KNOB_INTEGER, "DsyH", ">= 0", "0", "LYFS process hash table size"},
    {47, "lyfs_ctxt_atime_refresh", KNOB_INTEGER, "DsyH", ">= 0", "0",
     "LYFS cleartext access time refresh delta (in seconds)"},
    {48, "lyfs_expected_zone_count", KNOB_INTEGER, "DsyH", "0 to 9999", "0", "LYFS expected zone count"},
    {49, "lyfs_acenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS attribute cache enabled"},
    {53, "lyfs_rdcenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS rddir cache enabled"},
    {50, "lyfs_ctoenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS close-to-open attribute verification enabled"},
    {51, "lyfs_dncenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS directory name lookup cache enabled"},
    {52, "lyfs_rlenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS symbolic link cache enabled"},
    {54, "lyfs_rvcenabled", KNOB_BOOLEAN, "DsyH", "", "TRUE", "LYFS root version cache enabled"},
    {55, "checkout_nmaster_policy", KNOB_STRING, "DsyhU", "list", "",
     "Default for whether checkouts are done nmastered or not."},
    {56, "mkelem_master_policy", KNOB_STRING, "DsyhU", "list", "",
     "Default for whether mkelems are done mastered or not."},
    {57, "server_group_lifetime", KNOB_INTEGER, "DsyH", ">= 0", "0",
     "Server group list substitution cache lifetime, in seconds (0 means disabled)"},
};
