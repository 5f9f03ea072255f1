// Rows are handed on as they come. Only what was changed is kept until it is known to be written.
#include <cli/results.h>

#include <iostream>

#include <unistd.h>

#include <cli/messages.h>
#include <cli/streams.h>
#include <support/imsg.h>

namespace velia::cli {

Results::Results(const Output &output, const Settings &settings, Of of)
    : writer_(output, settings.format, settings.with_headers, std::cout), settings_(settings), output_(output),
      of_(of) {}

Results::~Results() {
    if (is_finished_)
        return;
    writer_.break_off();
    write_out();
}

void Results::add(Cells cells) {
    writer_.add(cells);
    if (of_ == Of::change)
        unsure_.push_back(std::move(cells));
}

bool Results::pause() {
    return write_out();
}

bool Results::show() {
    writer_.show_all();
    return write_out();
}

// Programs know an empty result when they see it; a person wonders whether anything has been done.
void Results::finish() {
    is_finished_ = true;
    writer_.finish();
    if (write_out() && empty() && settings_.format != Format::json && isatty(STDERR_FILENO) != 0)
        std::cerr << "Nothing found\n";
}

bool Results::write_out() {
    const bool is_written = flush_results();
    if (!is_written)
        tell_unsure();
    else if (writer_.is_all_shown())
        unsure_.clear();
    return is_written;
}

void Results::tell_unsure() {
    if (unsure_.empty())
        return;
    if (!has_told_)
        imsg_print(IMSG_PLAIN, "This has been done all the same:\n", IMSG_FORMAT);
    Writer writer(output_, tells_in_json() ? Format::jsonl : Format::plain, settings_.with_headers && !has_told_,
                  std::cerr);
    for (const auto &cells : unsure_)
        writer.add(cells);
    writer.finish();
    unsure_.clear();
    has_told_ = true;
}

} // namespace velia::cli
