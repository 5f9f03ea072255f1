// The records that the support layer owns: identities, flags, access control lists.
#include <support/xdr_prims.h>

#include <cstdlib>

namespace {

bool_t xdr_acl_entry(XDR *xdrs, void *element, void *) {
    auto *entry = static_cast<tbs_acl_entry_t *>(element);
    return xdr_u_int(xdrs, &entry->kind) && xdr_string_pointer(xdrs, &entry->identity, CREDUTL_NAME_SIZE - 1) &&
           xdr_tbs_acl_permission_set_t(xdrs, &entry->permissions);
}

bool_t xdr_acl(XDR *xdrs, tbs_acl_t &acl) {
    void *entries = acl.entries;
    if (!xdr_u_int(xdrs, &acl.count))
        return FALSE;
    const bool_t done =
        xdr_ez_array(xdrs, &entries, &acl.count, UINT32_MAX, sizeof(tbs_acl_entry_t), xdr_acl_entry, nullptr);
    acl.entries = static_cast<tbs_acl_entry_t *>(entries);
    return done;
}

bool_t decode_acl(XDR *xdrs, tbs_acl_h_t *acl) {
    *acl = nullptr;
    tbs_acl_t decoded = {};
    if (!xdr_acl(xdrs, decoded))
        return FALSE;
    *acl = static_cast<tbs_acl_h_t>(stg_malloc(sizeof decoded));
    if (*acl != nullptr) {
        **acl = decoded;
        return TRUE;
    }
    XDR freeing = {};
    freeing.x_op = XDR_FREE;
    xdr_acl(&freeing, decoded);
    return FALSE;
}

} // namespace

bool_t xdr_credutl_sid_t(XDR *xdrs, credutl_sid_t *sid) {
    return xdr_u_int(xdrs, &sid->kind) && xdr_u_int(xdrs, &sid->id);
}

bool_t xdr_credutl_credentials_t(XDR *xdrs, credutl_credentials_t *credentials) {
    if (!xdr_u_int(xdrs, &credentials->user) || !xdr_u_int(xdrs, &credentials->group) ||
        !xdr_u_int(xdrs, &credentials->group_count))
        return FALSE;
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    if (credentials->group_count > CREDUTL_GROUPS_MAX)
        return FALSE;
    for (uint32_t i = 0; i < credentials->group_count; ++i) {
        if (!xdr_u_int(xdrs, &credentials->groups[i]))
            return FALSE;
    }
    if (xdrs->x_op == XDR_DECODE) {
        for (uint32_t i = credentials->group_count; i < CREDUTL_GROUPS_MAX; ++i)
            credentials->groups[i] = 0;
    }
    return TRUE;
}

bool_t xdr_credutl_auth_ironvale_t(XDR *xdrs, credutl_auth_ironvale_t *auth) {
    return xdr_u_int(xdrs, &auth->flavour) && xdr_credutl_credentials_t(xdrs, &auth->credentials);
}

bool_t xdr_strutl_flag_item_t(XDR *xdrs, strutl_flag_item_t *item) {
    char *name = const_cast<char *>(item->name);
    const bool_t named = xdr_string_pointer(xdrs, &name, UINT32_MAX);
    item->name = name;
    if (!named)
        return FALSE;
    if (xdr_u_int(xdrs, &item->value))
        return TRUE;
    if (xdrs->x_op == XDR_DECODE) {
        stg_free(name);
        item->name = nullptr;
    }
    return FALSE;
}

bool_t xdr_tbs_acl_h_t(XDR *xdrs, tbs_acl_h_t *acl) {
    tbs_acl_t empty = {};
    switch (xdrs->x_op) {
    case XDR_ENCODE:
        return xdr_acl(xdrs, *acl != nullptr ? **acl : empty);
    case XDR_DECODE:
        return decode_acl(xdrs, acl);
    case XDR_FREE:
        if (*acl != nullptr)
            xdr_acl(xdrs, **acl);
        stg_free(*acl);
        *acl = nullptr;
        return TRUE;
    }
    return FALSE;
}

bool_t xdr_tbs_acl_generic_map_t(XDR *xdrs, tbs_acl_generic_map_t *map) {
    return xdr_tbs_acl_permission_set_t(xdrs, &map->read) && xdr_tbs_acl_permission_set_t(xdrs, &map->change);
}
