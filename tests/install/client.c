/* A whole client in C11, as a stranger writes it from the headers. */
#include <stdio.h>
#include <stdlib.h>

#include <support/imsg.h>
#include <veliaxdr/libveliaxdr.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_handle.h>

/* A function of the library has this plain name, too. The library does not call this one in its place. */
tbs_status_t write_file(const char *path, const char *text) {
    fprintf(stderr, "write_file of the program was called for %s: %s", path, text);
    abort();
}

int main(void) {
    char version[LIBVELIAXDR_VERID_SIZE];
    rvzd_handle_t *handle = NULL;
    if (libveliaxdr_sprintf_verid(version) < 0)
        return 1;
    fputs(version, stdout);
    /* Nobody listens in this site: the failure is a status, its words are on standard error. */
    if (rvzd_get_handle("nobody.invalid", &handle) == TBS_ST_OK || handle != NULL)
        return 1;
    if (rgy_clnt_conf_change(RGY_CONF_SET_HOST, "nowhere") != TBS_ST_OK)
        return 1;
    puts("no handle");
    return 0;
}
