/* Loaded before the C library: a connection to port 371, which only a privileged process may listen on, goes to the
   port that PROBED_PORT says. */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

typedef int (*connect_t)(int, const struct sockaddr *, socklen_t);

int connect(int fd, const struct sockaddr *address, socklen_t size) {
    const char *other = getenv("PROBED_PORT");
    struct sockaddr_storage changed;
    struct sockaddr_in *ipv4 = (struct sockaddr_in *)&changed;
    const int is_changed = other != NULL && address->sa_family == AF_INET && size <= sizeof changed;
    if (is_changed) {
        memcpy(&changed, address, size);
        if (ipv4->sin_port == htons(371))
            ipv4->sin_port = htons((in_port_t)atoi(other));
    }
    connect_t real;
    *(void **)&real = dlsym(RTLD_NEXT, "connect");
    return real(fd, is_changed ? (const struct sockaddr *)&changed : address, size);
}
