// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <chrono>
#include <string>
#include <thread>

#include "support/TestFiles.h"

namespace {

using Plexum::ReadBounded;
using Plexum::ReadEnd;
using Plexum::UniqueFd;

UniqueFd Open(const std::string& path) { return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); }

TEST(ReadBounded, ReadsAFileUpToItsLimit) {
    ScratchDirectory scratch;
    std::string text = "left over";
    EXPECT_EQ(ReadBounded(Open(scratch.Write("empty", "")).Get(), 16, text), ReadEnd::Complete);
    EXPECT_EQ(text, "");

    const std::string sixteen = "0123456789abcdef";
    EXPECT_EQ(ReadBounded(Open(scratch.Write("exact", sixteen)).Get(), 16, text), ReadEnd::Complete);
    EXPECT_EQ(text, sixteen);

    // One byte over is enough to tell, and no more is read.
    EXPECT_EQ(ReadBounded(Open(scratch.Write("over", sixteen + "gh")).Get(), 16, text), ReadEnd::TooLarge);
    EXPECT_EQ(text, sixteen + "g");
}

TEST(ReadBounded, TheLimitsAtBothEnds) {
    ScratchDirectory scratch;
    std::string text;
    EXPECT_EQ(ReadBounded(Open(scratch.Write("empty", "")).Get(), 0, text), ReadEnd::Complete);
    EXPECT_EQ(text, "");
    EXPECT_EQ(ReadBounded(Open(scratch.Write("one", "x")).Get(), 0, text), ReadEnd::TooLarge);
    EXPECT_EQ(text, "x");
    EXPECT_EQ(ReadBounded(Open(scratch.Write("line", "KEY=VALUE\n")).Get(), SIZE_MAX, text), ReadEnd::Complete);
    EXPECT_EQ(text, "KEY=VALUE\n");
}

TEST(ReadBounded, AFileLargerThanOneReadComesWhole) {
    ScratchDirectory scratch;
    std::string content;
    for (int i = 0; content.size() < 200000; ++i) content += std::to_string(i) + "\n";
    std::string text;
    EXPECT_EQ(ReadBounded(Open(scratch.Write("big", content)).Get(), 1 << 20, text), ReadEnd::Complete);
    EXPECT_EQ(text, content);
    EXPECT_EQ(ReadBounded(Open(scratch.Path() + "/big").Get(), content.size() - 1, text), ReadEnd::TooLarge);
    EXPECT_EQ(text, content);
}

// A few lines cost a few lines of memory, however high the limit.
TEST(ReadBounded, TheBufferFollowsWhatIsRead) {
    ScratchDirectory scratch;
    std::string text;
    EXPECT_EQ(ReadBounded(Open(scratch.Write("small", "KEY=VALUE\n")).Get(), size_t{16} << 20, text), ReadEnd::Complete);
    EXPECT_EQ(text, "KEY=VALUE\n");
    EXPECT_LT(text.capacity(), 4096u);
}

TEST(ReadBounded, APipeIsReadUntilItsWriterCloses) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    UniqueFd reader(ends[0]);
    std::thread writer([fd = ends[1]] {
        for (const char* piece : {"one\n", "two\n", "three\n"}) {
            EXPECT_EQ(::write(fd, piece, std::char_traits<char>::length(piece)),
                      static_cast<ssize_t>(std::char_traits<char>::length(piece)));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ::close(fd);
    });
    std::string text;
    EXPECT_EQ(ReadBounded(reader.Get(), 64, text), ReadEnd::Complete);
    writer.join();
    EXPECT_EQ(text, "one\ntwo\nthree\n");
}

TEST(ReadBounded, AReadErrorKeepsItsErrno) {
    ScratchDirectory scratch;
    std::string text;
    errno = 0;
    EXPECT_EQ(ReadBounded(Open(scratch.Path()).Get(), 64, text), ReadEnd::Failed);
    EXPECT_EQ(errno, EISDIR);
    errno = 0;
    EXPECT_EQ(ReadBounded(-1, 64, text), ReadEnd::Failed);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
