/*
 * What a procedure is called in figures and messages: the name in its row of <veliaxdr/rvzd_procedures.h>.
 *
 *     #include <veliaxdr/rvzd_procedure_names.hpp>
 *
 *     printf("%s\n", velia::procedure_name(RVZD_PROC_CONTACT).c_str()); // contact
 *
 * Nothing here is code of the library's, and nothing has state.
 */
#pragma once

#include <cstdint>
#include <string>

#include <veliaxdr/rvzd_procedures.h>

namespace velia {

/* One that has no row, since it is of a newer program, is called by its number: "procedure_10099". */
inline std::string procedure_name(uint32_t number) {
    switch (number) {
#define VELIA_CASE_OF_NAME(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                         \
    case NUMBER:                                                                                                       \
        return #NAME;
        RVZD_PROCEDURES(VELIA_CASE_OF_NAME)
        RVZD_SCHEDULER_PROCEDURES(VELIA_CASE_OF_NAME)
        RVZD_RUN_PROCEDURES(VELIA_CASE_OF_NAME)
        RVZD_SET_PROCEDURES(VELIA_CASE_OF_NAME)
#undef VELIA_CASE_OF_NAME
    default:
        return "procedure_" + std::to_string(number);
    }
}

} // namespace velia
