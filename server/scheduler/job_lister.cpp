#include <server/scheduler/job_lister.h>

#include <array>
#include <utility>

namespace velia::server {

namespace {

constexpr Shares makings = {2, 4, 16};
constexpr size_t jobs_a_round = 64;
constexpr size_t bytes_a_round = 256 * 1024;
constexpr size_t usual_job_bytes = 512;
constexpr size_t word_bytes = 4;
constexpr size_t job_bytes_max = 256 * 1024; // the record of its maker, names, and messages of a run

} // namespace

JobLister::JobLister(uv_loop_t *loop, const Jobs &jobs, Encode encode)
    : jobs_(jobs), encode_(encode), makings_(makings), round_(loop, [this] { go_on(); }) {}

bool JobLister::make(const Sender &sender, MessageBytes head, Done done) {
    const size_t count_at = head.size() - word_bytes;
    head.reserve(head.size() + jobs_.all().size() * usual_job_bytes); // of memory that is not touched yet
    auto making = std::make_unique<Making>(Making{sender, std::move(head), count_at, 0, 0, std::move(done)});
    if (!makings_.push(sender, std::move(making)))
        return false;
    if (count_++ == 0)
        round_.start();
    return true;
}

void JobLister::go_on() {
    auto making = makings_.pop();
    if (!making)
        return round_.stop();
    if (add_some(**making)) {
        const Sender sender = (*making)->sender;
        makings_.push(sender, std::move(*making)); // where it was just taken from
        return;
    }
    if (--count_ == 0)
        round_.stop();
    const auto done = std::move((*making)->done);
    done(std::move((*making)->bytes));
}

// False: it is done.
bool JobLister::add_some(Making &making) const {
    const size_t bytes_before = making.bytes.size();
    auto job = jobs_.all().upper_bound(making.last);
    for (size_t i = 0; i < jobs_a_round && making.bytes.size() - bytes_before < bytes_a_round; ++i, ++job) {
        if (job == jobs_.all().end()) {
            for (size_t byte = 0; byte < word_bytes; ++byte)
                making.bytes[making.count_at + byte] =
                    static_cast<unsigned char>(making.count >> (8 * (word_bytes - 1 - byte)));
            return false;
        }
        if (!add(making, job->second) || making.bytes.size() > job_list_bytes_max) {
            making.bytes = {};
            return false;
        }
    }
    return true;
}

bool JobLister::add(Making &making, const Job &job) const {
    static std::array<char, job_bytes_max> buffer;
    XDR stream;
    xdrmem_create(&stream, buffer.data(), buffer.size(), XDR_ENCODE);
    const bool is_encoded = encode_(stream, job);
    const size_t size = xdr_getpos(&stream);
    xdr_destroy(&stream);
    if (!is_encoded)
        return false;
    making.bytes.insert(making.bytes.end(), buffer.data(), buffer.data() + size);
    making.last = job.row.id;
    ++making.count;
    return true;
}

} // namespace velia::server
