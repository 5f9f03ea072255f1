// The wrapped operations. Those that acquire something or ask about the world are places where a raise may arrive;
// those that give something back are not.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <malloc.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include <support/credmap.h>
#include <support/credutl.h>
#include <support/ivlthread.h>
#include <support/ks.h>
#include <support/pfm.h>
#include <support/rt.h>
#include <support/stg.h>
#include <support/sysutl.h>
#include <tests/sim/noted.h>
#include <tests/sim/rpc_client.h>
#include <tests/sim/world.h>
#include <veliaxdr/rvzd_handle.h>

using sim::Faults;
using sim::World;

namespace {

bool fails(int Faults::*fault) {
    World &world = World::current();
    if (!Faults::due(world.faults.*fault))
        return false;
    errno = world.faults.error_number;
    return true;
}

// Storage comes with what somebody left in it, and what was given back is somebody else's: whoever counts on zeros, or
// on what he gave back, is found out.
constexpr int somebody_elses = 0xA5;

void *soiled(void *block, size_t size) {
    return block != nullptr ? memset(block, somebody_elses, size) : nullptr;
}

void *note_block(void *block) {
    if (block != nullptr)
        World::current().blocks.insert(block);
    return block;
}

bool is_unreachable(const sockaddr *address) {
    char text[NI_MAXHOST] = "";
    getnameinfo(address, sysutl_sockaddr_size(address), text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return World::current().unreachable.contains(text);
}

CLIENT *creation_error(clnt_stat stat) {
    *ks_rpc_get_createerr() = {stat, World::current().faults.error_number};
    return nullptr;
}

addrinfo *numeric_address(const std::string &text, uint16_t port, int socket_type) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = socket_type != 0 ? socket_type : SOCK_DGRAM;
    addrinfo *result = nullptr;
    getaddrinfo(text.c_str(), std::to_string(port).c_str(), &hints, &result);
    return result;
}

int resolve_service(World &world, const char *service, int socket_type, addrinfo **result) {
    const auto error = world.resolver_errors.find(service);
    if (error != world.resolver_errors.end())
        return error->second;
    const auto found = world.services.find(service);
    if (found == world.services.end())
        return EAI_SERVICE;
    *result = numeric_address("0.0.0.0", found->second, socket_type);
    return 0;
}

int resolve_host(World &world, const char *host, int socket_type, addrinfo **result) {
    const auto error = world.resolver_errors.find(host);
    if (error != world.resolver_errors.end())
        return error->second;
    const auto found = world.hosts.find(host);
    if (found == world.hosts.end())
        return EAI_NONAME;
    addrinfo **tail = result;
    *tail = nullptr;
    for (const auto &address : found->second) {
        *tail = numeric_address(address, 0, socket_type);
        tail = &(*tail)->ai_next;
    }
    return 0;
}

} // namespace

// Each real operation under its --wrap name, called after the raise point.
#define SIM_PASS_THROUGH(RESULT, NAME, PARAMETERS, ARGUMENTS)                                                          \
    RESULT __real_##NAME PARAMETERS;                                                                                   \
    RESULT __wrap_##NAME PARAMETERS {                                                                                  \
        World::current().support_call();                                                                               \
        return __real_##NAME ARGUMENTS;                                                                                \
    }

extern "C" {

SIM_PASS_THROUGH(int, sysutl_set_cloexec_file, (int fd, int on), (fd, on))
SIM_PASS_THROUGH(void, sysutl_copy_sockaddr, (ks_sockaddr_storage_t * to, const sockaddr *from), (to, from))
SIM_PASS_THROUGH(tbs_status_t, tbs_product_config_dir, (char *buffer, const char *name), (buffer, name))
SIM_PASS_THROUGH(tbs_status_t, tbs_product_host_priv_dir, (char *buffer, const char *name), (buffer, name))
SIM_PASS_THROUGH(char *, tbs_uuid_to_str, (const tbs_uuid_t *uuid, char *buffer), (uuid, buffer))
SIM_PASS_THROUGH(int, fileutl_is_localhost, (const char *host), (host))
SIM_PASS_THROUGH(int, fileutl_path_host, (const char *path, char *buffer, size_t size), (path, buffer, size))
int __wrap_imsg_prompt_password(const char *prompt, char *buffer) {
    World &world = World::current();
    world.support_call();
    world.prompts.emplace_back(prompt);
    *buffer = '\0';
    if (world.prompt_result == IMSG_PASSWORD_ENTERED)
        buffer[world.typed_password.copy(buffer, IMSG_PASSWORD_SIZE - 1)] = '\0';
    return world.prompt_result;
}

char *__real_getenv_safe(const char *name, char *buffer, size_t size, int reserved);
char *__wrap_getenv_safe(const char *name, char *buffer, size_t size, int reserved) {
    World::current().support_call();
    EXPECT_EQ(reserved, 0);
    return __real_getenv_safe(name, buffer, size, reserved);
}

void *__real_stg_malloc(size_t size);
void *__wrap_stg_malloc(size_t size) {
    World::current().support_call();
    return World::current().allocation_is_due() ? nullptr : note_block(soiled(__real_stg_malloc(size), size));
}

void *__real_stg_realloc(void *pointer, size_t size);
void *__wrap_stg_realloc(void *pointer, size_t size) {
    World::current().support_call();
    if (World::current().allocation_is_due())
        return nullptr;
    void *moved = __real_stg_realloc(pointer, size);
    if (moved != nullptr)
        World::current().blocks.erase(pointer);
    return note_block(moved);
}

char *__real_stg_strdup(const char *text);
char *__wrap_stg_strdup(const char *text) {
    World::current().support_call();
    if (World::current().allocation_is_due())
        return nullptr;
    return static_cast<char *>(note_block(__real_stg_strdup(text)));
}

void *__real_stg_alloc(stg_area_t area, size_t size);
void *__wrap_stg_alloc(stg_area_t area, size_t size) {
    World::current().support_call();
    if (World::current().allocation_is_due())
        return nullptr;
    void *block = soiled(__real_stg_alloc(area, size), size);
    return area == STG_HEAP_AREA ? note_block(block) : block; // an area goes as a whole
}

char *__real_stg_area_strdup(stg_area_t area, const char *text);
char *__wrap_stg_area_strdup(stg_area_t area, const char *text) {
    World::current().support_call();
    return World::current().allocation_is_due() ? nullptr : __real_stg_area_strdup(area, text);
}

void __real_stg_free(void *pointer);
void __wrap_stg_free(void *pointer) {
    World::current().blocks.erase(pointer);
    soiled(pointer, malloc_usable_size(pointer));
    __real_stg_free(pointer);
}

void __wrap_date_get_timeval(timeval *now) {
    World::current().support_call();
    const int64_t now_us = World::current().now_us;
    *now = {now_us / 1'000'000, now_us % 1'000'000};
}

int __wrap_sysutl_host_addr(const char *host, const char *service, int socket_type, addrinfo **result) {
    World &world = World::current();
    world.support_call();
    world.lookups.emplace_back(host != nullptr ? host : service);
    world.lookup_socket_types.push_back(socket_type);
    const int code = host != nullptr ? resolve_host(world, host, socket_type, result)
                                     : resolve_service(world, service, socket_type, result);
    if (code == 0 && *result != nullptr)
        sim::noted().resolver_lists.insert(*result);
    return code;
}

uint64_t __wrap_sysutl_sock_port_uniquifier() {
    World::current().support_call();
    return World::current().next_uniquifier++;
}

CLIENT *__wrap_ks_clntudp_create_sockaddr(const sockaddr *address, uint32_t program, uint32_t version, int32_t wait_s,
                                          int32_t wait_us, int *socket_fd) {
    World::current().support_call();
    World::current().udp_intervals.push_back({wait_s, wait_us});
    if (sim::noted().raise_of_udp_client != 0)
        pfm_raise(sim::noted().raise_of_udp_client);
    if (fails(&Faults::udp_client) || is_unreachable(address))
        return creation_error(RPC_SYSTEMERROR);
    return sim::make_client(address, program, version, *socket_fd, false, false);
}

static CLIENT *open_tcp_client(const sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                               bool owns_socket) {
    World::current().support_call();
    if (fails(&Faults::tcp_client) || is_unreachable(address))
        return creation_error(RPC_SYSTEMERROR);
    if (*socket_fd < 0)
        *socket_fd = socket(address->sa_family, SOCK_STREAM, 0);
    return sim::make_client(address, program, version, *socket_fd, true, owns_socket);
}

static void expect_sizes_of_the_system(uint32_t send_size, uint32_t receive_size) {
    EXPECT_EQ(send_size, 0u);
    EXPECT_EQ(receive_size, 0u);
}

// As the real ones: a client made in the first way leaves its socket to the caller, one made in the second closes it.
CLIENT *__wrap_ks_clnttcp_create_sockaddr(const sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                          uint32_t send_size, uint32_t receive_size) {
    expect_sizes_of_the_system(send_size, receive_size);
    return open_tcp_client(address, program, version, socket_fd, false);
}

CLIENT *__wrap_sysutl_clnttcp_create_ext(const sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                         uint32_t send_size, uint32_t receive_size) {
    expect_sizes_of_the_system(send_size, receive_size);
    *socket_fd = -1;
    return open_tcp_client(address, program, version, socket_fd, true);
}

int __wrap_imsg_get_desired_verbosity() {
    return World::current().verbosity;
}

int __wrap_imsg_should_trace(const char *subsystem, int level) {
    return World::current().traced.contains(std::string(subsystem) + ":" + std::to_string(level));
}

AUTH *__real_credmap_auth_create_default(const char *host);
AUTH *__wrap_credmap_auth_create_default(const char *host) {
    World::current().support_call();
    return fails(&Faults::authenticator) ? nullptr : sim::note_authenticator(__real_credmap_auth_create_default(host));
}

AUTH *__real_credmap_authunix_create_nobody();
AUTH *__wrap_credmap_authunix_create_nobody() {
    World::current().support_call();
    return fails(&Faults::authenticator) ? nullptr : sim::note_authenticator(__real_credmap_authunix_create_nobody());
}

int __real_credutl_getgroups(int group_count_max, uint32_t *groups);
int __wrap_credutl_getgroups(int group_count_max, uint32_t *groups) {
    World::current().support_call();
    return fails(&Faults::getgroups) ? -1 : __real_credutl_getgroups(group_count_max, groups);
}

int __real_credutl_set_server_group_lifetime(int seconds);
int __wrap_credutl_set_server_group_lifetime(int seconds) {
    World::current().support_call();
    return fails(&Faults::server_groups) ? 1 : __real_credutl_set_server_group_lifetime(seconds);
}

int __wrap_credutl_is_privileged() {
    World::current().support_call();
    return World::current().privileged;
}

int __real_tbs_platform_info(const char **os_name, const char **os_version, const char **machine);
int __wrap_tbs_platform_info(const char **os_name, const char **os_version, const char **machine) {
    World &world = World::current();
    world.support_call();
    if (world.os_name == nullptr || !__real_tbs_platform_info(os_name, os_version, machine))
        return 0;
    if (world.os_name[0] != '\0')
        *os_name = world.os_name;
    return 1;
}

int __wrap_tbs_product_comp_test(int component) {
    constexpr int server_side = 1;
    World::current().support_call();
    return component == server_side ? World::current().component_mask : 0;
}

rt_event_t __wrap_rt_sched(void (*function)(void *), void *argument, int seconds) {
    World &world = World::current();
    world.support_call();
    if (fails(&Faults::rt_sched))
        return nullptr;
    world.timers.push_back({function, argument, world.now_us + seconds * 1'000'000LL});
    return reinterpret_cast<rt_event_t>(world.timers.size());
}

int __wrap_rt_handle_fd(int, void (*function)(void *), int descriptor, void *argument) {
    World::current().support_call();
    if (fails(&Faults::rt_handle_fd))
        return 0;
    World::current().watches.push_back({function, descriptor, argument});
    return 1;
}

void __real_ks_system_init(int argument_count, char **arguments, char *name);
void __wrap_ks_system_init(int argument_count, char **arguments, char *name) {
    World::current().system_starts.push_back({argument_count, arguments, name});
    __real_ks_system_init(argument_count, arguments, name);
}

void __real_imsg_set_app_name(const char *name);
void __wrap_imsg_set_app_name(const char *name) {
    World::current().app_name = name;
    __real_imsg_set_app_name(name);
}

void __real_ivlthread_mutex_lock(ivlthread_mutex_t *mutex);
void __wrap_ivlthread_mutex_lock(ivlthread_mutex_t *mutex) {
    __real_ivlthread_mutex_lock(mutex);
    if (mutex == &rvzd_call_lock && World::exists())
        ++World::current().call_locks;
}

// The end of the process comes when the test says so.
void __wrap_pfm_on_exit(void (*function)(void *), void *argument) {
    World::current().exit_actions.push_back({function, argument});
}

time_t __real_time(time_t *out);
time_t __wrap_time(time_t *out) {
    if (!World::exists())
        return __real_time(out);
    const time_t now_s = World::current().now_us / 1'000'000;
    if (out != nullptr)
        *out = now_s;
    return now_s;
}

int __real_fclose(FILE *stream);
int __wrap_fclose(FILE *stream) {
    const int result = __real_fclose(stream);
    return World::exists() && fails(&Faults::fclose) ? EOF : result;
}

int __wrap_gethostname(char *buffer, size_t size) {
    if (fails(&Faults::gethostname))
        return -1;
    const std::string &name = World::current().host_name;
    const size_t length = name.copy(buffer, size);
    if (length < size) // a name that is cut need not have an end
        buffer[length] = '\0';
    return 0;
}

int __real_bind(int fd, const sockaddr *address, socklen_t length);
int __wrap_bind(int fd, const sockaddr *address, socklen_t length) {
    return fails(&Faults::bind) ? -1 : __real_bind(fd, address, length);
}

int __real_getsockname(int fd, sockaddr *address, socklen_t *length);
int __wrap_getsockname(int fd, sockaddr *address, socklen_t *length) {
    return fails(&Faults::getsockname) ? -1 : __real_getsockname(fd, address, length);
}

} // extern "C"
