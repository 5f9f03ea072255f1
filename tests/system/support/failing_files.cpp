#include <tests/system/support/failing_files.h>

#include <cstdlib>

namespace velia::system_test {

namespace {

constexpr const char *order_name = "failing-files";

std::string label(int number) {
    return "failing-" + std::to_string(number);
}

} // namespace

bool FailingFiles::is_much_wanted() {
    return getenv("VELIA_TEST_KILLS") != nullptr;
}

std::vector<std::string> FailingFiles::environment() const {
    return {"LD_PRELOAD=" FAILING_FILES_PRELOAD, "FAILING_FILES=" + site_.path(order_name),
            "ASAN_OPTIONS=verify_asan_link_order=0"};
}

// In one step, since programs look at it meanwhile.
void FailingFiles::begin(int at, Way way) {
    const bool is_once = way == Way::full_once || way == Way::bad_once;
    const char *how = is_once ? "once" : way == Way::short_of_room ? "short" : "on";
    const int error_number = way == Way::bad_once ? EIO : ENOSPC;
    const std::string made =
        site_.write(std::string(order_name) + ".made",
                    label(++label_) + " " + std::to_string(at) + " " + how + " " + std::to_string(error_number) + "\n");
    std::filesystem::rename(made, site_.path(order_name));
}

bool FailingFiles::end() const {
    std::filesystem::remove(site_.path(order_name));
    return std::filesystem::exists(site_.path(label(label_) + ".failed"));
}

} // namespace velia::system_test
