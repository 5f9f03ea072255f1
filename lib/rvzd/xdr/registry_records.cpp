// The registry's records. Nearly all requests begin alike, and the fetches differ only behind that; each routine is the
// list of its fields.
#include <veliaxdr/rgy_wire.h>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

namespace {

constexpr int64_t version_of_single_entry = 1;

template <class Record>
bool_t code_db_prefix(XDR *xdrs, Record *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && velia_xdr_long(xdrs, &record->db) &&
           velia_xdr_long(xdrs, &record->version);
}

template <class Record>
bool_t code_stamped_prefix(XDR *xdrs, Record *record) {
    return code_db_prefix(xdrs, record) && xdr_rgy_dtm_pair_t(xdrs, &record->dtm);
}

template <class Record>
bool_t code_place(XDR *xdrs, Record *record) {
    return code_stamped_prefix(xdrs, record) && text(xdrs, record->region, RGY_WIRE_REGION_MAX) &&
           velia_xdr_u_long(xdrs, &record->cursor);
}

template <class Record>
bool_t code_fetch_prefix(XDR *xdrs, Record *record) {
    return code_place(xdrs, record) && velia_xdr_long(xdrs, &record->max_entries);
}

template <class Record>
bool_t code_search_prefix(XDR *xdrs, Record *record) {
    return code_fetch_prefix(xdrs, record) && text(xdrs, record->item_key, RGY_WIRE_KEY_MAX);
}

template <class Record>
bool_t code_versioned(XDR *xdrs, Record *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && velia_xdr_long(xdrs, &record->version);
}

template <class Record>
bool_t code_conf(XDR *xdrs, Record *record, uint32_t text_max) {
    return code_versioned(xdrs, record) && velia_xdr_long(xdrs, &record->op) && text(xdrs, record->text, text_max);
}

// The body of a reply begins with its version and stamps.
template <class Record>
bool_t code_stamps(XDR *xdrs, Record *record) {
    return velia_xdr_long(xdrs, &record->version) && xdr_rgy_dtm_pair_t(xdrs, &record->dtm);
}

// A reply: the header, and with a good status what `body` codes.
template <class Record, class Body>
bool_t code_reply(XDR *xdrs, Record *record, Body &&body) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) && (!has_body(xdrs, record->header) || body());
}

// A counted array whose count is a long in memory and one word on the wire. Decoding begins with no array.
template <class Element, Routine<Element> routine>
bool_t code_array(XDR *xdrs, Element *&array, int64_t &count) {
    if (count < 0 || count > UINT32_MAX)
        return FALSE;
    auto word = static_cast<uint32_t>(count);
    if (xdrs->x_op != XDR_FREE && !xdr_u_int(xdrs, &word))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        array = nullptr;
    const bool_t done = code_elements<Element, routine>(xdrs, array, word);
    count = done ? word : 0;
    return done;
}

// Version 1: an entry or none behind a presence word, and a count behind that, which must not promise more.
bool_t code_single_entry(XDR *xdrs, rvzd_registry_get_reply_t *record) {
    bool_t is_present = record->entries != nullptr;
    if (!xdr_bool(xdrs, &is_present))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        record->entries = nullptr;
    if (!code_elements<rgy_svr_entry_t, xdr_rgy_svr_entry_t>(xdrs, record->entries, is_present ? 1 : 0) ||
        !velia_xdr_long(xdrs, &record->count))
        return FALSE;
    return xdrs->x_op == XDR_FREE || (record->count >= 0 && record->count <= (is_present ? 1 : 0));
}

bool_t code_entries(XDR *xdrs, rvzd_registry_get_reply_t *record) {
    if (record->version == version_of_single_entry)
        return code_single_entry(xdrs, record);
    return code_array<rgy_svr_entry_t, xdr_rgy_svr_entry_t>(xdrs, record->entries, record->count);
}

bool_t code_pattern(XDR *xdrs, char **pattern) {
    return text(xdrs, *pattern);
}

} // namespace

bool_t xdr_rgy_svr_entry_t(XDR *xdrs, rgy_svr_entry_t *record) {
    return velia_xdr_u_long(xdrs, &record->entry_id) && text(xdrs, record->flex_text, RGY_WIRE_FLEX_MAX);
}

bool_t xdr_rgy_db_info_t(XDR *xdrs, rgy_db_info_t *record) {
    return velia_xdr_long(xdrs, &record->db) && text(xdrs, record->name, RGY_WIRE_VALUE_MAX) &&
           xdr_tbs_uuid_t(xdrs, &record->uuid1) && xdr_tbs_uuid_t(xdrs, &record->uuid2) &&
           velia_xdr_long(xdrs, &record->last);
}

bool_t xdr_rgy_dtm_pair_t(XDR *xdrs, rgy_dtm_pair_t *record) {
    return xdr_tbs_uuid_t(xdrs, &record->dtm) && xdr_tbs_uuid_t(xdrs, &record->svr_dtm);
}

bool_t xdr_rvzd_registry_get_id_req_t(XDR *xdrs, rvzd_registry_get_id_req_t *record) {
    return code_db_prefix(xdrs, record);
}

bool_t xdr_rvzd_registry_get_dtm_req_t(XDR *xdrs, rvzd_registry_get_dtm_req_t *record) {
    return code_db_prefix(xdrs, record);
}

bool_t xdr_rvzd_registry_get_req_t(XDR *xdrs, rvzd_registry_get_req_t *record) {
    return code_fetch_prefix(xdrs, record);
}

bool_t xdr_rvzd_registry_findbystring_req_t(XDR *xdrs, rvzd_registry_findbystring_req_t *record) {
    return code_search_prefix(xdrs, record) && text(xdrs, record->lookup_string, RGY_WIRE_VALUE_MAX);
}

bool_t xdr_rvzd_registry_findbyattr_req_t(XDR *xdrs, rvzd_registry_findbyattr_req_t *record) {
    return code_search_prefix(xdrs, record) && text(xdrs, record->attr_name, RGY_WIRE_VALUE_MAX) &&
           text(xdrs, record->attr_value, RGY_WIRE_VALUE_MAX);
}

bool_t xdr_rvzd_registry_findbyuuid_req_t(XDR *xdrs, rvzd_registry_findbyuuid_req_t *record) {
    return code_search_prefix(xdrs, record) && xdr_tbs_uuid_t(xdrs, &record->lookup_uuid);
}

// Here the batch size stands behind the patterns.
bool_t xdr_rvzd_registry_get_pattern_req_t(XDR *xdrs, rvzd_registry_get_pattern_req_t *record) {
    return code_place(xdrs, record) &&
           code_array<char *, code_pattern>(xdrs, record->patterns, record->patterns_length) &&
           xdr_int(xdrs, &record->pattern_count) && velia_xdr_long(xdrs, &record->max_entries);
}

bool_t xdr_rvzd_registry_add_req_t(XDR *xdrs, rvzd_registry_add_req_t *record) {
    return code_stamped_prefix(xdrs, record) && text(xdrs, record->flex_text, RGY_WIRE_FLEX_MAX);
}

bool_t xdr_rvzd_registry_remove_req_t(XDR *xdrs, rvzd_registry_remove_req_t *record) {
    return code_stamped_prefix(xdrs, record) && velia_xdr_u_long(xdrs, &record->entry_id);
}

bool_t xdr_rgy_change_t(XDR *xdrs, rgy_change_t *record) {
    return velia_xdr_u_long(xdrs, &record->entry_id) && text(xdrs, record->flex_text, RGY_WIRE_FLEX_MAX);
}

bool_t xdr_rvzd_registry_change_req_t(XDR *xdrs, rvzd_registry_change_req_t *record) {
    return code_stamped_prefix(xdrs, record) && xdr_u_int(xdrs, &record->flags) && xdr_tbs_uuid_t(xdrs, &record->set) &&
           xdr_u_int(xdrs, &record->before) &&
           code_array<rgy_change_t, xdr_rgy_change_t>(xdrs, record->changes, record->count);
}

bool_t xdr_rvzd_registry_chk_access_req_t(XDR *xdrs, rvzd_registry_chk_access_req_t *record) {
    return code_db_prefix(xdrs, record) && velia_xdr_long(xdrs, &record->uid) &&
           text(xdrs, record->password, RGY_WIRE_PASSWORD_MAX);
}

bool_t xdr_rvzd_registry_get_db_req_t(XDR *xdrs, rvzd_registry_get_db_req_t *record) {
    return code_versioned(xdrs, record) && velia_xdr_long(xdrs, &record->db_max);
}

bool_t xdr_rvzd_registry_clnt_conf_req_t(XDR *xdrs, rvzd_registry_clnt_conf_req_t *record) {
    return code_conf(xdrs, record, RGY_WIRE_CLNT_CONF_MAX);
}

bool_t xdr_rvzd_registry_svr_conf_req_t(XDR *xdrs, rvzd_registry_svr_conf_req_t *record) {
    return code_conf(xdrs, record, RGY_WIRE_SVR_CONF_MAX);
}

bool_t xdr_rvzd_registry_get_backup_req_t(XDR *xdrs, rvzd_registry_get_backup_req_t *record) {
    return code_versioned(xdrs, record);
}

bool_t xdr_rvzd_registry_set_backup_req_t(XDR *xdrs, rvzd_registry_set_backup_req_t *record) {
    return code_versioned(xdrs, record) && text(xdrs, record->host_list, RGY_WIRE_HOST_LIST_MAX);
}

bool_t xdr_rvzd_registry_get_id_reply_t(XDR *xdrs, rvzd_registry_get_id_reply_t *record) {
    return code_reply(xdrs, record, [&] { return code_stamps(xdrs, record); });
}

bool_t xdr_rvzd_registry_get_dtm_reply_t(XDR *xdrs, rvzd_registry_get_dtm_reply_t *record) {
    return code_reply(xdrs, record, [&] {
        return code_stamps(xdrs, record) && xdr_tbs_uuid_t(xdrs, &record->aux_uuid1) &&
               xdr_tbs_uuid_t(xdrs, &record->aux_uuid2);
    });
}

bool_t xdr_rvzd_registry_get_reply_t(XDR *xdrs, rvzd_registry_get_reply_t *record) {
    return code_reply(xdrs, record, [&] {
        return code_stamps(xdrs, record) && velia_xdr_u_long(xdrs, &record->cursor) && code_entries(xdrs, record);
    });
}

bool_t xdr_rvzd_registry_change_reply_t(XDR *xdrs, rvzd_registry_change_reply_t *record) {
    return code_reply(xdrs, record, [&] {
        return code_stamps(xdrs, record) && xdr_int(xdrs, &record->outcome) && xdr_u_int(xdrs, &record->failed) &&
               xdr_u_int(xdrs, &record->passed);
    });
}

bool_t xdr_rvzd_registry_get_db_reply_t(XDR *xdrs, rvzd_registry_get_db_reply_t *record) {
    return code_reply(xdrs, record, [&] {
        return velia_xdr_long(xdrs, &record->version) &&
               code_array<rgy_db_info_t, xdr_rgy_db_info_t>(xdrs, record->dbs, record->count);
    });
}

bool_t xdr_rvzd_registry_get_backup_reply_t(XDR *xdrs, rvzd_registry_get_backup_reply_t *record) {
    return code_reply(xdrs, record, [&] { return text(xdrs, record->host_list, RGY_WIRE_HOST_LIST_MAX); });
}

bool_t xdr_rvzd_registry_add_reply_t(XDR *xdrs, rvzd_registry_add_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_registry_remove_reply_t(XDR *xdrs, rvzd_registry_remove_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_registry_chk_access_reply_t(XDR *xdrs, rvzd_registry_chk_access_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_registry_clnt_conf_reply_t(XDR *xdrs, rvzd_registry_clnt_conf_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_registry_svr_conf_reply_t(XDR *xdrs, rvzd_registry_svr_conf_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_registry_set_backup_reply_t(XDR *xdrs, rvzd_registry_set_backup_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}
