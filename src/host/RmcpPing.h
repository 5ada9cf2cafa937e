// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Plexum {

// The RMCP presence ping (ASF, on UDP 623), which a controller answers with a
// pong before any session, and so without credentials: the cheapest question
// whether anything answers there. FreeIPMI builds and reads the datagrams.
class RmcpPing {
public:
    static constexpr int kPort = 623;

    // The datagram of a ping carrying `tag`; empty when FreeIPMI cannot be loaded.
    static std::vector<uint8_t> Packet(uint8_t tag);
    // The tag of a presence pong, or none when the datagram is no pong.
    static std::optional<uint8_t> PongTag(const uint8_t* data, size_t size);
};

}  // namespace Plexum
