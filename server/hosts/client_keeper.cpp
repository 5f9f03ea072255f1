#include <server/hosts/client_keeper.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <unistd.h>

#include <server/hosts/client_file.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::server {

namespace {

constexpr Worker::Shape saving_shape = {{1, 1, 1}, 1, 5};

} // namespace

struct ClientKeeper::Saving {
    std::vector<ListedHost> clients;
    bool is_joining;
    int error_number = 0;
    bool is_joined = false;

    // Throws nothing.
    void run(const std::string &file_name) {
        try {
            error_number = clients.empty() ? 0 : add_to_client_journal(file_name, clients);
            is_joined = error_number == 0 && is_joining && join_client_files(file_name);
        } catch (const std::bad_alloc &) {
            error_number = ENOMEM;
        }
    }
};

ClientKeeper::ClientKeeper(uv_loop_t *loop, std::string file_name, ClientList &list)
    : file_name_(std::move(file_name)), list_(list), timer_(loop, [this] { save(); }), worker_(loop, saving_shape) {
    journal_lines_ = read_client_file(file_name_, list_);
}

// A list of which nothing is known is never written.
void ClientKeeper::save_soon() {
    if (!is_save_due_ && !list_.is_withheld())
        timer_.start(CLIENTS_SAVE_DELAY_MS);
    is_save_due_ = true;
}

// The larger the list, the more lines pay for writing it whole; the first ones make the file.
bool ClientKeeper::is_join_due() const {
    return journal_lines_ >= std::max<size_t>(CLIENTS_SAVED_TOGETHER, list_.clients().size()) ||
           access(file_name_.c_str(), F_OK) != 0;
}

void ClientKeeper::save() {
    const auto saving = std::make_shared<Saving>(Saving{list_.take_changed(CLIENTS_SAVED_TOGETHER), is_join_due()});
    worker_.submit_first({[this, saving] { saving->run(file_name_); }, [this, saving] { take_end(*saving); }});
}

// What could not be saved is tried again; that it could not be is told once.
void ClientKeeper::take_end(const Saving &saving) {
    is_save_due_ = false;
    if (saving.error_number != 0) {
        list_.give_back(saving.clients);
        if (!is_failure_told_)
            imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, CLNT_LIST_MSG_CANNOT_WRITE,
                       journal_of(file_name_).c_str(), imsg_strerror(saving.error_number));
    } else {
        journal_lines_ = saving.is_joined ? 0 : journal_lines_ + saving.clients.size();
    }
    is_failure_told_ = saving.error_number != 0;
    if (list_.has_changed())
        save_soon();
}

// In pieces, as always: a journal has a bound.
void ClientKeeper::save_now() {
    worker_.wait();
    timer_.stop();
    while (list_.has_changed() && !list_.is_withheld()) {
        Saving piece = {list_.take_changed(CLIENTS_SAVED_TOGETHER), false};
        piece.run(file_name_);
        take_end(piece);
        if (piece.error_number != 0)
            break;
    }
    timer_.stop();
    if (journal_lines_ == 0)
        return;
    Saving last = {{}, true};
    last.run(file_name_);
    take_end(last);
    timer_.stop();
}

} // namespace velia::server
