// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/rest/RedfishClient.h"
#include "common/rest/RestClientInterface.h"
#include "host/ConnectionInfo.h"

// The chassis resource that carries the SMM's vendor network properties.
extern const std::string kSmmChassisResourcePath;

// Drives the SMM network over the controller's Redfish chassis resource:
// builds the URL and client for one connection, probes for support with one
// GET, switches the network or IPMI over LAN with one PATCH, and reports the
// state from the probe's reply.
class SmmLanManagerRest {
public:
    // `connection` is not owned and must outlive the manager.
    explicit SmmLanManagerRest(Plexum::PlexumConnection::ConnectionInfo* connection);
    ~SmmLanManagerRest();
    SmmLanManagerRest(const SmmLanManagerRest&) = delete;
    SmmLanManagerRest& operator=(const SmmLanManagerRest&) = delete;

    void Initialize();
    bool CheckIsSupportByRest();
    int32_t CheckResponse(const Rest::Response& reply);

    int32_t Enable(const std::string& key, const std::string& value);
    int32_t Disable(const std::string& key, const std::string& value);
    int32_t update(const std::string& key, const std::string& value);
    int32_t Query();

    // Read-only views for callers that report or check the manager's state.
    const std::string& Url() const { return m_url; }
    bool LanEnabled() const { return m_lanEnabled; }
    bool IpmiEnabled() const { return m_ipmiEnabled; }
    const std::string& SmmIp() const { return m_smmIp; }
    const Rest::Response& LastResponse() const { return m_response; }
    // The client, so that its settings (e.g. a shorter time-out) can be adjusted.
    const std::shared_ptr<Rest::RedfishClient>& Client() const { return m_client; }

private:
    // Lets unit tests plant a stored reply that no real server can produce (e.g. status 199).
    friend class SmmLanManagerRestTestPeer;

    // The probe's verdict on a reply body: true when it carries the vendor
    // object with a boolean LANEnabled, which is then stored in `lanEnabled`.
    // Apart from the request, so that it can be fed bodies directly.
    static bool ReadProbeReply(const std::string& body, bool& lanEnabled);

    Plexum::PlexumConnection::ConnectionInfo* m_connection;  // not owned
    std::string m_url;
    bool m_lanEnabled;
    bool m_ipmiEnabled;   // set only by Query
    std::string m_smmIp;  // set only by Query
    Rest::Response m_response;  // reply to the last request sent
    std::shared_ptr<Rest::RedfishClient> m_client;
};
