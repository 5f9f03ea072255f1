// Stands between a store and its database, and breaks off when it is told to: behind a commit of which the database
// knows and the store does not, or before the database hears of it.
#pragma once

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

namespace velia::server {

class DroppingRelay {
public:
    enum class Drops : int { nothing, commit, answer_to_commit };

    explicit DroppingRelay(const std::filesystem::path &server_directory);
    ~DroppingRelay();
    DroppingRelay(const DroppingRelay &) = delete;
    DroppingRelay &operator=(const DroppingRelay &) = delete;

    std::string directory() const { return directory_; }

    // The next time, and then nothing again.
    void drop_next(Drops what) { drops_ = what; }

    // Lets nothing through from now on: breaks off what it carries, and what is new gets no answer until it lets go.
    void hold() { is_holding_ = true; }
    void let_go() { is_holding_ = false; }

    // Breaks off in place of carrying that piece from now on, of either side; 1 is the next one.
    void drop_piece(int piece) { pieces_left_ = piece; }
    bool has_dropped_piece() const { return pieces_left_ == 0; }

private:
    void run();
    void carry(int client, int server);

    std::filesystem::path directory_;
    const std::filesystem::path server_directory_;
    int listener_ = -1;
    std::atomic<Drops> drops_ = Drops::nothing;
    std::atomic<bool> is_holding_ = false;
    std::atomic<int> pieces_left_ = -1;
    std::atomic<bool> is_over_ = false;
    std::thread thread_;
};

} // namespace velia::server
