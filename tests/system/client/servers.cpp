#include <tests/system/client/servers.h>

#include <cstdio>

#include <tests/system/support/client.h>
#include <veliaxdr/rvzd_servers.h>

namespace velia::system_test {

namespace {

void print_server(rvzd_handle_t *handle, const rvzd_server_entry_elem_t *node) {
    rvzd_server_info_t *info = rvzd_get_server_entry(handle, node, STG_HEAP_AREA);
    char address[SYSUTL_ADDRESS_TEXT_SIZE];
    if (info != nullptr)
        printf("%s %d %s\n", sysutl_sockaddr_to_str(&info->address.base, sizeof address, address), info->pid,
               info->name);
    stg_free(info);
}

} // namespace

bool print_servers(const char *host, int32_t program, uint32_t protocol) {
    const Handle handle(host, protocol);
    llist_d_head_t servers;
    if (handle.status() != TBS_ST_OK ||
        rvzd_list_matching_servers(handle.get(), program, -1, -1, -1, nullptr, -1, nullptr, &servers) != TBS_ST_OK)
        return false;
    for (llist_d_head_t *at = servers.next; at != &servers; at = at->next)
        print_server(handle.get(),
                     static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner));
    rvzd_destroy_server_entry_list(&servers);
    return true;
}

} // namespace velia::system_test
