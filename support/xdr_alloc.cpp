// The allocating forms. A length or a count from the wire is believed only as far as bytes arrive for it: storage grows
// in steps, and what a failed decoding has taken is given back before it returns.
#include <support/xdr_prims.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t string_step = 1024; // a multiple of 4, so that only the last step meets the padding
constexpr uint64_t array_first_bytes = 4096;

bool_t encode_string(XDR *xdrs, const char *text, uint32_t maximum) {
    const char *sent = text != nullptr ? text : "";
    const size_t length = strlen(sent);
    if (length > maximum)
        return FALSE;
    auto length_word = static_cast<uint32_t>(length);
    return xdr_u_int(xdrs, &length_word) && xdr_opaque(xdrs, const_cast<char *>(sent), length_word);
}

uint32_t smaller(uint32_t left, uint32_t right) {
    return left < right ? left : right;
}

// The bytes of a string of `length`, terminated; null if they do not all arrive or one of them is zero.
char *decode_bytes(XDR *xdrs, uint32_t length) {
    char *bytes = nullptr;
    uint64_t size = 0;
    uint32_t done = 0;
    do {
        const uint32_t step = smaller(length - done, string_step);
        const uint64_t needed = uint64_t{done} + step + 1;
        if (needed > size) {
            size = needed + done / 2;
            auto *room = static_cast<char *>(stg_realloc(bytes, size));
            if (room == nullptr)
                break;
            bytes = room;
        }
        if (!xdr_opaque(xdrs, bytes + done, step) || memchr(bytes + done, 0, step) != nullptr)
            break;
        done += step;
        if (done == length) {
            bytes[length] = '\0';
            return bytes;
        }
    } while (done < length);
    stg_free(bytes);
    return nullptr;
}

bool_t decode_string(XDR *xdrs, char **text, uint32_t maximum) {
    *text = nullptr;
    uint32_t length = 0;
    if (!xdr_u_int(xdrs, &length) || length > maximum)
        return FALSE;
    *text = decode_bytes(xdrs, length);
    return *text != nullptr;
}

bool_t free_string(char **text) {
    stg_free(*text);
    *text = nullptr;
    return TRUE;
}

// The elements of an array and how each is coded.
struct Elements {
    uint32_t size;
    xdr_ez_element_t code;
    void *argument;

    void *at(void *array, uint64_t index) const { return static_cast<char *>(array) + index * size; }

    bool_t run(XDR *xdrs, void *array, uint32_t count) const {
        for (uint32_t i = 0; i < count; ++i) {
            if (!code(xdrs, at(array, i), argument))
                return FALSE;
        }
        return TRUE;
    }

    void release(void *array, uint32_t count) const {
        XDR freeing = {};
        freeing.x_op = XDR_FREE;
        run(&freeing, array, count);
    }
};

// Room for one element more than `filled`, zeroed; null if there is no memory, and the array as it was.
void *grown(void *array, uint32_t filled, uint32_t count, uint32_t element_size, uint64_t &capacity) {
    if (filled < capacity)
        return array;
    const uint64_t unit = element_size != 0 ? element_size : 1;
    const uint64_t wanted = capacity != 0 ? capacity + capacity / 2 + 1 : array_first_bytes / unit + 1;
    const uint64_t new_capacity = wanted < count ? wanted : count;
    void *room = stg_realloc(array, new_capacity * unit);
    if (room == nullptr)
        return nullptr;
    memset(static_cast<char *>(room) + filled * unit, 0, (new_capacity - filled) * unit);
    capacity = new_capacity;
    return room;
}

// The element that failed is released, too: it may have been decoded in part.
bool_t decode_new_array(XDR *xdrs, void **array, uint32_t count, const Elements &elements) {
    uint64_t capacity = 0;
    void *made = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        void *room = grown(made, i, count, elements.size, capacity);
        const bool has_room = room != nullptr;
        made = has_room ? room : made;
        if (!has_room || !elements.code(xdrs, elements.at(made, i), elements.argument)) {
            elements.release(made, has_room ? i + 1 : i);
            stg_free(made);
            return FALSE;
        }
    }
    *array = made;
    return TRUE;
}

bool_t decode_into_array(XDR *xdrs, void *array, uint32_t count, const Elements &elements) {
    memset(array, 0, uint64_t{count} * elements.size);
    if (elements.run(xdrs, array, count))
        return TRUE;
    elements.release(array, count);
    memset(array, 0, uint64_t{count} * elements.size);
    return FALSE;
}

bool_t free_array(void **array, uint32_t count, const Elements &elements) {
    if (*array == nullptr)
        return TRUE;
    elements.release(*array, count);
    stg_free(*array);
    *array = nullptr;
    return TRUE;
}

void *zeroed(uint32_t size) {
    void *object = stg_malloc(size);
    if (object != nullptr)
        memset(object, 0, size);
    return object;
}

bool_t encode_pointer(XDR *xdrs, void *object, xdr_ez_element_t element, void *argument) {
    bool_t is_present = object != nullptr;
    return xdr_bool(xdrs, &is_present) && (!is_present || element(xdrs, object, argument));
}

bool_t decode_pointer(XDR *xdrs, void **pointer, uint32_t size, xdr_ez_element_t element, void *argument) {
    const bool is_own = *pointer == nullptr;
    bool_t is_present = FALSE;
    if (!xdr_bool(xdrs, &is_present))
        return FALSE;
    void *object = is_own ? zeroed(size) : memset(*pointer, 0, size);
    if (object == nullptr)
        return FALSE;
    if (is_present && !element(xdrs, object, argument)) {
        const Elements one = {size, element, argument};
        one.release(object, 1);
        if (is_own)
            stg_free(object);
        return FALSE;
    }
    *pointer = object;
    return TRUE;
}

bool_t free_pointer(XDR *xdrs, void **pointer, xdr_ez_element_t element, void *argument) {
    if (*pointer == nullptr)
        return TRUE;
    element(xdrs, *pointer, argument);
    stg_free(*pointer);
    *pointer = nullptr;
    return TRUE;
}

} // namespace

bool_t xdr_string_pointer(XDR *xdrs, char **text, uint32_t maximum) {
    switch (xdrs->x_op) {
    case XDR_ENCODE:
        return encode_string(xdrs, *text, maximum);
    case XDR_DECODE:
        return decode_string(xdrs, text, maximum);
    case XDR_FREE:
        return free_string(text);
    }
    return FALSE;
}

bool_t xdr_ez_string8(XDR *xdrs, char **text, uint32_t maximum) {
    return xdr_string_pointer(xdrs, text, maximum);
}

bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, char **path) {
    return xdr_string_pointer(xdrs, path, XDR_PATH_MAX);
}

bool_t xdr_ez_array(XDR *xdrs, void **array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                    xdr_ez_element_t element, void *argument) {
    const Elements elements = {element_size, element, argument};
    if (xdrs->x_op == XDR_FREE)
        return free_array(array, *count, elements);
    if (*count > maximum || (xdrs->x_op == XDR_ENCODE && *count > 0 && *array == nullptr))
        return FALSE;
    if (xdrs->x_op == XDR_ENCODE)
        return elements.run(xdrs, *array, *count);
    return *array == nullptr ? decode_new_array(xdrs, array, *count, elements)
                             : decode_into_array(xdrs, *array, *count, elements);
}

bool_t xdr_ez_p2array(XDR *xdrs, void ***array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                      xdr_ez_element_t element, void *argument) {
    void *none = nullptr;
    void **cell = *array != nullptr ? *array : &none;
    if (xdrs->x_op == XDR_DECODE && *array == nullptr) {
        cell = static_cast<void **>(zeroed(sizeof(void *)));
        if (cell == nullptr)
            return FALSE;
    }
    const bool_t done = xdr_ez_array(xdrs, cell, count, maximum, element_size, element, argument);
    const bool is_made_in_vain = xdrs->x_op == XDR_DECODE && *array == nullptr && !done;
    if (is_made_in_vain)
        stg_free(cell);
    else if (xdrs->x_op == XDR_DECODE)
        *array = cell;
    if (xdrs->x_op == XDR_FREE) {
        stg_free(*array);
        *array = nullptr;
    }
    return done;
}

bool_t xdr_ez_pointer(XDR *xdrs, void **pointer, uint32_t element_size, xdr_ez_element_t element, void *argument) {
    switch (xdrs->x_op) {
    case XDR_ENCODE:
        return encode_pointer(xdrs, *pointer, element, argument);
    case XDR_DECODE:
        return decode_pointer(xdrs, pointer, element_size, element, argument);
    case XDR_FREE:
        return free_pointer(xdrs, pointer, element, argument);
    }
    return FALSE;
}
