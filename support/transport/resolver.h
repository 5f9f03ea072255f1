// The system's resolver, within the calling thread's limit.
#pragma once

#include <netdb.h>

namespace velia::support::transport {

struct Question {
    const char *host;    // null for none
    const char *service; // null for none
    addrinfo hints;
};

// As getaddrinfo, errno as well. EAI_AGAIN when the thread's limit has come, EAI_INTR when the thread was interrupted.
int look_up(const Question &question, addrinfo **answer);

} // namespace velia::support::transport
