// The reader of files: its pieces, put together again, are the file, and none is longer than the bound.
#include <fuzz/harness.h>

#include <algorithm>

#include <common/text_file.h>

using namespace velia;

namespace {

// What of the file is left when the pieces have been taken off it one by one.
void take_piece(std::string_view &left, FileOutcome outcome, const TextLine &line, size_t line_bytes) {
    FUZZ_REQUIRE(line.length <= line_bytes);
    FUZZ_REQUIRE(left.starts_with(std::string_view(line.text, line.length)));
    FUZZ_REQUIRE(line.text[line.length] == '\0');
    left.remove_prefix(line.length);
    const bool is_part = outcome == FileOutcome::line_too_long;
    FUZZ_REQUIRE(!is_part || (!line.has_end && line.length == line_bytes && !left.empty() && left.front() != '\n'));
    FUZZ_REQUIRE(is_part || line.has_end == !left.empty());
    if (line.has_end) {
        FUZZ_REQUIRE(left.front() == '\n');
        left.remove_prefix(1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    static const std::string path = std::string(getenv("VELIA_ROOT")) + "/file";
    if (size == 0)
        return 0;
    const size_t line_bytes = data[0] == UINT8_MAX ? text_line_bytes_max : data[0] + size_t{1};
    std::string_view left(reinterpret_cast<const char *>(data) + 1, size - 1);
    root.write("file", left);
    TextFile file;
    FUZZ_REQUIRE(file.open(path.c_str(), {size - 1, line_bytes}) == FileOutcome::ok);
    TextLine line;
    FileOutcome outcome;
    while ((outcome = file.next_line(line)) == FileOutcome::ok || outcome == FileOutcome::line_too_long) {
        take_piece(left, outcome, line, line_bytes);
        std::fill_n(line.text, line.length, '\n');
    }
    file.close();
    FUZZ_REQUIRE(outcome == FileOutcome::end && left.empty());
    return 0;
}
