// Host information, the client list, and the few records of a host as a whole.
#include <cstddef>
#include <cstring>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

static_assert(sizeof(clnt_hostinfo_t) == 80);
static_assert(sizeof(clnt_entry_t) == 128 && offsetof(clnt_entry_t, address) == 0);
static_assert(offsetof(clnt_entry_t, hostinfo) == 32 && offsetof(clnt_entry_t, reserved_time) == 112);

namespace {

constexpr uint32_t hostname_max = 255;

bool_t host_text(XDR *xdrs, char *&cell) {
    return text(xdrs, cell, RVZD_HOST_TEXT_MAX);
}

bool_t code_entry_behind_address(XDR *xdrs, clnt_entry_t *record) {
    return xdr_clnt_hostinfo_t(xdrs, &record->hostinfo) && xdr_time_t(xdrs, &record->reserved_time) &&
           xdr_time_t(xdrs, &record->registry_time);
}

// Only an IPv4-mapped address has an IPv4 part to send, and its record has family 0; any other goes out as zeros.
bool_t encode_address_v70(XDR *xdrs, const ks_sockaddr_storage_t *address) {
    rvzd_sockaddr_in_t sent = {};
    if (sysutl_is_addr_v4mapped(address)) {
        rvzd_sockaddr_in_t mapped;
        if (sysutl_get_v4mapped_addr(address, &mapped) != 0)
            return FALSE;
        sent.sin_addr = mapped.sin_addr;
    }
    return xdr_sockaddr_in(xdrs, &sent);
}

// In memory an address has the IPv6 form, whichever protocol brought it. The family on the wire tells nothing: the
// sending half leaves it 0.
bool_t decode_address_v70(XDR *xdrs, ks_sockaddr_storage_t *address) {
    rvzd_sockaddr_in_t received;
    if (!xdr_sockaddr_in(xdrs, &received))
        return FALSE;
    received.sin_family = AF_INET;
    return sysutl_set_ipv4_as_ipv6mapped(&received, address) == 0;
}

bool_t code_address_v70(XDR *xdrs, ks_sockaddr_storage_t *address) {
    switch (xdrs->x_op) {
    case XDR_ENCODE:
        return encode_address_v70(xdrs, address);
    case XDR_DECODE:
        return decode_address_v70(xdrs, address);
    default:
        return TRUE;
    }
}

bool_t entry_element(XDR *xdrs, void *element, void * /*unused*/) {
    return xdr_clnt_entry_t(xdrs, static_cast<clnt_entry_t *>(element));
}

bool_t entry_element_v70(XDR *xdrs, void *element, void * /*unused*/) {
    return xdr_clnt_entry_v70_t(xdrs, static_cast<clnt_entry_t *>(element));
}

// Free mode stops behind the two first fields and leaves the array alone, on purpose: the list belongs to the caller.
bool_t code_list_reply(XDR *xdrs, rvzd_clnt_list_get_reply_t *record, xdr_ez_element_t element) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    if (!has_body(xdrs, record->header))
        return TRUE;
    if (!xdr_int(xdrs, &record->position) || !xdr_tbs_boolean_t(xdrs, &record->at_end))
        return FALSE;
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    void *entries = record->entries;
    const bool_t ok =
        xdr_u_int(xdrs, &record->count) && xdr_ez_array(xdrs, &entries, &record->count, RVZD_CLNT_LIST_ENTRIES_MAX,
                                                        sizeof(clnt_entry_t), element, nullptr);
    record->entries = static_cast<clnt_entry_t *>(entries);
    if (!ok && xdrs->x_op == XDR_DECODE) {
        // Nobody else would release what a broken reply brought.
        XDR freeing = {};
        freeing.x_op = XDR_FREE;
        xdr_ez_array(&freeing, &entries, &record->count, RVZD_CLNT_LIST_ENTRIES_MAX, sizeof(clnt_entry_t), element,
                     nullptr);
        record->entries = nullptr;
        record->count = 0;
    }
    return ok;
}

} // namespace

bool_t xdr_clnt_hostinfo_t(XDR *xdrs, clnt_hostinfo_t *record) {
    if (!text(xdrs, record->hostname, hostname_max))
        return FALSE;
    char **const others[] = {&record->product,   &record->version,  &record->osname,
                             &record->osversion, &record->machine,  &record->registry_host,
                             &record->region,    &record->reserved, &record->options};
    for (char **cell : others)
        if (!host_text(xdrs, *cell))
            return FALSE;
    return TRUE;
}

bool_t xdr_clnt_entry_t(XDR *xdrs, clnt_entry_t *record) {
    return xdr_ks_sockaddr_storage_t(xdrs, &record->address) && code_entry_behind_address(xdrs, record);
}

bool_t xdr_clnt_entry_v70_t(XDR *xdrs, clnt_entry_t *record) {
    return code_address_v70(xdrs, &record->address) && code_entry_behind_address(xdrs, record);
}

bool_t xdr_rvzd_clnt_list_get_req_t(XDR *xdrs, rvzd_clnt_list_get_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_int(xdrs, &record->first) &&
           xdr_u_int(xdrs, &record->second) && xdr_int(xdrs, &record->position);
}

bool_t xdr_rvzd_clnt_list_get_reply_t(XDR *xdrs, rvzd_clnt_list_get_reply_t *record) {
    return code_list_reply(xdrs, record, entry_element);
}

bool_t xdr_rvzd_clnt_list_get_v70_reply_t(XDR *xdrs, rvzd_clnt_list_get_v70_reply_t *record) {
    return code_list_reply(xdrs, record, entry_element_v70);
}

bool_t xdr_rvzd_clnt_list_lookup_req_t(XDR *xdrs, rvzd_clnt_list_lookup_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && text(xdrs, record->hostname, RVZD_HOST_NAME_MAX);
}

bool_t xdr_rvzd_clnt_list_lookup_reply_t(XDR *xdrs, rvzd_clnt_list_lookup_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!has_body(xdrs, record->header) || xdr_clnt_entry_t(xdrs, &record->entry));
}

bool_t xdr_rvzd_clnt_list_lookup_v70_reply_t(XDR *xdrs, rvzd_clnt_list_lookup_v70_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!has_body(xdrs, record->header) || xdr_clnt_entry_v70_t(xdrs, &record->entry));
}

bool_t xdr_rvzd_clnt_list_register_req_t(XDR *xdrs, rvzd_clnt_list_register_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_clnt_hostinfo_t(xdrs, &record->hostinfo);
}

bool_t xdr_rvzd_clnt_list_register_reply_t(XDR *xdrs, rvzd_clnt_list_register_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_hostinfo_req_t(XDR *xdrs, rvzd_hostinfo_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header);
}

bool_t xdr_rvzd_hostinfo_reply_t(XDR *xdrs, rvzd_hostinfo_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!has_body(xdrs, record->header) || xdr_clnt_hostinfo_t(xdrs, &record->hostinfo));
}

bool_t xdr_rvzd_remote_build_hi_req_t(XDR *xdrs, rvzd_remote_build_hi_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && text(xdrs, record->hostname, RVZD_HOST_NAME_MAX) &&
           velia_xdr_u_long(xdrs, &record->uid) && velia_xdr_u_long(xdrs, &record->gid);
}

// Everything travels, whatever the status.
bool_t xdr_rvzd_remote_build_hi_reply_t(XDR *xdrs, rvzd_remote_build_hi_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) && xdr_int(xdrs, &record->word1) &&
           xdr_int(xdrs, &record->word2) && xdr_time_t(xdrs, &record->time) && xdr_int(xdrs, &record->word3) &&
           host_text(xdrs, record->text1) && host_text(xdrs, record->text2) && host_text(xdrs, record->text3);
}

bool_t xdr_rvzd_slim_is_slim_reply_t(XDR *xdrs, rvzd_slim_is_slim_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) && xdr_tbs_boolean_t(xdrs, &record->is_slim);
}
