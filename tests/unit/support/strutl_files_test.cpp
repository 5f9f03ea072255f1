// Whole files as texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <support/strutl.h>

#include <tests/bad_files.h>

#include "alloc_probe.h"
#include "message_recorder.h"
#include "test_site.h"

namespace {

struct Read {
    int error_number; // 0 if there is a text
    std::string text;
    size_t length;

    bool operator==(const Read &) const = default;
};

constexpr size_t not_told = 999;

Read read_file(const std::string &path) {
    size_t length = not_told;
    errno = 0;
    char *text = strutl_read(1, path.c_str(), 0, 1, &length);
    const int error_number = text != nullptr ? 0 : errno;
    const Read result = {error_number, text != nullptr ? std::string(text, length) : "", length};
    stg_free(text);
    return result;
}

} // namespace

TEST(ReadFile, GivesTheContentsAndTheirLength) {
    TestSite site;
    EXPECT_EQ(read_file(site.write("file", "two\nlines\n")), (Read{0, "two\nlines\n", 10}));
    EXPECT_EQ(read_file(site.write("empty", "")), (Read{0, "", 0}));
    EXPECT_EQ(read_file(site.write("zero", std::string("a\0b", 3))), (Read{0, std::string("a\0b", 3), 3}));
}

TEST(ReadFile, LengthNeedNotBeAskedFor) {
    TestSite site;
    char *text = strutl_read(1, site.write("file", "text").c_str(), 0, 1, nullptr);
    EXPECT_STREQ(text, "text");
    stg_free(text);
}

TEST(ReadFile, TakesFilesOfAnySizeUpToTheBound) {
    TestSite site;
    for (const size_t size : {4094u, 4095u, 4096u, 4097u, 8191u, 300'000u}) {
        const std::string text(size, 'x');
        EXPECT_EQ(read_file(site.write("file", text)), (Read{0, text, size}));
    }
    const std::string path = site.write("large", "");
    ASSERT_EQ(truncate(path.c_str(), STRUTL_READ_MAX + 1), 0);
    EXPECT_EQ(read_file(path), (Read{EFBIG, "", not_told}));
    ASSERT_EQ(truncate(path.c_str(), STRUTL_READ_MAX), 0);
    EXPECT_EQ(read_file(path).length, static_cast<size_t>(STRUTL_READ_MAX));
}

TEST(ReadFile, FailsWithErrno) {
    TestSite site;
    MessageRecorder recorder;
    EXPECT_EQ(read_file(site.path("none")), (Read{ENOENT, "", not_told}));
    const std::string secret = site.write("secret", "text");
    const bad_files::WithoutRight guard(secret);
    EXPECT_EQ(read_file(secret), (Read{EACCES, "", not_told}));
    EXPECT_THAT(recorder.messages, testing::IsEmpty());
}

TEST(ReadFile, WhatIsNoFileOrTooLargeIsNotWaitedForAndIsPrinted) {
    TestSite site;
    MessageRecorder recorder;
    const std::string path = site.path("file");
    bad_files::for_each(path, STRUTL_READ_MAX, [&](const std::string &words) {
        const int expected = words == "Is a directory" ? EISDIR : words == "Not a regular file" ? EINVAL : EFBIG;
        EXPECT_EQ(read_file(path), (Read{expected, "", not_told}));
        ASSERT_EQ(recorder.messages.size(), 1u);
        EXPECT_EQ(recorder.messages[0].severity, IMSG_ERROR);
        EXPECT_EQ(recorder.messages[0].text, "Error reading from \"" + path + "\": " + words + ".\n");
        recorder.messages.clear();
    });
}

TEST(ReadFile, KeepsNothingOpen) {
    TestSite site;
    const size_t descriptors = bad_files::open_descriptors();
    read_file(site.write("file", "text"));
    probe::fail_request(1);
    read_file(site.path("file"));
    probe::fail_request(0);
    EXPECT_EQ(bad_files::open_descriptors(), descriptors);
}

TEST(ReadFile, RefusesOtherArguments) {
    TestSite site;
    const std::string path = site.write("file", "text");
    for (const auto &[count, reserved, as_one] : {std::tuple(2, 0, 1), std::tuple(1, 1, 1), std::tuple(1, 0, 0)}) {
        errno = 0;
        EXPECT_EQ(strutl_read(count, path.c_str(), reserved, as_one, nullptr), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(strutl_read(1, nullptr, 0, 1, nullptr), nullptr);
}

TEST(ReadFile, WithoutMemoryFailsAndLosesNothing) {
    TestSite site;
    const std::string path = site.write("file", std::string(20'000, 'x'));
    for (size_t number = 1;; ++number) {
        errno = 0;
        probe::fail_request(number);
        char *text = strutl_read(1, path.c_str(), 0, 1, nullptr);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        EXPECT_EQ(text == nullptr, has_failed);
        EXPECT_EQ(errno, has_failed ? ENOMEM : 0);
        stg_free(text);
        if (!has_failed)
            break;
    }
}

TEST(WriteFile, MakesTheTextTheContents) {
    TestSite site;
    EXPECT_EQ(strutl_write("new text", site.path("file").c_str(), 0, 0), 0);
    EXPECT_EQ(site.read("file"), "new text");
    EXPECT_EQ(strutl_write("short", site.path("file").c_str(), 0, 0), 0);
    EXPECT_EQ(site.read("file"), "short") << "nothing of the old contents, nothing added";
    EXPECT_EQ(strutl_write("", site.path("file").c_str(), 0, 0), 0);
    EXPECT_EQ(site.read("file"), "");
}

TEST(WriteFile, KeepsTheFileItself) {
    TestSite site;
    const std::string path = site.write("file", "old");
    chmod(path.c_str(), 0600);
    struct stat before;
    stat(path.c_str(), &before);
    EXPECT_EQ(strutl_write("new", path.c_str(), 0, 0), 0);
    struct stat after;
    stat(path.c_str(), &after);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
}

TEST(WriteFile, PipeIsNotWaitedFor) {
    TestSite site;
    const std::string path = site.path("pipe");
    {
        const bad_files::BadFile pipe(bad_files::Kind::pipe, path);
        EXPECT_EQ(strutl_write("text", path.c_str(), 0, 0), ENXIO);
    }
    const bad_files::BadFile full(bad_files::Kind::written_pipe, path);
    EXPECT_EQ(strutl_write(std::string(1 << 20, 'x').c_str(), path.c_str(), 0, 0), EAGAIN);
}

TEST(WriteFile, FailsWithErrno) {
    TestSite site;
    EXPECT_EQ(strutl_write("text", site.path("").c_str(), 0, 0), EISDIR);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(strutl_write("text", site.path("none/file").c_str(), 0, 0), ENOENT);
    EXPECT_EQ(strutl_write("text", "/dev/full", 0, 0), ENOSPC);
    EXPECT_EQ(errno, ENOSPC);
}
