#include <server/registry/saver.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <server/registry/saved.h>
#include <server/registry/service.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr uint64_t idle_ms = 60'000;
constexpr int64_t left_ms = 5000; // whoever has not asked for so long may have been killed, and is in nobody's way
constexpr Worker::Shape shape = {{16, 64, 256}, 1, 5};
const Sender daemon_itself = {};

} // namespace

struct Saver::Save {
    uint64_t number = 0;
    std::atomic<bool> is_given_up = false;
    std::atomic<uint64_t> pages_done = 0;
    std::atomic<uint64_t> pages = 0;
    // The thread's until it is made, and then for good.
    std::atomic<bool> is_ended = false;
    UniqueFd fd;
    uint64_t size = 0;
    std::string failure;

    void make() {
        const std::string name = registry_file() + ".sent";
        try {
            unlink(name.c_str());
            make_file(name);
            take(name);
        } catch (const std::exception &error) {
            failure = error.what();
        }
        is_ended = true;
    }

private:
    void make_file(const std::string &name) {
        if (is_registry_shared())
            return existing_registry()->save_to(name);
        save_registry(registry_file(), name, [this](uint64_t done, uint64_t total) {
            pages_done = done;
            pages = total;
            return !is_given_up;
        });
    }

    void take(const std::string &name) {
        fd = UniqueFd(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        struct stat status = {};
        if (!fd || fstat(fd.get(), &status) != 0)
            throw StoreError(imsg_strerror(errno));
        unlink(name.c_str());
        size = static_cast<uint64_t>(status.st_size);
        pages_done = pages.load();
    }
};

// Numbers of a former daemon mean nothing to this one.
Saver::Saver(uv_loop_t *loop)
    : idle_timer_(loop, [this] { forget(); }), next_number_(static_cast<uint64_t>(time(nullptr)) << 20),
      worker_(loop, shape) {}

void Saver::begin() {
    save_ = std::make_shared<Save>();
    save_->number = ++next_number_;
    worker_.submit(daemon_itself, {[save = save_] { save->make(); }, [] {}});
}

void Saver::forget() {
    if (save_ != nullptr)
        save_->is_given_up = true;
    save_.reset();
}

// What is not made yet is told of from here; pieces are read by the thread.
void Saver::ask(uint64_t number, uint64_t offset, size_t bytes_max, const Answer &answer) {
    if (number == 0 && save_ != nullptr && monotonic_ms() - asked_ms_ < left_ms)
        return answer(TBS_ST_TRY_AGAIN, {});
    if (number == 0) {
        forget();
        begin();
    }
    if (save_ == nullptr || (number != 0 && save_->number != number))
        return answer(TBS_ST_NOT_FOUND, {});
    idle_timer_.start(idle_ms);
    asked_ms_ = monotonic_ms();
    const auto piece = std::make_shared<Piece>(Piece{save_->number, save_->pages_done, save_->pages, 0, "", {}});
    if (!save_->is_ended)
        return answer(TBS_ST_OK, *piece);
    piece->size = save_->size;
    piece->failure = save_->failure;
    const bool is_over = !piece->failure.empty() || offset >= piece->size;
    if (is_over) {
        forget();
        return answer(TBS_ST_OK, *piece);
    }
    const bool is_taken =
        worker_.submit(daemon_itself, {[save = save_, piece, offset, bytes_max] {
                                           piece->bytes.resize(bytes_max);
                                           const ssize_t size = pread(save->fd.get(), piece->bytes.data(), bytes_max,
                                                                      static_cast<off_t>(offset));
                                           piece->bytes.resize(size > 0 ? static_cast<size_t>(size) : 0);
                                       },
                                       [piece, answer] {
                                           const bool is_read = !piece->bytes.empty();
                                           answer(is_read ? TBS_ST_OK : TBS_ST_ERROR, std::move(*piece));
                                       }});
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

} // namespace velia::server
