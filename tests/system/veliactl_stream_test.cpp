// Long lists are shown as they come: in memory that does not grow with them, and what was shown stays when the rest
// cannot be had.
#include <tests/system/support/veliactl.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <map>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tests/system/support/registry_file.h>
#include <veliaxdr/rgy_entry.h>

using namespace velia::system_test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr size_t few = 10'000;
constexpr size_t many = 50'000;
constexpr size_t growth_max_kib = 8 * 1024; // rows that are kept take three times that
constexpr const char *forms[] = {"plain", "table", "json", "jsonl"};

// A listing whose output is read by the test, so that it waits for the test before its end.
class Listing {
public:
    Listing(const Site &site, const char *form, const Words &further = {}) : site_(site) {
        const std::string pipe = site.path("listing.out");
        unlink(pipe.c_str());
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        Words words = {VELIACTL, "registry", "list", "regions", "-o", form};
        words.insert(words.end(), further.begin(), further.end());
        Child::Options options;
        options.output_file = pipe;
        options.error_file = site.path("listing.err");
        unlink(options.error_file.c_str());
        // What a sanitizer keeps to find a late use of it is not the tool's.
        options.environment = {"ASAN_OPTIONS=quarantine_size_mb=1:thread_local_quarantine_size_kb=64"};
        child_ = std::make_unique<Child>(words, options);
        fd_ = open(pipe.c_str(), O_RDONLY | O_CLOEXEC); // waits for the child
    }
    ~Listing() {
        if (fd_ >= 0)
            close(fd_);
    }
    Listing(const Listing &) = delete;
    Listing &operator=(const Listing &) = delete;

    // False at the end.
    bool read_lines(size_t count) {
        while (line_count_ < count && read_some())
            ;
        return line_count_ >= count;
    }
    int end() {
        while (read_some())
            ;
        return child_->wait();
    }
    int end_unread() {
        close(fd_);
        fd_ = -1;
        return child_->wait();
    }
    // The most memory that it has had in use.
    size_t peak_kib() const {
        std::ifstream status("/proc/" + std::to_string(child_->pid()) + "/status");
        for (std::string word; status >> word;)
            if (size_t kib = 0; word == "VmHWM:" && status >> kib)
                return kib;
        return 0;
    }
    size_t line_count() const { return line_count_; }
    const std::string &head() const { return head_; }
    const std::string &tail() const { return tail_; }
    std::string errors() const { return site_.read("listing.err"); }

private:
    bool read_some() {
        std::array<char, 4096> piece;
        const ssize_t count = read(fd_, piece.data(), piece.size());
        if (count <= 0)
            return false;
        const std::string text(piece.data(), static_cast<size_t>(count));
        line_count_ += static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
        if (head_.size() < piece.size())
            head_ += text;
        tail_ = (tail_ + text).substr(std::max(tail_.size() + text.size(), piece.size()) - piece.size());
        return true;
    }

    const Site &site_;
    int fd_ = -1;
    std::unique_ptr<Child> child_;
    size_t line_count_ = 0;
    std::string head_;
    std::string tail_;
};

struct VeliactlStream : VeliactlTest {
    void SetUp() override { serve_registry(); }

    size_t peak_kib_of_listing(const char *form, size_t entry_count) const {
        Listing listing(site, form, {"--batch", "1000"});
        // More than a pipe and the tool's own buffer hold is still to come.
        EXPECT_TRUE(listing.read_lines(entry_count - 5000)) << listing.errors();
        const size_t peak = listing.peak_kib();
        EXPECT_EQ(listing.end(), DONE) << listing.errors();
        EXPECT_GE(listing.line_count(), entry_count);
        EXPECT_GT(peak, 0u);
        return peak;
    }
};

} // namespace

TEST_F(VeliactlStream, OfFiveTimesAsManyEntriesTakesTheSameMemory) {
    fill_registry(site, RGY_DB_REGIONS, few);
    std::map<std::string, size_t> peaks;
    for (const char *form : forms)
        peaks[form] = peak_kib_of_listing(form, few);
    fill_registry(site, RGY_DB_REGIONS, many - few);
    for (const auto &[form, peak] : peaks)
        EXPECT_LT(peak_kib_of_listing(form.c_str(), many), peak + growth_max_kib) << form;
}

TEST_F(VeliactlStream, EndsWhenItsReaderGoes) {
    fill_registry(site, RGY_DB_REGIONS, few);
    for (const char *form : forms) {
        Listing listing(site, form);
        ASSERT_TRUE(listing.read_lines(10)) << listing.errors();
        EXPECT_EQ(listing.end_unread(), FAILED);
        EXPECT_THAT(listing.errors(), HasSubstr("Standard output cannot be written: Broken pipe"));
    }
}

TEST_F(VeliactlStream, ThatBreaksOffShowsWhatCameAndFails) {
    fill_registry(site, RGY_DB_REGIONS, few);
    for (const char *form : forms) {
        Listing listing(site, form);
        ASSERT_TRUE(listing.read_lines(10)) << listing.errors();
        daemon->signal(SIGKILL);
        daemon->wait();
        EXPECT_EQ(listing.end(), FAILED) << listing.errors();
        EXPECT_GE(listing.line_count(), 10u);
        EXPECT_LT(listing.line_count(), few);
        EXPECT_THAT(listing.head(), HasSubstr("region1"));
        EXPECT_THAT(listing.errors(), HasSubstr("The registry could not be read: "));
        if (form == std::string("json")) {
            EXPECT_THAT(listing.head(), StartsWith("[\n{"));
            EXPECT_THAT(listing.tail(), EndsWith("}\n")) << "the last object is whole";
        }
        EXPECT_THAT(listing.tail(), Not(EndsWith("]\n")));
        EXPECT_THAT(listing.tail(), Not(EndsWith("-+\n"))) << "a table is not closed, either";
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready());
    }
}
