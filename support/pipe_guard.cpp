// The RPC library writes to its connections by write(2), which raises SIGPIPE when the peer has gone, and the default
// of that signal ends the process. How a process takes the signal is not for a library to change, and an ignored signal
// would be handed down to every program that the process starts. So the signal is held back in the calling thread for
// the length of a call, and one that the call has raised is taken off before it is let through again.
#include "pipe_guard.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <support/ivlthread.h>

namespace {

// The RPC library has one table of operations for all its TCP clients; ours is that table with another call.
CLIENT::clnt_ops guarded_operations;
decltype(CLIENT::clnt_ops::cl_call) plain_call;
ivlthread_mutex_t lock; // while they are made

sigset_t the_pipe_signal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    return signals;
}

bool is_pending() {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

void take_off(const sigset_t &signals) {
    const struct timespec at_once = {};
    while (sigtimedwait(&signals, nullptr, &at_once) < 0 && errno == EINTR) {
    }
}

// A raise that leaves the call restores the thread's signal mask with the frame on which it lands.
clnt_stat guarded_call(CLIENT *client, rpcproc_t procedure, xdrproc_t xdr_request, void *request, xdrproc_t xdr_reply,
                       void *reply, timeval timeout) {
    const sigset_t pipe_signal = the_pipe_signal();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
    // Only a thread that holds the signal back itself can have one waiting, which is its own.
    const bool is_anothers = sigismember(&before, SIGPIPE) == 1 && is_pending();
    const clnt_stat stat = plain_call(client, procedure, xdr_request, request, xdr_reply, reply, timeout);
    if (stat != RPC_SUCCESS && !is_anothers)
        take_off(pipe_signal);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return stat;
}

} // namespace

void velia::support::guard_against_broken_pipes(CLIENT *client) {
    ivlthread_mutex_lock(&lock);
    if (plain_call == nullptr) {
        guarded_operations = *client->cl_ops;
        guarded_operations.cl_call = guarded_call;
        plain_call = client->cl_ops->cl_call;
    }
    ivlthread_mutex_unlock(&lock);
    client->cl_ops = &guarded_operations;
}
