// XDR routines beyond those of the RPC library. Whatever a count on the wire promises, memory grows only with what has
// really arrived; and whatever has been stored when a routine fails can be released by the same routine in free mode.
#include <support/xdr_prims.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include <support/stg.h>

namespace {

constexpr uint32_t chunk_bytes = 4096;

// Wire codes of address families: the system's own numbers never travel.
enum : uint32_t { family_none = 0, family_ipv4 = 1, family_ipv6 = 2 };

constexpr u_int ipv4_bytes = 4;
constexpr u_int ipv6_bytes = 16;

bool_t code_word(XDR *xdrs, uint32_t &word) {
    return xdr_u_int(xdrs, &word);
}

// The bytes of a counted string into a fresh heap string.
char *take_string_bytes(XDR *xdrs, uint32_t length) {
    char *text = nullptr;
    for (uint32_t taken = 0;;) {
        const uint32_t step = std::min(length - taken, chunk_bytes);
        auto *grown = static_cast<char *>(stg_realloc(text, size_t{taken} + step + 1));
        if (grown == nullptr)
            break;
        text = grown;
        // The padding behind the last byte belongs to the last step, and every earlier step is a multiple of four.
        if (step > 0 && !xdr_opaque(xdrs, text + taken, step))
            break;
        taken += step;
        if (taken == length) {
            text[length] = '\0';
            return text;
        }
    }
    stg_free(text);
    return nullptr;
}

bool_t decode_string(XDR *xdrs, char **text, uint32_t maximum) {
    uint32_t length = 0;
    if (!code_word(xdrs, length) || length > maximum)
        return FALSE;
    char *taken = take_string_bytes(xdrs, length);
    if (taken == nullptr)
        return FALSE;
    *text = taken;
    return TRUE;
}

bool_t encode_string(XDR *xdrs, const char *text, uint32_t maximum) {
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (length > maximum)
        return FALSE;
    auto word = static_cast<uint32_t>(length);
    return code_word(xdrs, word) && (word == 0 || xdr_opaque(xdrs, const_cast<char *>(text), word));
}

bool_t free_string(char **text) {
    stg_free(*text);
    *text = nullptr;
    return TRUE;
}

bool_t code_ipv4(XDR *xdrs, sockaddr_in &address) {
    uint32_t port = ntohs(address.sin_port);
    if (!code_word(xdrs, port) || port > UINT16_MAX)
        return FALSE;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return xdr_opaque(xdrs, reinterpret_cast<char *>(&address.sin_addr), ipv4_bytes);
}

bool_t code_ipv6(XDR *xdrs, sockaddr_in6 &address) {
    uint32_t port = ntohs(address.sin6_port);
    if (!code_word(xdrs, port) || port > UINT16_MAX)
        return FALSE;
    address.sin6_port = htons(static_cast<uint16_t>(port));
    return xdr_opaque(xdrs, reinterpret_cast<char *>(&address.sin6_addr), ipv6_bytes) &&
           code_word(xdrs, address.sin6_flowinfo) && code_word(xdrs, address.sin6_scope_id);
}

uint32_t code_of_family(int family) {
    if (family == AF_INET)
        return family_ipv4;
    return family == AF_INET6 ? family_ipv6 : family_none;
}

bool_t code_address_behind_family(XDR *xdrs, uint32_t family, ks_sockaddr_storage_t &address) {
    switch (family) {
    case family_none:
        return TRUE;
    case family_ipv4:
        address.ipv4.sin_family = AF_INET;
        return code_ipv4(xdrs, address.ipv4);
    case family_ipv6:
        address.ipv6.sin6_family = AF_INET6;
        return code_ipv6(xdrs, address.ipv6);
    default:
        return FALSE;
    }
}

// An array under construction: grows by doubling from what one chunk holds, never ahead of what has been decoded.
struct GrowingArray {
    char *elements;
    uint32_t capacity;
    uint32_t element_size;

    bool make_room_for(uint32_t index, uint32_t count) {
        if (index < capacity)
            return true;
        const uint32_t first = std::max<uint32_t>(1, chunk_bytes / element_size);
        const uint64_t wanted = std::min<uint64_t>(count, std::max<uint64_t>(first, uint64_t{capacity} * 2));
        auto *grown = static_cast<char *>(stg_realloc(elements, wanted * element_size));
        if (grown == nullptr)
            return false;
        memset(grown + size_t{capacity} * element_size, 0, (wanted - capacity) * element_size);
        elements = grown;
        capacity = static_cast<uint32_t>(wanted);
        return true;
    }
    char *at(uint32_t index) const { return elements + size_t{index} * element_size; }
};

// Stores what was decoded even when it breaks off, with the count of elements that free mode may look at.
bool_t decode_array(XDR *xdrs, void **array, uint32_t *count, uint32_t element_size, xdr_ez_element_t element,
                    void *argument) {
    GrowingArray growing = {nullptr, 0, element_size};
    const uint32_t wanted = *count;
    uint32_t taken = 0;
    bool_t ok = TRUE;
    while (ok && taken < wanted) {
        ok = growing.make_room_for(taken, wanted);
        if (ok)
            ok = element(xdrs, growing.at(taken++), argument);
    }
    *array = growing.elements;
    *count = taken;
    return ok;
}

bool_t for_each_element(XDR *xdrs, void *array, uint32_t count, uint32_t element_size, xdr_ez_element_t element,
                        void *argument) {
    for (uint32_t i = 0; i < count; ++i)
        if (!element(xdrs, static_cast<char *>(array) + size_t{i} * element_size, argument))
            return FALSE;
    return TRUE;
}

struct PointedElement {
    uint32_t size;
    xdr_ez_element_t element;
    void *argument;
};

// An element of an array of pointers: always present, allocated when it is decoded.
bool_t code_pointed(XDR *xdrs, void *cell, void *argument) {
    const auto *pointed = static_cast<const PointedElement *>(argument);
    auto **pointer = static_cast<void **>(cell);
    if (xdrs->x_op == XDR_DECODE && *pointer == nullptr) {
        *pointer = stg_malloc(pointed->size);
        if (*pointer == nullptr)
            return FALSE;
        memset(*pointer, 0, pointed->size);
    }
    if (*pointer == nullptr)
        return xdrs->x_op == XDR_FREE;
    const bool_t ok = pointed->element(xdrs, *pointer, pointed->argument);
    if (xdrs->x_op == XDR_FREE) {
        stg_free(*pointer);
        *pointer = nullptr;
    }
    return ok;
}

} // namespace

bool_t velia_xdr_long(XDR *xdrs, int64_t *cell) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    if (xdrs->x_op == XDR_ENCODE && (*cell < INT32_MIN || *cell > INT32_MAX))
        return FALSE;
    int32_t word = static_cast<int32_t>(*cell);
    if (!xdr_int(xdrs, &word))
        return FALSE;
    *cell = word;
    return TRUE;
}

bool_t velia_xdr_u_long(XDR *xdrs, uint64_t *cell) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    if (xdrs->x_op == XDR_ENCODE && *cell > UINT32_MAX)
        return FALSE;
    uint32_t word = static_cast<uint32_t>(*cell);
    if (!xdr_u_int(xdrs, &word))
        return FALSE;
    *cell = word;
    return TRUE;
}

bool_t xdr_time_t(XDR *xdrs, time_t *cell) {
    int64_t value = *cell;
    if (!xdr_int64_t(xdrs, &value))
        return FALSE;
    *cell = value;
    return TRUE;
}

bool_t xdr_pid_t(XDR *xdrs, int32_t *cell) {
    return xdr_int(xdrs, cell);
}

bool_t xdr_size_t(XDR *xdrs, uint64_t *cell) {
    return xdr_uint64_t(xdrs, cell);
}

bool_t xdr_tbs_status_t(XDR *xdrs, tbs_status_t *cell) {
    return xdr_int(xdrs, cell);
}

bool_t xdr_tbs_boolean_t(XDR *xdrs, tbs_boolean_t *cell) {
    return xdr_bool(xdrs, cell);
}

bool_t xdr_tbs_uuid_t(XDR *xdrs, tbs_uuid_t *uuid) {
    return xdr_opaque(xdrs, reinterpret_cast<char *>(uuid->bytes), sizeof uuid->bytes);
}

bool_t xdr_ks_uint32_t(XDR *xdrs, uint32_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, char **path) {
    return xdr_string_pointer(xdrs, path, UINT32_MAX);
}

bool_t xdr_string_pointer(XDR *xdrs, char **text, uint32_t maximum) {
    switch (xdrs->x_op) {
    case XDR_ENCODE:
        return encode_string(xdrs, *text, maximum);
    case XDR_DECODE:
        return decode_string(xdrs, text, maximum);
    default:
        return free_string(text);
    }
}

bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address) {
    // Family in host order, the rest as it stands in memory, which is network order.
    char bytes[16] = {};
    if (xdrs->x_op == XDR_ENCODE) {
        bytes[0] = static_cast<char>(address->sin_family >> 8);
        bytes[1] = static_cast<char>(address->sin_family);
        memcpy(bytes + 2, &address->sin_port, sizeof address->sin_port);
        memcpy(bytes + 4, &address->sin_addr, sizeof address->sin_addr);
    }
    if (!xdr_opaque(xdrs, bytes, sizeof bytes))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE) {
        memset(address, 0, sizeof *address);
        address->sin_family =
            static_cast<sa_family_t>(static_cast<uint8_t>(bytes[0]) << 8 | static_cast<uint8_t>(bytes[1]));
        memcpy(&address->sin_port, bytes + 2, sizeof address->sin_port);
        memcpy(&address->sin_addr, bytes + 4, sizeof address->sin_addr);
    }
    return TRUE;
}

bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, ks_sockaddr_storage_t *address) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    uint32_t family = xdrs->x_op == XDR_ENCODE ? code_of_family(address->base.sa_family) : family_none;
    if (!code_word(xdrs, family))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        memset(address, 0, sizeof *address);
    return code_address_behind_family(xdrs, family, *address);
}

bool_t xdr_ez_array(XDR *xdrs, void **array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                    xdr_ez_element_t element, void *argument) {
    if (*count > maximum && xdrs->x_op != XDR_FREE) {
        if (xdrs->x_op == XDR_DECODE)
            *count = 0;
        return FALSE;
    }
    if (xdrs->x_op == XDR_DECODE)
        return decode_array(xdrs, array, count, element_size, element, argument);
    if (*array == nullptr)
        return *count == 0 || xdrs->x_op == XDR_FREE;
    const bool_t ok = for_each_element(xdrs, *array, *count, element_size, element, argument);
    if (xdrs->x_op == XDR_FREE) {
        stg_free(*array);
        *array = nullptr;
    }
    return ok;
}

bool_t xdr_ez_p2array(XDR *xdrs, void ***array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                      xdr_ez_element_t element, void *argument) {
    PointedElement pointed = {element_size, element, argument};
    return xdr_ez_array(xdrs, reinterpret_cast<void **>(array), count, maximum, sizeof(void *), code_pointed, &pointed);
}

bool_t xdr_ez_pointer(XDR *xdrs, void **pointer, uint32_t element_size, xdr_ez_element_t element, void *argument) {
    PointedElement pointed = {element_size, element, argument};
    if (xdrs->x_op == XDR_FREE)
        return code_pointed(xdrs, pointer, &pointed);
    bool_t present = *pointer != nullptr;
    if (!xdr_bool(xdrs, &present))
        return FALSE;
    if (present)
        return code_pointed(xdrs, pointer, &pointed);
    if (xdrs->x_op == XDR_ENCODE)
        return TRUE;
    // Callers follow the pointer without a test.
    *pointer = stg_malloc(element_size);
    if (*pointer == nullptr)
        return FALSE;
    memset(*pointer, 0, element_size);
    return TRUE;
}

bool_t xdr_ez_string8(XDR *xdrs, char **text, uint32_t maximum) {
    return xdr_string_pointer(xdrs, text, maximum);
}
