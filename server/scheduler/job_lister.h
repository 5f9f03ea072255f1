// Lists of all jobs as they travel. There may be many jobs, so a list is made in several rounds of the loop, a few jobs
// in each, and others are served between. Each job is as it was in its round.
#pragma once

#include <functional>
#include <memory>

#include <server/loop/fair_queue.h>
#include <server/loop/handles.h>
#include <server/rpc/reply.h>
#include <server/scheduler/jobs.h>

namespace velia::server {

// How long a list may be: a client takes a record of 64 MiB.
constexpr size_t job_list_bytes_max = size_t{60} << 20;

class JobLister {
public:
    using Encode = bool (*)(XDR &stream, const Job &job);
    using Done = std::function<void(MessageBytes message)>; // empty: it became too long

    JobLister(uv_loop_t *loop, const Jobs &jobs, Encode encode);

    // `head` is the message of an empty list, whose last word is the count. False: the sender's share is full.
    bool make(const Sender &sender, MessageBytes head, Done done);

private:
    struct Making {
        Sender sender;
        MessageBytes bytes;
        size_t count_at;
        uint32_t count;
        sched_job_id_t last;
        Done done;
    };

    void go_on();
    bool add_some(Making &making) const;
    bool add(Making &making, const Job &job) const;

    const Jobs &jobs_;
    Encode encode_;
    FairQueue<std::unique_ptr<Making>> makings_;
    size_t count_ = 0;
    RoundHandle round_;
};

} // namespace velia::server
