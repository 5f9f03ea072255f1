// What a scheduler answers: every reply of its procedures.
#include <fuzz/scheduler_records.h>

namespace {

#define RECORD(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                     \
    fuzz::try_scheduler_record<REPLY, xdr_##NAME##_V2_back>,
constexpr void (*records[])(const fuzz::Bytes &) = {RVZD_SCHEDULER_PROCEDURES(RECORD)};
#undef RECORD

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz::try_one_of(records, data, size);
}
