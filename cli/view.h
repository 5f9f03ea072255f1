// What a user wants to see of a list, and in which order: the same options for every command that has one, out of the
// table of its columns.
#pragma once

#include <string>
#include <vector>

#include <cli/command.h>
#include <cli/output.h>

namespace velia::cli {

// For the command of this row, which has `own` ones: none where its results are no list, and none twice.
Options view_options(View &view, const Command &row, const Options &own);

// What is wrong with it for these results; empty if nothing is.
std::string fault_of_view(const View &view, const Output &output);

// Some columns are there with an option of the command only. Where one of them is wanted that option is given.
void give_options_for(View &view, const Output &output, const Options &options);

// Rows of all of a command's columns as the user wants them.
class ViewedRows {
public:
    ViewedRows(const Output &output, const View &view);
    ViewedRows(const ViewedRows &) = delete;
    ViewedRows &operator=(const ViewedRows &) = delete;

    // Of the columns that are shown.
    const Output &output() const { return shown_; }
    Cells chosen(const Cells &cells) const;

    // Only when all rows are there is it known which comes first. What is not there comes last.
    bool is_sorting() const { return sort_.column < all_.columns.size(); }
    void sort(std::vector<Cells> &rows) const;

private:
    struct Sort {
        size_t column; // beyond the last: as they come
        bool largest_first;
    };
    static Sort sort_of(const View &view, const Output &output);

    const Output &all_;
    std::vector<size_t> chosen_; // of all columns
    std::vector<Column> columns_;
    Output shown_;
    Sort sort_;
};

} // namespace velia::cli
