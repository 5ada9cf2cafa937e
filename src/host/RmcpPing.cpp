// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RmcpPing.h"

#include <memory>

#include "host/IpmiBackend.h"

namespace Plexum {
namespace {

// One FreeIPMI object with its owner, freed through the same loaded library.
class FiidObject {
public:
    FiidObject(const IpmiBackend& ipmi, fiid_field_t* tmpl) : m_ipmi(ipmi), m_obj(ipmi.objCreate(tmpl)) {}
    ~FiidObject() {
        if (m_obj != nullptr) m_ipmi.objDestroy(m_obj);
    }
    FiidObject(const FiidObject&) = delete;
    FiidObject& operator=(const FiidObject&) = delete;
    fiid_obj_t Get() const { return m_obj; }

private:
    const IpmiBackend& m_ipmi;
    fiid_obj_t m_obj;
};

constexpr uint64_t kPresencePong = RMCP_ASF_MESSAGE_TYPE_PRESENCE_PONG;

}  // namespace

std::vector<uint8_t> RmcpPing::Packet(uint8_t tag) {
    const IpmiBackend* ipmi = LoadIpmiBackend().backend;
    if (ipmi == nullptr) return {};
    const FiidObject header(*ipmi, ipmi->rmcpHeaderTemplate);
    const FiidObject ping(*ipmi, ipmi->pingTemplate);
    if (header.Get() == nullptr || ping.Get() == nullptr || ipmi->fillRmcpHeaderAsf(header.Get()) < 0 ||
        ipmi->fillPresencePing(tag, ping.Get()) < 0) {
        return {};
    }
    std::vector<uint8_t> packet(64);
    const int length = ipmi->assembleRmcp(header.Get(), ping.Get(), packet.data(), packet.size(), 0);
    if (length <= 0) return {};
    packet.resize(static_cast<size_t>(length));
    return packet;
}

std::optional<uint8_t> RmcpPing::PongTag(const uint8_t* data, size_t size) {
    const IpmiBackend* ipmi = LoadIpmiBackend().backend;
    if (ipmi == nullptr || data == nullptr || size == 0) return std::nullopt;
    const FiidObject header(*ipmi, ipmi->rmcpHeaderTemplate);
    const FiidObject pong(*ipmi, ipmi->pongTemplate);
    if (header.Get() == nullptr || pong.Get() == nullptr) return std::nullopt;
    // A short datagram fills only part of the pong: the message type and tag are all that is needed.
    if (ipmi->unassembleRmcp(data, static_cast<unsigned int>(size), header.Get(), pong.Get(), 0) < 0) {
        return std::nullopt;
    }
    uint64_t type = 0;
    uint64_t tag = 0;
    if (ipmi->objGet(pong.Get(), "message_type", &type) != 1 || type != kPresencePong ||
        ipmi->objGet(pong.Get(), "message_tag", &tag) != 1) {
        return std::nullopt;
    }
    return static_cast<uint8_t>(tag);
}

}  // namespace Plexum
