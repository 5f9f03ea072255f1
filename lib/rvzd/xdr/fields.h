// A record on the wire is a list of fields in their order; a routine fails with its first field that fails.
#pragma once

#include <rpc/rpc.h>

#include <support/xdr_prims.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::wire {

constexpr uint32_t no_maximum = UINT32_MAX;

// What follows a reply's header travels only with a good status. Free mode looks at everything that may hold storage.
inline bool has_body(const XDR *xdrs, const rvzd_hdr_reply_t &header) {
    return xdrs->x_op == XDR_FREE || header.status == TBS_ST_OK;
}

// A counted string of at most `maximum` bytes; null goes out as the empty string.
inline bool_t text(XDR *xdrs, char *&cell, uint32_t maximum = no_maximum) {
    return xdr_string_pointer(xdrs, &cell, maximum);
}

template <class Element>
using Routine = bool_t (*)(XDR *, Element *);

template <class Element, Routine<Element> routine>
bool_t code_element(XDR *xdrs, void *element, void * /*unused*/) {
    return routine(xdrs, static_cast<Element *>(element));
}

// `count` elements without a count word; `array` is made by decoding and cleared by freeing.
template <class Element, Routine<Element> routine>
bool_t code_elements(XDR *xdrs, Element *&array, uint32_t count) {
    void *elements = array;
    const bool_t done =
        xdr_ez_array(xdrs, &elements, &count, no_maximum, sizeof(Element), code_element<Element, routine>, nullptr);
    array = static_cast<Element *>(elements);
    return done;
}

} // namespace velia::wire
