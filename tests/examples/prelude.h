/* What the examples at the top of the headers take for granted. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <support/imsg.h>
#include <support/llist.h>
#include <support/stg.h>
#include <support/tbs.h>
#include <support/xdr_prims.h>
#include <veliaxdr/sched_jobs.h>

typedef struct entry {
    int count;
    llist_d_elem_t element;
} entry_t;

extern const imsg_table_t my_table;

void consume(int unused, ...);
#define use(...) consume(0, __VA_ARGS__)
#define note use
#define ask use
void work(void);
void release_what_is_held(void);
void close_idle(void *argument);
void take_request(void *argument);
