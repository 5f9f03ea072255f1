// What a scheduler answers: every reply of its procedures.
#include <fuzz/scheduler_records.h>

namespace {

#define RECORD(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                     \
    fuzz::try_scheduler_record<REPLY, xdr_##NAME##_V2_back>,
#define OWN_RECORD(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) fuzz::try_scheduler_record<REPLY, xdr_##REPLY>,
constexpr void (*records[])(const fuzz::Bytes &) = {RVZD_SCHEDULER_PROCEDURES(RECORD) RVZD_RUN_PROCEDURES(OWN_RECORD)};
#undef OWN_RECORD
#undef RECORD

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz::try_one_of(records, data, size);
}
