// SPDX-License-Identifier: GPL-3.0-or-later
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "fleet/Detector.h"
#include "support/LoopbackPort.h"

namespace {

using MorvelTest::LoopbackPort;

Fleet::Target At(const LoopbackPort& port) {
    Fleet::Target target;
    target.bmc.host = "127.0.0.1";
    target.bmc.port = port.Port();
    target.label = "127.0.0.1:" + std::to_string(port.Port());
    return target;
}

Fleet::DetectOptions RedfishOnly() {
    Fleet::DetectOptions options;
    options.ipmi = false;
    return options;
}

TEST(DetectorTest, AListeningPortAnswersAndTheServiceNeverAcceptsTheProbe) {
    const LoopbackPort listener(LoopbackPort::Kind::Listening);
    ASSERT_TRUE(Fleet::Detect(At(listener), RedfishOnly()));

    // An ordinary connection after the probe: it is the only one the service can take.
    const Plexum::UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in to = LoopbackPort::Address(listener.Port());
    ASSERT_EQ(::connect(client.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0) << std::strerror(errno);
    sockaddr_in mine{};
    socklen_t length = sizeof mine;
    ASSERT_EQ(::getsockname(client.Get(), reinterpret_cast<sockaddr*>(&mine), &length), 0);

    sockaddr_in peer{};
    length = sizeof peer;
    const Plexum::UniqueFd taken(::accept4(listener.Fd(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
    ASSERT_GE(taken.Get(), 0) << std::strerror(errno);
    EXPECT_EQ(ntohs(peer.sin_port), ntohs(mine.sin_port));
    ASSERT_EQ(::fcntl(listener.Fd(), F_SETFL, O_NONBLOCK), 0);
    const Plexum::UniqueFd more(::accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(more.Get(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(DetectorTest, ARefusingPortAnswersToo) {
    const LoopbackPort refusing;
    EXPECT_TRUE(Fleet::Detect(At(refusing), RedfishOnly()));
}

}  // namespace
