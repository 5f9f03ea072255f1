// What anybody may send to the page of figures: the pieces in which it comes change nothing.
#include <fuzz/harness.h>

#include <string>
#include <string_view>

#include <server/metrics/http_request.h>

using namespace velia::server;

namespace {

// Feeds it in pieces of this size; 0 while more has to come.
int status_of(std::string_view bytes, size_t piece) {
    HttpRequest request;
    while (!bytes.empty()) {
        if (request.feed(bytes.substr(0, piece)))
            return request.status();
        bytes.remove_prefix(std::min(piece, bytes.size()));
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    const int whole = status_of(bytes, bytes.size());
    const int in_pieces = status_of(bytes, data[0] % 64 + 1);
    // What comes behind a head that is too long may be nonsense, too, of which the first is told.
    FUZZ_REQUIRE((whole == 0) == (in_pieces == 0));
    FUZZ_REQUIRE(whole != 200 || in_pieces == 200 || in_pieces == 400);
    FUZZ_REQUIRE(whole == 0 || !http_answer(whole, "velia_x 1\n", true).empty());
    return 0;
}
