// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a command as its child and reports the child's peak resident set:
//
//   peak_rss FILE COMMAND [ARGUMENT]...
//
// writes the peak RSS in KiB (ru_maxrss of wait4) and a line end to FILE and
// exits with the child's status, or 128 + N when signal N ended it. The child
// is forked from this small process on purpose: a process's peak RSS includes
// the memory of whatever it was forked from until its exec, so a child forked
// straight from a test runner that holds a large reply would carry that
// runner's size in its figure.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    // Nothing is left to do when standard error fails: the exit status says it.
    if (argc < 3) {
        static_cast<void>(std::fprintf(stderr, "usage: peak_rss FILE COMMAND [ARGUMENT]...\n"));
        return 2;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        static_cast<void>(std::fprintf(stderr, "peak_rss: fork: %s\n", std::strerror(errno)));
        return 2;
    }
    if (child == 0) {
        ::execvp(argv[2], argv + 2);
        static_cast<void>(std::fprintf(stderr, "peak_rss: %s: %s\n", argv[2], std::strerror(errno)));
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            static_cast<void>(std::fprintf(stderr, "peak_rss: wait4: %s\n", std::strerror(errno)));
            return 2;
        }
    }
    std::FILE* const file = std::fopen(argv[1], "w");
    const bool written = file != nullptr && std::fprintf(file, "%ld\n", usage.ru_maxrss) >= 0;
    const bool closed = file != nullptr && std::fclose(file) == 0;
    if (!written || !closed) {
        static_cast<void>(std::fprintf(stderr, "peak_rss: cannot write %s\n", argv[1]));
        return 2;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
