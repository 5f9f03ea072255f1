/*
 * What a server process of the suite calls: start-up, taking over the sockets that the broker opened for it,
 * registering, and reporting.
 *
 *     rvzd_common_server_init(argc, argv, NULL);
 *     status = rvzd_server_get_sockets(&argc, argv, descs, &count);  // descs: one for each socket of the switch
 *     if (status == TBS_ST_NOT_FOUND)                                // started alone
 *         status = rvzd_alloc_sockets(SOCK_DGRAM, 1, trait.prog, descs, &count);
 *     if (status == TBS_ST_OK)
 *         status = rvzd_register_server(NULL, &trait, &uuid, path, descs, count);
 */
#ifndef VELIAXDR_RVZD_SVR_H
#define VELIAXDR_RVZD_SVR_H

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_socket.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Least size of the name buffer of rvzd_common_server_init. */
enum { RVZD_SERVER_PROCESS_NAME_SIZE = 1024 };

/*
 * Start-up of a server process: support layer, process name "argv[0](pid)" in front of messages, locale. `name` may be
 * null, else it is a buffer of at least RVZD_SERVER_PROCESS_NAME_SIZE bytes and receives that name.
 */
void rvzd_common_server_init(int argc, char **argv, char *name);

/* Moves message output to the file of this name in the log directory. Failure is printed. */
void rvzd_setup_server_log_file(const char *name);

/*
 * Takes over the sockets named by the start switch, the last argument, which is taken off *argc. The lifeline of the
 * switch is watched on the event loop: when the broker goes, the process is raised with code 4. The caller sizes
 * `descs`: one for each ":" of the switch.
 *
 *   TBS_ST_NOT_FOUND  the last argument is no start switch; nothing is touched but, with arguments, *count
 *   TBS_ST_ERROR      malformed switch, or a descriptor that is no socket; printed
 */
tbs_status_t rvzd_server_get_sockets(int *argc, char **argv, rvzd_socket_desc_t *descs, uint32_t *count);

/* Family and port of a descriptor; the port stays in network order. TBS_ST_ERROR for another family. */
tbs_status_t rvzd_server_port_from_desc(const rvzd_socket_desc_t *desc, rvzd_server_port_t *port);

/* The port list of `count` descriptors, in network order. TBS_ST_ERROR for more than two; empty for none. */
tbs_status_t rvzd_port_list_from_socket_vec(const rvzd_socket_desc_t *descs, int32_t count,
                                            rvzd_server_port_list_t *list);

/*
 * Report to the broker, each with rvzd_call_lock held, which guards the record that handles share. `handle` null: a
 * handle to the local broker is taken for the one call. Each blocks for the handle's time-out at most.
 * TBS_ST_RPC_FAILED: the call failed, printed; else the broker's answer or the status with which no handle could be
 * had.
 */
tbs_status_t rvzd_register_server(rvzd_handle_t *handle, const rvzd_rpc_trait_t *trait, const tbs_uuid_t *uuid,
                                  const char *path, const rvzd_socket_desc_t *descs, int32_t count);
tbs_status_t rvzd_server_idle(rvzd_handle_t *handle, tbs_boolean_t flag);
tbs_status_t rvzd_server_busy(rvzd_handle_t *handle, const tbs_uuid_t *uuid);
tbs_status_t rvzd_server_alternate_uuid(rvzd_handle_t *handle, const tbs_uuid_t *uuid);
tbs_status_t rvzd_sched_info(rvzd_handle_t *handle, const tbs_uuid_t *uuid, const rvzd_sched_info_pair_t *pair);

/*
 * The path by which the broker's host reaches `global_path`, into `buffer` of `size` bytes. `host` null or empty: the
 * host named in the path. A path that does not fit fails the call and leaves the buffer as it was.
 *
 *   TBS_ST_ERROR        no host in the path
 *   TBS_ST_UNSUPPORTED  the broker does not offer this
 *   TBS_ST_RPC_FAILED   the call failed, or the path does not fit; printed
 */
tbs_status_t rvzd_get_local_path(const char *host, const char *global_path, uint64_t size, char *buffer);

/*
 * Lets the local broker restart, or not restart, the server of this name (at most 64 characters). Needs privilege. The
 * status in the reply's header is dropped on purpose: only the outcome of the toggling itself is told.
 */
tbs_status_t rvzd_toggle_server_restart(tbs_boolean_t enable, const char *server_name);

/*
 * For a server process: if the setting server_group_lifetime is 1 or more, group lists that the server looks up itself
 * take the place of those that clients send, for so many seconds. *enabled (out, may be null) tells whether they do.
 * Message 127 of _rvzd_rvzd_msg_table says so, unless `quiet`; failures are told in any case: message 128, with
 * TBS_ST_OK, where the support layer does not offer it, and the shared message 46 with the status with which the
 * setting cannot be read.
 */
tbs_status_t rvzd_enable_server_group_substitution(tbs_boolean_t quiet, tbs_boolean_t *enabled);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
