#include <server/registry/random_uuid.h>

#include <sys/random.h>

#include <server/registry/store.h>

namespace velia::server {

tbs_uuid_t random_uuid() {
    tbs_uuid_t uuid;
    if (getrandom(&uuid, sizeof uuid, 0) != sizeof uuid)
        throw StoreError("no random bytes");
    uuid.bytes[6] = static_cast<uint8_t>((uuid.bytes[6] & 0x0f) | 0x40);
    uuid.bytes[8] = static_cast<uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);
    return uuid;
}

} // namespace velia::server
