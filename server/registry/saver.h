// The registry as one file for whoever asks for it over the network: a thread makes it, and gives it out piece by
// piece. The file has no name, so that nothing is left of it when the daemon ends, however that happens.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <server/loop/worker.h>
#include <support/tbs.h>

namespace velia::server {

class Saver {
public:
    explicit Saver(uv_loop_t *loop);
    ~Saver() { forget(); }
    Saver(const Saver &) = delete;
    Saver &operator=(const Saver &) = delete;

    struct Piece {
        uint64_t save = 0;
        uint64_t pages_done = 0;
        uint64_t pages = 0;
        uint64_t size = 0; // 0 while it is made
        std::string failure;
        std::vector<uint8_t> bytes;
    };
    using Answer = std::function<void(tbs_status_t, Piece)>;

    // Number 0 begins a new one, unless one is being made or given out to somebody who asks for it: TBS_ST_TRY_AGAIN.
    // TBS_ST_NOT_FOUND: there is none of this number any more.
    void ask(uint64_t number, uint64_t offset, size_t bytes_max, const Answer &answer);

private:
    struct Save;
    void begin();
    void forget();

    TimerHandle idle_timer_;
    uint64_t next_number_;
    int64_t asked_ms_ = 0;       // for the present one, last
    std::shared_ptr<Save> save_; // the thread's, too
    Worker worker_;              // goes first
};

} // namespace velia::server
