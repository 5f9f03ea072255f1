/* Loaded before the C library: as long as the file that USERS_HELD_BY names is there, nobody learns anything of the
   system's users. */
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

static void wait_for_users(void) {
    const char *file = getenv("USERS_HELD_BY");
    while (file != NULL && access(file, F_OK) == 0)
        usleep(1000);
}

#define HELD(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                                      \
    RESULT NAME PARAMETERS {                                                                                           \
        RESULT(*function) PARAMETERS;                                                                                  \
        wait_for_users();                                                                                              \
        *(void **)&function = dlsym(RTLD_NEXT, #NAME);                                                                 \
        return function ARGUMENTS;                                                                                     \
    }

HELD(struct passwd *, getpwuid, (uid_t user), (user))
HELD(struct passwd *, getpwnam, (const char *name), (name))
HELD(int, getpwuid_r, (uid_t user, struct passwd *entry, char *texts, size_t size, struct passwd **found),
     (user, entry, texts, size, found))
HELD(int, getpwnam_r, (const char *name, struct passwd *entry, char *texts, size_t size, struct passwd **found),
     (name, entry, texts, size, found))

/* And everybody is in the group that USERS_GROUP names, too. */
int getgrouplist(const char *user, gid_t group, gid_t *groups, int *count) {
    int (*function)(const char *, gid_t, gid_t *, int *);
    const char *further = getenv("USERS_GROUP");
    const int room = *count;
    wait_for_users();
    *(void **)&function = dlsym(RTLD_NEXT, "getgrouplist");
    int found = function(user, group, groups, count);
    if (further == NULL)
        return found;
    ++*count;
    if (found < 0 || *count > room)
        return -1;
    groups[*count - 1] = (gid_t)atoi(further);
    return *count;
}
