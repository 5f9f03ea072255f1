// A call over a connection, whatever it runs over: records out, records in. Connections of different kinds differ in a
// `Road`.
#pragma once

#include "client.h"
#include "record_reader.h"

namespace velia::support::transport {

// How a connection of one kind is had.
struct Road {
    // Connects, also where the connection was one before, until the clock shows `until_us`. An errno value.
    int (*connect)(Client &client, Connection &connection, int64_t until_us);
    // The end of a connection is only seen by a look at what has come; else sending tells it.
    bool is_looked_at_first;
    // A request that was lost with its connection may be sent again.
    bool may_repeat;
};

enum class Ending {
    told,    // `client.error` tells how the call ended
    no_road, // the same; the request, or what was to be its repetition, found no connection
};

Ending exchange_over(Client &client, Connection &connection, const Road &road, const Call &call, int64_t until_us,
                     bool waits);

// The call as one record in `client.request`.
bool encode_record(Client &client, const Call &call);

} // namespace velia::support::transport
