// The bounded reader of files: lines and bytes of good ones, and every file that is none to be read.
#include <common/text_file.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <gmock/gmock.h>

#include <tests/bad_files.h>
#include <tests/sim/world.h>

using namespace velia;
using bad_files::BadFile;
using bad_files::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Piece {
    FileOutcome outcome;
    std::string text;
    bool has_end;

    bool operator==(const Piece &) const = default;
};

void PrintTo(const Piece &piece, std::ostream *out) {
    *out << static_cast<int>(piece.outcome) << ":\"" << piece.text << '"' << (piece.has_end ? "\\n" : "");
}

Piece line(const std::string &text) {
    return {FileOutcome::ok, text, true};
}
Piece last(const std::string &text) {
    return {FileOutcome::ok, text, false};
}
Piece part(const std::string &text) {
    return {FileOutcome::line_too_long, text, false};
}

class TextFileTest : public testing::Test {
protected:
    TextFileTest() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-file-XXXXXX").string();
        directory = mkdtemp(name.data());
        std::filesystem::permissions(directory, std::filesystem::perms::all);
        path = directory + "/file";
    }
    ~TextFileTest() override { std::filesystem::remove_all(directory); }

    void write(const std::string &text) const { std::ofstream(path, std::ios::binary) << text; }
    void append(const std::string &text) const { std::ofstream(path, std::ios::binary | std::ios::app) << text; }

    FileOutcome open(const FileBounds &bounds) { return file.open(path.c_str(), bounds); }

    std::string why(FileOutcome outcome) const {
        char words[file_words_size];
        return file.why(outcome, words);
    }

    // All pieces of the text; the outcome that ended them goes to `final_outcome`.
    std::vector<Piece> pieces(const std::string &text, size_t line_bytes) {
        write(text);
        EXPECT_EQ(open({1 << 20, line_bytes}), FileOutcome::ok);
        std::vector<Piece> all;
        for (;;) {
            TextLine next;
            final_outcome = file.next_line(next);
            if (final_outcome != FileOutcome::ok && final_outcome != FileOutcome::line_too_long)
                break;
            EXPECT_EQ(next.text[next.length], '\0');
            all.push_back({final_outcome, {next.text, next.length}, next.has_end});
        }
        file.close();
        return all;
    }

    sim::World world; // which the system's calls pass through
    std::string directory;
    std::string path;
    TextFile file;
    FileOutcome final_outcome;
};

// What the reader should give, by the shortest way to say it.
std::vector<Piece> expected_pieces(std::string text, size_t line_bytes) {
    std::vector<Piece> all;
    while (!text.empty()) {
        const size_t length = std::min(text.find('\n'), text.size());
        if (length > line_bytes) {
            all.push_back(part(text.substr(0, line_bytes)));
            text.erase(0, line_bytes);
        } else {
            const bool has_end = length < text.size();
            all.push_back({FileOutcome::ok, text.substr(0, length), has_end});
            text.erase(0, length + (has_end ? 1 : 0));
        }
    }
    return all;
}

} // namespace

TEST_F(TextFileTest, GivesItsLinesAndTellsIfTheLastHasAnEnd) {
    EXPECT_THAT(pieces("one\n\nthree\n", 10), ElementsAre(line("one"), line(""), line("three")));
    EXPECT_THAT(pieces("one\ntwo", 10), ElementsAre(line("one"), last("two")));
    EXPECT_THAT(pieces("\n", 10), ElementsAre(line("")));
    EXPECT_THAT(pieces("", 10), IsEmpty());
    EXPECT_EQ(final_outcome, FileOutcome::end);
}

TEST_F(TextFileTest, GivesALineThatIsTooLongInParts) {
    EXPECT_THAT(pieces("12345\n", 5), ElementsAre(line("12345")));
    EXPECT_THAT(pieces("123456\nx\n", 5), ElementsAre(part("12345"), line("6"), line("x")));
    EXPECT_THAT(pieces("1234567890\nx\n", 5), ElementsAre(part("12345"), line("67890"), line("x")));
    EXPECT_THAT(pieces("12345678901", 5), ElementsAre(part("12345"), part("67890"), last("1")));
}

TEST_F(TextFileTest, AgreesWithAModelForAllShortTexts) {
    for (size_t length = 0; length <= 7; ++length)
        for (unsigned code = 0; code < 1u << length; ++code) {
            std::string text;
            for (size_t i = 0; i < length; ++i)
                text += (code >> i & 1) != 0 ? '\n' : static_cast<char>('a' + i);
            for (size_t line_bytes = 1; line_bytes <= 4; ++line_bytes)
                EXPECT_EQ(pieces(text, line_bytes), expected_pieces(text, line_bytes)) << text << " " << line_bytes;
        }
}

TEST_F(TextFileTest, AgreesWithAModelWhereLinesCrossTheBuffersEnd) {
    for (const size_t length : {text_line_bytes_max - 1, text_line_bytes_max, text_line_bytes_max + 1,
                                text_line_bytes_max + 2, 2 * text_line_bytes_max + 1}) {
        const std::string text = "short\n" + std::string(length, 'x') + "\n" + std::string(length, 'y') + "\nz";
        for (const size_t line_bytes : {size_t{1}, size_t{1000}, text_line_bytes_max})
            EXPECT_EQ(pieces(text, line_bytes), expected_pieces(text, line_bytes)) << length << " " << line_bytes;
    }
}

TEST_F(TextFileTest, CountsZeroBytesAsAnyOther) {
    const std::string text("a\0b\n\0\n", 6);
    EXPECT_EQ(pieces(text, 10), expected_pieces(text, 10));
    EXPECT_EQ(pieces(text, 2), expected_pieces(text, 2));
}

TEST_F(TextFileTest, ItsUserMayChangeWhatItWasGiven) {
    write("123456789\nx\n");
    ASSERT_EQ(open({100, 3}), FileOutcome::ok);
    TextLine given;
    for (const std::string expected : {"123", "456", "789", "x"}) {
        file.next_line(given);
        EXPECT_EQ(std::string(given.text), expected);
        memset(given.text, '\n', given.length);
    }
    file.close();
}

TEST_F(TextFileTest, SkipsTheRestOfALineThatIsTooLong) {
    write(std::string(50'000, 'x') + "\nnext\n" + std::string(20, 'y'));
    ASSERT_EQ(open({100'000, 10}), FileOutcome::ok);
    TextLine given;
    EXPECT_EQ(file.next_line(given), FileOutcome::line_too_long);
    EXPECT_EQ(why(FileOutcome::line_too_long), "Line is longer than 10 bytes");
    EXPECT_EQ(file.skip_line(), FileOutcome::ok);
    EXPECT_EQ(file.next_line(given), FileOutcome::ok);
    EXPECT_STREQ(given.text, "next");
    EXPECT_EQ(file.next_line(given), FileOutcome::line_too_long);
    EXPECT_EQ(file.skip_line(), FileOutcome::ok);
    EXPECT_EQ(file.next_line(given), FileOutcome::end);
    file.close();
}

TEST_F(TextFileTest, GivesBytesUpToItsEnd) {
    const std::string text(20'000, 'x');
    write(text);
    ASSERT_EQ(open({20'000, 10}), FileOutcome::ok);
    std::vector<char> bytes(15'000);
    size_t count = 0;
    for (const size_t expected : {15'000u, 5'000u, 0u, 0u}) {
        EXPECT_EQ(file.next_bytes(bytes.data(), bytes.size(), count), FileOutcome::ok);
        EXPECT_EQ(count, expected);
    }
    file.close();
}

TEST_F(TextFileTest, RefusesAtOnceWhatIsNoFileOrTooLargeAndKeepsNothingOpen) {
    const FileBounds bounds = {1 << 20, 100};
    const size_t descriptors = bad_files::open_descriptors();
    bad_files::for_each(path, bounds.file_bytes, [&](const std::string &words) {
        const FileOutcome outcome = open(bounds);
        EXPECT_TRUE(is_refused(outcome)) << static_cast<int>(outcome);
        EXPECT_EQ(why(outcome), words);
        EXPECT_NE(file.error_number(), 0);
    });
    bad_files::for_each(path, bounds.file_bytes, [&](const std::string &words) {
        const FileOutcome outcome = file.open(path.c_str(), bounds, O_RDWR);
        EXPECT_NE(outcome, FileOutcome::ok) << "a directory cannot even be opened so";
        EXPECT_EQ(why(outcome), words);
    });
    EXPECT_EQ(bad_files::open_descriptors(), descriptors);
}

TEST_F(TextFileTest, IsReadUpToTheBoundAndNotAByteBehindIt) {
    write(std::string(100, 'x'));
    EXPECT_EQ(open({99, 200}), FileOutcome::too_large);
    EXPECT_EQ(file.error_number(), EFBIG);
    EXPECT_EQ(why(FileOutcome::too_large), "File is larger than 99 bytes");
    ASSERT_EQ(open({100, 200}), FileOutcome::ok);
    TextLine given;
    EXPECT_EQ(file.next_line(given), FileOutcome::ok);
    EXPECT_EQ(given.length, 100u);
    file.close();
}

TEST_F(TextFileTest, ThatGrowsWhileItIsReadIsGivenUpAtItsBound) {
    write("first\n");
    ASSERT_EQ(open({30'000, 100}), FileOutcome::ok);
    TextLine given;
    ASSERT_EQ(file.next_line(given), FileOutcome::ok);
    size_t lines = 0;
    FileOutcome outcome = FileOutcome::ok;
    for (; outcome == FileOutcome::ok; ++lines) {
        append(std::string(99, 'x') + "\n");
        outcome = file.next_line(given);
    }
    EXPECT_EQ(outcome, FileOutcome::too_large);
    EXPECT_LE(lines, 301u);
    file.close();

    write("");
    ASSERT_EQ(open({30'000, 100}), FileOutcome::ok);
    write(std::string(30'001, 'x'));
    std::vector<char> bytes(50'000);
    size_t count = 0;
    EXPECT_EQ(file.next_bytes(bytes.data(), bytes.size(), count), FileOutcome::too_large);
    file.close();
}

TEST_F(TextFileTest, ThatShrinksOrVanishesWhileItIsReadGivesWhatIsLeft) {
    write("one\ntwo\n");
    ASSERT_EQ(open({100, 100}), FileOutcome::ok);
    ASSERT_EQ(truncate(path.c_str(), 4), 0);
    std::filesystem::remove(path);
    TextLine given;
    EXPECT_EQ(file.next_line(given), FileOutcome::ok);
    EXPECT_STREQ(given.text, "one");
    EXPECT_EQ(file.next_line(given), FileOutcome::end);
    file.close();
}

TEST_F(TextFileTest, ThatIsNotThereIsAbsentAndNotMade) {
    EXPECT_EQ(open({100, 100}), FileOutcome::absent);
    EXPECT_EQ(why(FileOutcome::absent), strerror(ENOENT));
    EXPECT_EQ(file.open(path.c_str(), {100, 100}, O_RDWR), FileOutcome::absent);
    EXPECT_FALSE(std::filesystem::exists(path));
    std::filesystem::create_symlink("nowhere", path);
    EXPECT_EQ(open({100, 100}), FileOutcome::absent) << "a link that leads nowhere";
    EXPECT_FALSE(is_refused(FileOutcome::absent));
}

TEST_F(TextFileTest, ThatMayNotBeReadIsUnreadableWithItsError) {
    write("secret\n");
    {
        const bad_files::WithoutRight guard(path);
        EXPECT_EQ(open({100, 100}), FileOutcome::unreadable);
    }
    EXPECT_EQ(file.error_number(), EACCES);
    EXPECT_EQ(why(FileOutcome::unreadable), strerror(EACCES));
    std::filesystem::remove(path);
    std::filesystem::create_symlink("file", path);
    EXPECT_EQ(open({100, 100}), FileOutcome::unreadable) << "a link to itself";
    EXPECT_EQ(file.error_number(), ELOOP);
}

TEST_F(TextFileTest, OfTheKernelThatDoesNotSayHowLargeItIsIsMeasuredAsItIsRead) {
    ASSERT_EQ(file.open("/proc/self/maps", {1 << 20, 1000}), FileOutcome::ok);
    TextLine given;
    EXPECT_EQ(file.next_line(given), FileOutcome::ok);
    EXPECT_GT(given.length, 0u);
    file.close();
    ASSERT_EQ(file.open("/proc/self/maps", {10, 1000}), FileOutcome::ok);
    EXPECT_EQ(file.next_line(given), FileOutcome::too_large);
    file.close();
}

TEST_F(TextFileTest, OfTheKernelThatComesPieceByPieceFillsTheRoomThereIs) {
    ASSERT_EQ(file.open("/proc/self/smaps", {16 << 20, 1000}), FileOutcome::ok);
    std::vector<char> bytes(16 << 20);
    size_t count = 0;
    EXPECT_EQ(file.next_bytes(bytes.data(), bytes.size(), count), FileOutcome::ok);
    EXPECT_GT(count, 8192u) << "more than comes at a time";
    EXPECT_EQ(file.next_bytes(bytes.data(), bytes.size(), count), FileOutcome::ok);
    EXPECT_EQ(count, 0u);
    file.close();
}

TEST_F(TextFileTest, ThatFailsToBeReadIsUnreadableWithItsError) {
    for (const bool by_lines : {true, false}) {
        ASSERT_EQ(file.open("/proc/self/mem", {1 << 20, 1000}), FileOutcome::ok);
        TextLine given;
        char byte;
        size_t count;
        EXPECT_EQ(by_lines ? file.next_line(given) : file.next_bytes(&byte, 1, count), FileOutcome::unreadable);
        EXPECT_EQ(file.error_number(), EIO);
        EXPECT_EQ(why(FileOutcome::unreadable), strerror(EIO));
        file.close();
    }
}

TEST_F(TextFileTest, IsClosedOnExec) {
    write("x\n");
    const int next_descriptor = dup(0);
    close(next_descriptor);
    ASSERT_EQ(open({100, 100}), FileOutcome::ok);
    EXPECT_EQ(fcntl(next_descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    file.close();
    EXPECT_EQ(fcntl(next_descriptor, F_GETFD), -1);
}
