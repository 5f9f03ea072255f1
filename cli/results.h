// The results of a command on their way to standard output.
#pragma once

#include <vector>

#include <cli/command.h>
#include <cli/output.h>
#include <cli/view.h>

namespace velia::cli {

class Results {
public:
    // What a command has changed is told on standard error if it cannot be on standard output.
    enum class Of { look, change };

    Results(const Output &output, const Settings &settings, Of of = Of::look);
    ~Results(); // without a finish: something is missing behind the rows
    Results(const Results &) = delete;
    Results &operator=(const Results &) = delete;

    // As many cells as there are columns.
    void add(Cells cells);
    bool empty() const { return writer_.empty() && held_.empty(); }

    // What comes next may take a while, so all is written that can be, or with show all of it. False, and told, if it
    // is lost: nobody sees what comes next.
    bool pause();
    bool show();

    // It was all. An empty list is told of to a person.
    void finish();

private:
    void write(const Cells &cells);
    void write_held();
    bool write_out();
    void tell_unsure();

    Settings settings_;
    ViewedRows rows_;
    Writer writer_;
    Of of_;
    uint64_t written_ = 0;
    std::vector<Cells> held_; // until it is known in which order they come
    bool is_finished_ = false;
    bool has_told_ = false;
    std::vector<Cells> unsure_; // changes of which nobody may know yet
};

} // namespace velia::cli
