// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Interrupts.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace Fleet {
namespace {

int OpenWatch() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction current {};
        if (::sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC);
}

}  // namespace

InterruptWatch::InterruptWatch() : m_fd(OpenWatch()) {}

int InterruptWatch::Take() const {
    signalfd_siginfo info{};
    const ssize_t got = ::read(m_fd.Get(), &info, sizeof info);
    return got == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

std::string InterruptedNote(bool changeSent) {
    return changeSent ? "interrupted after a change was sent" : "interrupted";
}

void EndBySignal(int number) {
    static_cast<void>(std::signal(number, SIG_DFL));
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    static_cast<void>(::raise(number));
    ::_exit(128 + number);
}

}  // namespace Fleet
