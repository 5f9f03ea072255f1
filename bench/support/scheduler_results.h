// What a scheduler answers in benchmarks, as bytes behind a reply's header.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace bench {

template <class Record>
std::string encoded(bool_t (*routine)(XDR *, Record *), Record record, size_t room = 1024) {
    std::string bytes(room, '\0');
    XDR stream;
    xdrmem_create(&stream, bytes.data(), static_cast<u_int>(room), XDR_ENCODE);
    if (!routine(&stream, &record)) {
        fprintf(stderr, "a record does not encode\n");
        exit(1);
    }
    bytes.resize(xdr_getpos(&stream));
    return bytes;
}

inline std::string scheduler_contact() {
    uint32_t version = SCHED_INTERFACE_VERSION;
    return encoded(velia::procedures::sched_contact.xdr_reply, {TBS_ST_OK, &version, &version});
}

} // namespace bench
