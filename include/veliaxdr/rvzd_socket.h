/*
 * Sockets, port rules, and the run-time parameters that the whole suite shares.
 *
 *     rvzd_socket_desc_t desc;
 *     uint32_t count;
 *     if (rvzd_alloc_sockets(SOCK_STREAM, 1, program, &desc, &count) == TBS_ST_OK)
 *         listen(desc.fd, 16);
 */
#ifndef VELIAXDR_RVZD_SOCKET_H
#define VELIAXDR_RVZD_SOCKET_H

#include <stdint.h>
#include <sys/socket.h>

#include <support/sysutl.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* One allocated or inherited socket. */
typedef struct rvzd_socket_desc {
    int32_t fd; /* -1 while unset */
    ks_sockaddr_storage_t addr;
    rvzd_protocol_in_t protocol;
} rvzd_socket_desc_t;

/* Names of the transports by rvzd_protocol_in_t: null, "udp", "tcp". */
enum { RVZD_PROTOCOL_NAMES_COUNT = 3 };
extern const char *const rvzd_protocol_names[RVZD_PROTOCOL_NAMES_COUNT];

/* Programs with port rules, beside RVZD_GENERIC_SERVICE_PROGRAM. */
enum { RVZD_IVLADM_PROGRAM = 390523, RVZD_FLADM_PROGRAM = 390529 };

/* Index of a run-time parameter. */
enum {
    RVZD_RT_TCP_RCV_BUF_SZ = 0,
    RVZD_RT_UDP_RCV_BUF_SZ,
    RVZD_RT_RGY_FLUSH_INTERVAL,
    RVZD_RT_IDLE_SLOPE,
    RVZD_RT_IVLADM_SVR_PORT,
    RVZD_RT_FLADM_SVR_PORT,
    RVZD_RT_FLSHP_MIN_PORT,
    RVZD_RT_FLSHP_MAX_PORT,
    RVZD_RT_FLSHP_STRICT,
    RVZD_RT_IRONVALE_VIEW_UDP_BUFFER_SIZE,
    RVZD_RT_SUPPRESS_LONG_LIVED_VAULTRPC_SERVERS,
    RVZD_RT_IRONVALE_VIEW_RDDIR_CACHE_PERCENT,
    RVZD_RT_MAX_RGY_WORKER_THREADS,
    RVZD_RT_PARAM_COUNT,
};

/*
 * The broker's port, in network order, the same for all hosts of a site and kept for the life of the process: 371 if
 * the host has the marker file ".rvzd_well_known_port", else the service entry "rvzd", else "ironvale", else 371 with a
 * warning. A look-up that fails, for want of memory or descriptors, is not kept: the next call asks again. `host` and
 * `family` are not used. Always TBS_ST_OK.
 */
tbs_status_t rvzd_get_port(const char *host, uint16_t *port, int family);

/*
 * A socket for a server of `program`, IPv6 if it can be had, else IPv4; `use_range` non-zero applies the program's port
 * rule. *count is 1, or 0 with TBS_ST_ERROR and a message. `desc` holds at least one descriptor.
 */
tbs_status_t rvzd_alloc_sockets(int socket_type, int use_range, uint64_t program, rvzd_socket_desc_t *desc,
                                uint32_t *count);

/*
 * Binds the socket to `address` (`length` bytes), or, with `use_range` and a rule for `program`, to the first port of
 * the range that can be had; the address then holds the port tried last. TBS_ST_NO_PORT: the range is exhausted or
 * inverted, printed. TBS_ST_ERROR: the bind failed, printed if `report` is set.
 */
tbs_status_t rvzd_bindport(int fd, struct sockaddr *address, socklen_t length, uint64_t program, int use_range,
                           int report);

/* 1 and the range, in host order, if a port rule applies to `program`, else 0 and nothing of use. */
int rvzd_bindport_has_port_range(uint64_t program, uint16_t *low, uint16_t *high, int32_t *strict);

/* Prints one line about a socket at severity 0. */
void rvzd_print_socket_info(const rvzd_socket_desc_t *desc);

/*
 * Value of a run-time parameter from "services/rvzd_rt_params.conf"; the file is read at each call. The first line that
 * holds the key, in whatever word, decides; "#" begins a comment; a line without a newline at the end of the file is
 * not seen; one of more than 255 bytes counts as several. *value is 0 unless the result is TBS_ST_OK. TBS_ST_NOT_SET:
 * no file or no such key. TBS_ST_ERROR: no such parameter, or no number behind the key. A file that is not a regular
 * one, or has more than 1 MiB, is none, which is printed as an error; the call never waits for it.
 */
tbs_status_t rvzd_get_rt_param(uint32_t index, int32_t *value);

/* The broker's service name, protocol name, marker file name and well-known port (host order). Constants. */
void rvzdsvr_get_server_socket(const char **service, const char **protocol, const char **file, uint16_t *port);

/* 0: this build has no reduced edition. */
int rvzdsvr_get_server_type(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
