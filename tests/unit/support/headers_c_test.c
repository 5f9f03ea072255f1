/* Every public header is C11, alone and together with the others, in any order. */
#include <support/xdr_prims.h>

#include <support/clp.h>
#include <support/credmap.h>
#include <support/credutl.h>
#include <support/date.h>
#include <support/env.h>
#include <support/fileutl.h>
#include <support/hash.h>
#include <support/imsg.h>
#include <support/ivlthread.h>
#include <support/ks.h>
#include <support/llist.h>
#include <support/pfm.h>
#include <support/rt.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <support/sysutl.h>
#include <support/tbs.h>
#include <support/tbs_acl.h>

/* Used from C as a C program would. */
int headers_test_roundtrip(const char *text, int64_t *number);

int headers_test_roundtrip(const char *text, int64_t *number) {
    static ivlthread_mutex_t lock;
    stg_area_t area = stg_create_area(64);
    char *copy = stg_area_strdup(area, text);
    ivlthread_mutex_lock(&lock);
    int result = strutl_kstr_or_str_to_long(copy, number, 1);
    ivlthread_mutex_unlock(&lock);
    stg_delete_area(&area);
    return result;
}
