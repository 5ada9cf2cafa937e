// SPDX-License-Identifier: GPL-3.0-or-later
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "fleet/Detector.h"

namespace {

using Fleet::DetectOptions;

class DetectorTest : public ::testing::Test {
protected:
    // A TCP socket bound to a free loopback port; listening when asked.
    static Plexum::UniqueFd Bound(bool listening, int& port) {
        Plexum::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (socket.Get() < 0 || ::bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            (listening && ::listen(socket.Get(), 16) != 0)) {
            ADD_FAILURE() << "no loopback socket: " << std::strerror(errno);
            return Plexum::UniqueFd();
        }
        port = ntohs(address.sin_port);
        return socket;
    }

    static Fleet::Target At(int port) {
        Fleet::Target target;
        target.bmc.host = "127.0.0.1";
        target.bmc.port = port;
        target.label = "127.0.0.1:" + std::to_string(port);
        return target;
    }

    static DetectOptions RedfishOnly() {
        DetectOptions options;
        options.ipmi = false;
        return options;
    }
};

TEST_F(DetectorTest, AListeningPortAnswersAndTheServiceNeverAcceptsTheProbe) {
    int port = 0;
    const Plexum::UniqueFd listener = Bound(true, port);
    ASSERT_GE(listener.Get(), 0);
    ASSERT_TRUE(Fleet::Detect(At(port), RedfishOnly()));

    // An ordinary connection after the probe: it is the only one the service can take.
    Plexum::UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0) << std::strerror(errno);
    sockaddr_in mine{};
    socklen_t length = sizeof mine;
    ASSERT_EQ(::getsockname(client.Get(), reinterpret_cast<sockaddr*>(&mine), &length), 0);

    sockaddr_in peer{};
    length = sizeof peer;
    const Plexum::UniqueFd taken(::accept4(listener.Get(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
    ASSERT_GE(taken.Get(), 0) << std::strerror(errno);
    EXPECT_EQ(ntohs(peer.sin_port), ntohs(mine.sin_port));
    ASSERT_EQ(::fcntl(listener.Get(), F_SETFL, O_NONBLOCK), 0);
    const Plexum::UniqueFd more(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(more.Get(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(DetectorTest, ARefusingPortAnswersToo) {
    int port = 0;
    const Plexum::UniqueFd bound = Bound(false, port);  // held, so nothing else listens there
    ASSERT_GE(bound.Get(), 0);
    EXPECT_TRUE(Fleet::Detect(At(port), RedfishOnly()));
}

}  // namespace
