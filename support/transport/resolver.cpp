// The resolver cannot be told how long it may take. Where that matters, a thread of its own asks it, and is left alone
// with what it finds when the time is over.
#include "resolver.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "interrupt.h"
#include "limits.h"
#include "wait.h"

namespace velia::support::transport {

namespace {

constexpr int64_t for_ever_us = INT64_MAX / 4;

// Whoever of the two is the second to let go of it ends it.
struct Inquiry {
    char *host;
    char *service;
    addrinfo hints;
    addrinfo *answer;
    int error;
    int error_number;
    int done; // an eventfd
    std::atomic<bool> is_answered;
    std::atomic<bool> is_let_go;
};

void end(Inquiry *inquiry) {
    if (inquiry->answer != nullptr)
        freeaddrinfo(inquiry->answer);
    if (inquiry->done >= 0)
        close(inquiry->done);
    free(inquiry->host);
    free(inquiry->service);
    delete inquiry;
}

void let_go(Inquiry *inquiry) {
    if (inquiry->is_let_go.exchange(true))
        end(inquiry);
}

bool copy_text(char *&copy, const char *text) {
    copy = text != nullptr ? strdup(text) : nullptr;
    return text == nullptr || copy != nullptr;
}

// Null without the means for it.
Inquiry *make_inquiry(const Question &question) {
    auto *inquiry = new (std::nothrow) Inquiry{nullptr, nullptr, question.hints, nullptr, 0, 0, -1, false, false};
    if (inquiry == nullptr)
        return nullptr;
    inquiry->done = eventfd(0, EFD_CLOEXEC);
    if (inquiry->done >= 0 && copy_text(inquiry->host, question.host) && copy_text(inquiry->service, question.service))
        return inquiry;
    end(inquiry);
    return nullptr;
}

void *inquire(void *argument) {
    auto *inquiry = static_cast<Inquiry *>(argument);
    errno = 0;
    inquiry->error = getaddrinfo(inquiry->host, inquiry->service, &inquiry->hints, &inquiry->answer);
    inquiry->error_number = errno;
    inquiry->is_answered = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(inquiry->done, &one, sizeof one);
    let_go(inquiry);
    return nullptr;
}

// Signals are the program's, whose threads they go to.
bool begin(Inquiry *inquiry) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const bool is_begun = pthread_create(&thread, nullptr, inquire, inquiry) == 0;
    if (is_begun)
        pthread_detach(thread);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return is_begun;
}

int take_answer(Inquiry *inquiry, Wait outcome, addrinfo **answer) {
    int error = outcome == Wait::interrupted ? EAI_INTR : EAI_AGAIN;
    int error_number = 0;
    if (inquiry->is_answered) {
        error = inquiry->error;
        error_number = inquiry->error_number;
        *answer = inquiry->answer;
        inquiry->answer = nullptr;
    }
    let_go(inquiry);
    errno = error_number;
    return error;
}

} // namespace

int look_up(const Question &question, addrinfo **answer) {
    const bool may_wait = question.host != nullptr && (has_limit() || wake_descriptor() >= 0);
    Inquiry *inquiry = may_wait ? make_inquiry(question) : nullptr;
    if (inquiry == nullptr)
        return getaddrinfo(question.host, question.service, &question.hints, answer);
    if (!begin(inquiry)) {
        end(inquiry);
        return getaddrinfo(question.host, question.service, &question.hints, answer);
    }
    return take_answer(inquiry, wait_for(inquiry->done, POLLIN, deadline_after(for_ever_us)), answer);
}

} // namespace velia::support::transport
