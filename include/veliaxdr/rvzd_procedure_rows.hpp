/*
 * The rows of <veliaxdr/rvzd_procedures.h> as C++ has them: typed by their records, each under its own name, and to be
 * walked as a whole.
 *
 *     #include <veliaxdr/rvzd_procedure_rows.hpp>
 *
 *     rvzd_contact_req_t request = {};
 *     xdr_free(velia::procedures::contact.request_routine(), &request);
 *
 * Nothing here is code of the library's, and nothing has state.
 */
#pragma once

#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_daemon.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_procedures.h>
#include <veliaxdr/rvzd_wire.h>
#include <veliaxdr/sched_runs.h>
#include <veliaxdr/sched_sets.h>
#include <veliaxdr/sched_wire.h>

namespace velia {

enum class Runs { REPEATABLE, ONCE };
enum class Over { ANY, TCP };

template <class Request, class Reply>
struct Procedure {
    uint32_t number;
    const char *name;        /* "rvzd_contact", "sched_contact" */
    const char *failed_text; /* "rvzd_contact call failed"; of the scheduler's "sched_contact_V2" */
    bool_t (*xdr_request)(XDR *, Request *);
    bool_t (*xdr_reply)(XDR *, Reply *);
    Runs runs;
    Over over;

    static constexpr Request empty_request() { return {}; }
    xdrproc_t request_routine() const { return reinterpret_cast<xdrproc_t>(xdr_request); }
    xdrproc_t reply_routine() const { return reinterpret_cast<xdrproc_t>(xdr_reply); }
};

namespace procedures {

#define VELIA_PROCEDURE_ROW(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                        \
    inline constexpr Procedure<REQUEST, REPLY> NAME = {                                                                \
        NUMBER, "rvzd_" #NAME, "rvzd_" #NAME " call failed", xdr_##REQUEST, xdr_##REPLY, Runs::RUNS, Over::OVER};
RVZD_PROCEDURES(VELIA_PROCEDURE_ROW)
#undef VELIA_PROCEDURE_ROW

#define VELIA_SCHEDULER_ROW(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                        \
    inline constexpr Procedure<REQUEST, REPLY> NAME = {                                                                \
        NUMBER, #NAME, #NAME "_V2", xdr_##NAME##_V2_over, xdr_##NAME##_V2_back, Runs::RUNS, Over::OVER};
RVZD_SCHEDULER_PROCEDURES(VELIA_SCHEDULER_ROW)
#undef VELIA_SCHEDULER_ROW

/* Those of this suite's own; failures of theirs are told under the row's name. */
#define VELIA_OWN_ROW(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                              \
    inline constexpr Procedure<REQUEST, REPLY> NAME = {                                                                \
        NUMBER, #NAME, #NAME " call failed", xdr_##REQUEST, xdr_##REPLY, Runs::RUNS, Over::OVER};
RVZD_RUN_PROCEDURES(VELIA_OWN_ROW)
RVZD_SET_PROCEDURES(VELIA_OWN_ROW)
#undef VELIA_OWN_ROW

} // namespace procedures

/*
 * Call `visit(row)` for each procedure of the broker, the registry and the daemon, of the scheduler, of its runs, and
 * of its sets.
 */
#define VELIA_VISIT_ROW(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) visit(procedures::NAME);
template <class Visit>
void for_each_procedure(Visit &&visit) {
    RVZD_PROCEDURES(VELIA_VISIT_ROW)
}
template <class Visit>
void for_each_scheduler_procedure(Visit &&visit) {
    RVZD_SCHEDULER_PROCEDURES(VELIA_VISIT_ROW)
}
template <class Visit>
void for_each_run_procedure(Visit &&visit) {
    RVZD_RUN_PROCEDURES(VELIA_VISIT_ROW)
}
template <class Visit>
void for_each_set_procedure(Visit &&visit) {
    RVZD_SET_PROCEDURES(VELIA_VISIT_ROW)
}
#undef VELIA_VISIT_ROW

} // namespace velia
