/* Loaded before the C library: while the file that NAMES_HANG names is there, whoever asks for the addresses of a host
   whose name begins with "hung" waits, as for a name server that does not answer. */
#include <dlfcn.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef int (*getaddrinfo_t)(const char *, const char *, const struct addrinfo *, struct addrinfo **);

int getaddrinfo(const char *node, const char *service, const struct addrinfo *hints, struct addrinfo **found) {
    const char *file = getenv("NAMES_HANG");
    const int is_hung = file != NULL && node != NULL && strncmp(node, "hung", 4) == 0;
    while (is_hung && access(file, F_OK) == 0)
        usleep(10000);
    getaddrinfo_t real;
    *(void **)&real = dlsym(RTLD_NEXT, "getaddrinfo");
    return real(is_hung ? "127.0.0.1" : node, service, hints, found);
}
