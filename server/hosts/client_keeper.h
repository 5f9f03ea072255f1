// Keeps what is entered in the client list: a thread adds a few at a time to the journal of its file, and now and then
// makes one file of both. A registration costs the loop no more than its own line.
#pragma once

#include <cstdint>
#include <string>

#include <server/hosts/client_list.h>
#include <server/loop/handles.h>
#include <server/loop/worker.h>

namespace velia::server {

class ClientKeeper {
public:
    enum : uint32_t {
        CLIENTS_SAVED_TOGETHER = 256,
        CLIENTS_SAVE_DELAY_MS = 1000, // from the first change, and between two savings
    };

    // Enters what the file says. The list has to outlive it.
    ClientKeeper(uv_loop_t *loop, std::string file_name, ClientList &list);

    // The list has changed.
    void save_soon();

    // Saves all that has changed, and waits for it. Nothing comes after it.
    void save_now();

private:
    struct Saving;

    void save();
    void take_end(const Saving &saving);
    bool is_join_due() const;

    const std::string file_name_;
    ClientList &list_;
    size_t journal_lines_ = 0; // that the file has not
    bool is_save_due_ = false; // or under way
    bool is_failure_told_ = false;
    TimerHandle timer_;
    Worker worker_; // goes first
};

} // namespace velia::server
