// Rows are handed on as they come. Only what was changed is kept until it is known to be written.
#include <cli/results.h>

#include <iostream>

#include <unistd.h>

#include <cli/messages.h>
#include <cli/streams.h>
#include <support/imsg.h>

namespace velia::cli {

Results::Results(const Output &output, const Settings &settings, Of of)
    : settings_(settings), rows_(output, settings.view),
      writer_(rows_.output(), settings.format, settings.with_headers, std::cout), of_(of) {}

Results::~Results() {
    if (is_finished_)
        return;
    write_held();
    writer_.break_off();
    write_out();
}

void Results::add(Cells cells) {
    if (of_ == Of::change)
        unsure_.push_back(rows_.chosen(cells));
    if (rows_.is_sorting())
        held_.push_back(std::move(cells));
    else
        write(cells);
}

void Results::write(const Cells &cells) {
    if (settings_.view.limit != 0 && written_ == settings_.view.limit)
        return;
    ++written_;
    writer_.add(rows_.chosen(cells));
}

void Results::write_held() {
    if (rows_.is_sorting())
        rows_.sort(held_);
    for (const auto &cells : held_)
        write(cells);
    held_.clear();
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
    write_held();
    writer_.finish();
    if (write_out() && empty() && settings_.format != Format::json && isatty(STDERR_FILENO) != 0)
        std::cerr << "Nothing found\n";
}

bool Results::write_out() {
    const bool is_written = flush_results();
    if (!is_written)
        tell_unsure();
    else if (writer_.is_all_shown() && held_.empty())
        unsure_.clear();
    return is_written;
}

void Results::tell_unsure() {
    if (unsure_.empty())
        return;
    if (!has_told_)
        imsg_print(IMSG_PLAIN, "This has been done all the same:\n", IMSG_FORMAT);
    Writer writer(rows_.output(), tells_in_json() ? Format::jsonl : Format::plain, settings_.with_headers && !has_told_,
                  std::cerr);
    for (const auto &cells : unsure_)
        writer.add(cells);
    writer.finish();
    unsure_.clear();
    has_told_ = true;
}

} // namespace velia::cli
