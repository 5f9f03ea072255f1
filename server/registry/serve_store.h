// Rows of the daemon's table whose work is on the registry's store:
//
//     serve_store<procedures::rgy_get_dtm, Lane::look_up, get_dtm>(service)
//
// The work is a plain function, since a thread does it:
//
//     tbs_status_t (RegistryView &, const Request &, const Caller &, Reply<Record> &)  is tried on what is in memory
//                                                                                      first; not_in_memory sends it on
//     tbs_status_t (Registry &, const Request &, const Caller &, Reply<Record> &)      always goes to a thread
//
// A look-up out of memory is answered at once. For the rest the arguments are copied, and decoded again by the thread.
#pragma once

#include <server/registry/service.h>
#include <server/rpc/serve.h>

namespace velia::server {

constexpr tbs_status_t not_in_memory = -1;

template <class Function>
struct StoreWork;

template <class ViewOf, class RequestOf, class RecordOf>
struct StoreWork<tbs_status_t (*)(ViewOf &, const RequestOf &, const Caller &, Reply<RecordOf> &)> {
    using View = ViewOf;
    using Request = RequestOf;
    using Record = RecordOf;
};

// Arguments taken off a stream, and given back at the end.
template <const auto &procedure, class Request>
class Decoded {
public:
    explicit Decoded(XDR &arguments)
        : request_(procedure.empty_request()), is_whole_(procedure.xdr_request(&arguments, &request_) != FALSE) {}
    ~Decoded() { xdr_free(procedure.request_routine(), &request_); }
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;

    bool is_whole() const { return is_whole_; }
    const Request &request() const { return request_; }

private:
    Request request_;
    bool is_whole_;
};

// One call on its way through a thread and back.
struct StoreErrand {
    uint32_t xid;
    Caller caller;
    ReplySink sink;
    MessageBytes arguments;
    bool has_to_be_filled; // the registry, else there is nothing to tell
    uint64_t version;      // of the store, when the call was sent off
    MessageBytes reply = {};
    Learned learned = {};
    std::function<void()> afterwards = {};
};

template <const auto &procedure, auto work, class Request>
void answer_out_of(Registry &registry, const Request &request, StoreErrand &errand) {
    using Kind = StoreWork<decltype(work)>;
    Reply<typename Kind::Record> reply;
    const auto status = work(registry, request, errand.caller, reply);
    const ReplySink take = [&](MessageBytes bytes) { errand.reply = std::move(bytes); };
    const Call call = {errand.xid, errand.caller, take};
    AnswerNow<typename Kind::Record>(procedure, request, call)(status, reply.record);
    errand.afterwards = std::move(reply.afterwards);
}

template <class Request>
concept Fetches = requires(const Request &request) {
    request.db;
    request.dtm;
    request.cursor;
};

// Of entries that follow those which the caller has already, under the stamps that came with them.
template <class Request>
bool is_reading_on(const Request &request) {
    if constexpr (Fetches<Request>)
        return request.cursor != 0 && request.db >= 0 && request.db < RGY_DB_ALL;
    return false;
}

template <const auto &procedure, auto work>
void run_decoded(StoreErrand &errand, Store &store, XDR &arguments) {
    const Decoded<procedure, typename StoreWork<decltype(work)>::Request> decoded(arguments);
    const auto &request = decoded.request();
    Registry registry(store, &errand.learned);
    if (!decoded.is_whole())
        errand.reply = encode_refusal(errand.xid, GARBAGE_ARGS);
    else if (!is_reading_on(request))
        answer_out_of<procedure, work>(registry, request, errand);
    else if constexpr (Fetches<decltype(request)>)
        store.reading_on(static_cast<rgy_db_t>(request.db), request.dtm, [&](Store &source) {
            Registry elsewhere(source);
            answer_out_of<procedure, work>(&source == &store ? registry : elsewhere, request, errand);
        });
}

// In the thread, and once more if what it did was taken back.
template <const auto &procedure, auto work>
void run_errand(StoreErrand &errand, Store &store) {
    errand.learned = {};
    if (errand.has_to_be_filled && !Registry(store, &errand.learned).is_filled()) {
        errand.reply = bare_reply<procedure>(errand.xid, TBS_ST_NO_SERVER);
        return;
    }
    XDR arguments;
    xdrmem_create(&arguments, reinterpret_cast<char *>(errand.arguments.data()),
                  static_cast<u_int>(errand.arguments.size()), XDR_DECODE);
    run_decoded<procedure, work>(errand, store, arguments);
    xdr_destroy(&arguments);
}

// Back in the loop.
template <const auto &procedure, auto work>
void end_errand(RegistryService &service, StoreErrand &errand, const StoreFailure &failure) {
    if (failure.status == TBS_ST_OK) {
        service.memory().learn(errand.version, std::move(errand.learned));
        if (errand.afterwards)
            errand.afterwards();
    } else {
        if (failure.status == TBS_ST_ERROR)
            RegistryService::print_failure(failure.words.c_str());
        errand.reply = bare_reply<procedure>(errand.xid, failure.status);
    }
    errand.sink(std::move(errand.reply));
}

template <const auto &procedure, Lane lane, auto work>
void send_errand(RegistryService &service, const Call &call, Bytes arguments) {
    const auto errand = std::make_shared<StoreErrand>(StoreErrand{call.xid, call.caller, call.sink,
                                                                  MessageBytes(arguments.begin(), arguments.end()),
                                                                  !service.is_master(), service.memory().version()});
    const bool is_taken = service.ask(
        lane, sender_of(call.caller),
        {[errand](Store &store) { run_errand<procedure, work>(*errand, store); },
         [&service, errand](const StoreFailure &failure) { end_errand<procedure, work>(service, *errand, failure); }});
    if (!is_taken)
        call.sink(bare_reply<procedure>(call.xid, TBS_ST_TRY_AGAIN));
}

// True when the call was answered out of memory.
template <const auto &procedure, auto work, class Request>
bool answer_from_memory(RegistryService &service, const Request &request, const Call &call) {
    if constexpr (std::is_same_v<typename StoreWork<decltype(work)>::View, RegistryView>) {
        Reply<typename StoreWork<decltype(work)>::Record> reply;
        const auto status = service.is_serving() ? work(service.memory(), request, call.caller, reply) : not_in_memory;
        if (status == not_in_memory)
            return false;
        AnswerNow<typename StoreWork<decltype(work)>::Record>(procedure, request, call)(status, reply.record);
        return true;
    }
    return false;
}

// TBS_ST_OK where there is a registry for it.
template <Lane lane>
tbs_status_t refusal_of(RegistryService &service) {
    if (!service.is_serving().value_or(true))
        return TBS_ST_NO_SERVER;
    return lane == Lane::update ? service.refusal_of_update() : tbs_status_t{TBS_ST_OK};
}

template <const auto &procedure, Lane lane, auto work>
bool run_on_store(void *owner, XDR &arguments, const Call &call) {
    using Kind = StoreWork<decltype(work)>;
    auto &service = *static_cast<RegistryService *>(owner);
    const tbs_status_t refusal = refusal_of<lane>(service);
    // A search's arguments may be long: what they are is left to the thread.
    if constexpr (lane == Lane::search) {
        if (!call.is_permitted({procedure.number}))
            call.sink(bare_reply<procedure>(call.xid, TBS_ST_NO_ACCESS));
        else if (refusal != TBS_ST_OK)
            call.sink(bare_reply<procedure>(call.xid, refusal));
        else
            send_errand<procedure, lane, work>(service, call, call.arguments);
    } else {
        const Decoded<procedure, typename Kind::Request> decoded(arguments);
        if (!decoded.is_whole())
            return false;
        if (!call.is_permitted(demand_of(procedure.number, decoded.request())))
            refuse<procedure>(procedure, decoded.request(), call);
        else if (refusal != TBS_ST_OK)
            call.sink(bare_reply<procedure>(call.xid, refusal));
        else if (!answer_from_memory<procedure, work>(service, decoded.request(), call))
            send_errand<procedure, lane, work>(service, call, call.arguments.first(xdr_getpos(&arguments)));
    }
    return true;
}

template <const auto &procedure, Lane lane, auto work>
ServedProcedure serve_store(RegistryService &service) {
    return {procedure.number, procedure.runs == Runs::ONCE,        procedure.over == Over::TCP,
            &service,         run_on_store<procedure, lane, work>, bare_reply<procedure>};
}

} // namespace velia::server
