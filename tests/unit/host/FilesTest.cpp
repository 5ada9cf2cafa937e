// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/stat.h>

#include <atomic>
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

TEST(WriteAll, WritesEverythingOrSaysItFailed) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("out", "");
    const std::string text(200000, 'x');
    {
        const UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        EXPECT_TRUE(Plexum::WriteAll(file.Get(), text.data(), text.size()));
        EXPECT_TRUE(Plexum::WriteAll(file.Get(), "", 0));
    }
    EXPECT_EQ(ReadWholeFile(path), text);
    errno = 0;
    EXPECT_FALSE(Plexum::WriteAll(-1, "x", 1));
    EXPECT_EQ(errno, EBADF);
}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status;
}

TEST(FileIdentity, TellsAFileFromAnotherAndFromItselfChanged) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("file", "one\n");
    const Plexum::FileIdentity first = Plexum::FileIdentity::Of(StatusOf(path));
    EXPECT_EQ(first, Plexum::FileIdentity::Of(StatusOf(path)));
    EXPECT_EQ(first.size, 4);
    {
        const UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        ASSERT_TRUE(Plexum::WriteAll(file.Get(), "two\n", 4));
    }
    const Plexum::FileIdentity longer = Plexum::FileIdentity::Of(StatusOf(path));
    EXPECT_NE(longer, first);
    EXPECT_TRUE(longer.SameFile(first));
    const std::string other = scratch.Write("other", "one\ntwo\n");
    ASSERT_EQ(::rename(other.c_str(), path.c_str()), 0);
    const Plexum::FileIdentity replaced = Plexum::FileIdentity::Of(StatusOf(path));
    EXPECT_FALSE(replaced.SameFile(first));
    EXPECT_NE(replaced, longer);
}

TEST(FileLock, CreatesAPrivateLockFileOnlyWhenAsked) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/x.lock";
    const Plexum::FileLock missing(path, Plexum::FileLock::Kind::Shared, false);
    EXPECT_FALSE(missing.Held());
    EXPECT_EQ(missing.Errno(), ENOENT);
    EXPECT_EQ(missing.Error(), "cannot lock " + path + ": No such file or directory");
    const mode_t previous = ::umask(0);
    const Plexum::FileLock created(path, Plexum::FileLock::Kind::Exclusive, true);
    ::umask(previous);
    EXPECT_TRUE(created.Held());
    EXPECT_EQ(created.Error(), "");
    EXPECT_EQ(FileMode(path), 0600);
}

// Shared holders pass each other; an exclusive one waits until the last has gone.
TEST(FileLock, SharedHoldersPassAnExclusiveOneWaits) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/x.lock";
    std::atomic<bool> taken{false};
    std::thread writer;
    {
        const Plexum::FileLock first(path, Plexum::FileLock::Kind::Shared, true);
        const Plexum::FileLock second(path, Plexum::FileLock::Kind::Shared, false);
        ASSERT_TRUE(first.Held());
        ASSERT_TRUE(second.Held());
        writer = std::thread([&path, &taken] {
            const Plexum::FileLock exclusive(path, Plexum::FileLock::Kind::Exclusive, false);
            taken = exclusive.Held();
        });
        EXPECT_FALSE(taken);
    }
    writer.join();
    EXPECT_TRUE(taken);
}

}  // namespace

