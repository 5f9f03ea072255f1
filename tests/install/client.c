/* A whole client in C11, as a stranger writes it from the headers. */
#include <stdio.h>

#include <support/imsg.h>
#include <veliaxdr/libveliaxdr.h>
#include <veliaxdr/rvzd_handle.h>

int main(void) {
    char version[LIBVELIAXDR_VERID_SIZE];
    rvzd_handle_t *handle = NULL;
    if (libveliaxdr_sprintf_verid(version) < 0)
        return 1;
    fputs(version, stdout);
    /* Nobody listens in this site: the failure is a status, its words are on standard error. */
    if (rvzd_get_handle("nobody.invalid", &handle) == TBS_ST_OK || handle != NULL)
        return 1;
    puts("no handle");
    return 0;
}
