// Files of jobs as the tool reads them, with the lines that no other reader takes. Each job is written and read again
// as the same; the file as a whole is formatted, which changes no job, and nothing when it is done again.
#include <fuzz/harness.h>

#include <cli/definition_format.h>
#include <cli/definition_text.h>
#include <cli/definitions.h>

using namespace velia::cli;

namespace {

// The job that is followed by its name, where it is; tasks by their ids.
DefinitionLines lines_of_job(const JobDefinition &definition) {
    const Names names = {[](sched_task_id_t) { return std::string(); },
                         [&](sched_job_id_t) { return definition.follows; }};
    return lines_of(definition.job->rw, names);
}

std::string text_of(const JobDefinition &definition) {
    return definition_of(lines_of_job(definition));
}

void require_same_when_read_again(const JobDefinition &definition) {
    const std::string text = text_of(definition);
    const JobFile again("again.jobs", text, any_task);
    FUZZ_REQUIRE(again.findings().empty() && again.jobs().size() == 1);
    FUZZ_REQUIRE(text_of(again.jobs()[0]) == text);
}

void require_same_when_formatted(const JobFile &file) {
    Findings findings;
    const std::string text = formatted(file, findings);
    FUZZ_REQUIRE(findings.empty() || text.empty());
    if (!findings.empty())
        return;
    const JobFile again("formatted.jobs", text, any_task);
    FUZZ_REQUIRE(again.findings().empty() && again.jobs().size() == file.jobs().size());
    for (size_t i = 0; i < again.jobs().size(); ++i)
        FUZZ_REQUIRE(text_of(again.jobs()[i]) == text_of(file.jobs()[i]));
    FUZZ_REQUIRE(formatted(again, findings) == text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const JobFile file("some.jobs", std::string(reinterpret_cast<const char *>(data), size), any_task);
    FUZZ_REQUIRE(file.findings().empty() || file.jobs().empty());
    for (const JobDefinition &definition : file.jobs())
        require_same_when_read_again(definition);
    if (file.findings().empty())
        require_same_when_formatted(file);
    return 0;
}
