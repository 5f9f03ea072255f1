/*
 * Is anybody there? A quick question to a host, before its broker is asked in earnest.
 *
 *     if (!rvzd_nonblock_connect_ping("build7"))
 *         printf("build7 is down\n");
 */
#ifndef VELIAXDR_RVZD_PROBE_H
#define VELIAXDR_RVZD_PROBE_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * 1 if something accepts a TCP connection on port 371 of one of the addresses of `host`, else 0. It need not be a
 * broker, and a broker on another port is not found. All addresses are tried at once, nothing is sent, and all sockets
 * are closed again.
 *
 * A host that does not answer costs 0.9 seconds behind the name look-up, which goes to the system's resolver
 * alone: a name that stands only in the site's hosts.conf is not known to it, its address is. A further
 * 0.9 seconds begin with each answer of another address of it. The calling thread's limit (ks_set_deadline) cuts them,
 * and ks_interrupt ends them. Takes no lock and shares nothing: any number of threads
 * may probe at once.
 *
 * Printed: a name that cannot be resolved, a socket that cannot be had or made non-blocking, and one whose descriptor
 * is 16384 or more, for which the probe has no room. All else is told as trace "xdr/rvzd" of level 3.
 */
int rvzd_nonblock_connect_ping(const char *host);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
