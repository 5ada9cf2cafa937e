// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/IpmiClient.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

#include "host/GlobalConfig.h"
#include "host/IpmiBackend.h"
#include "host/Log.h"
#include "host/RunContext.h"
#include "host/Text.h"

namespace Plexum {
namespace {

constexpr char kLogSource[] = "src/host/IpmiClient";

constexpr int kDefaultCipherSuite = 3;
constexpr int kDefaultSessionTimeoutMs = 20000;
constexpr int kDefaultRetransmissionTimeoutMs = 1000;
constexpr uint8_t kLunBmc = 0;
// An IPMI response never exceeds this (the command byte, the completion code, data).
constexpr unsigned kMaxResponse = 256;

// The IPMI keys' values and the port text lose their blanks and line ends.
std::string Trimmed(const std::string& text) { return Trim(text, kBlanksAndLineEnds); }

// The names FreeIPMI's own tools accept for the LAN 2.0 workarounds.
struct WorkaroundName {
    const char* name;
    unsigned flag;
};
constexpr WorkaroundName kWorkarounds[] = {
    {"authcap", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_AUTHENTICATION_CAPABILITIES},
    {"intel20", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_INTEL_2_0_SESSION},
    {"supermicro20", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_SUPERMICRO_2_0_SESSION},
    {"sun20", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_SUN_2_0_SESSION},
    {"opensesspriv", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_OPEN_SESSION_PRIVILEGE},
    {"integritycheckvalue", IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_NON_EMPTY_INTEGRITY_CHECK_VALUE},
};

unsigned ReadWorkaroundFlags() {
    std::string text;
    if (GlobalConfig::GetConfigItem("IPMI_WORKAROUND_FLAGS", text) != 0) return 0;
    unsigned flags = 0;
    std::istringstream items(text);
    std::string item;
    while (std::getline(items, item, ',')) {
        const std::string name = Lower(Trimmed(item));
        if (name.empty()) continue;
        bool known = false;
        for (const WorkaroundName& entry : kWorkarounds) {
            if (name == entry.name) {
                flags |= entry.flag;
                known = true;
                break;
            }
        }
        if (!known) {
            PLEXUM_LOG(1, kLogSource, __LINE__) << "unknown IPMI workaround flag ignored: " << name;
        }
    }
    return flags;
}

uint8_t ReadPrivilegeLevel() {
    std::string text;
    if (GlobalConfig::GetConfigItem("IPMI_PRIVILEGE_LEVEL", text) != 0) return IPMI_PRIVILEGE_LEVEL_ADMIN;
    const std::string name = Lower(Trimmed(text));
    if (name == "user") return IPMI_PRIVILEGE_LEVEL_USER;
    if (name == "operator") return IPMI_PRIVILEGE_LEVEL_OPERATOR;
    if (name == "admin" || name == "administrator") return IPMI_PRIVILEGE_LEVEL_ADMIN;
    PLEXUM_LOG(1, kLogSource, __LINE__) << "unknown IPMI privilege level '" << name << "', using admin";
    return IPMI_PRIVILEGE_LEVEL_ADMIN;
}

// FreeIPMI wants "host:port", and an IPv6 literal in brackets before a port.
std::string HostWithPort(const std::string& address, const std::string& port) {
    std::string host = address;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string trimmedPort = Trimmed(port);
    if (trimmedPort.empty()) return host.find(':') != std::string::npos ? "[" + host + "]" : host;
    if (host.find(':') != std::string::npos) return "[" + host + "]:" + trimmedPort;
    return host + ":" + trimmedPort;
}

// FreeIPMI looks at its session time-out only when a retransmission wait ends,
// and those waits back off (R, R, 2R, 2R, 3R, ...). Left as configured, a dead
// controller is noticed up to one wait after the time-out. Hand FreeIPMI a
// time-out halfway into the last wait that ends within the configured time, so
// the failure comes at the end of that wait whatever the clock jitter. Returns
// the session time-out to pass; may lower the retransmission time-out, which
// FreeIPMI wants below the session time-out.
constexpr unsigned kFreeIpmiBackoffCount = 2;
constexpr unsigned kCheckSlackMs = 50;

unsigned AlignSessionTimeout(unsigned sessionMs, unsigned& retransmissionMs) {
    for (;;) {
        const unsigned budget = sessionMs > kCheckSlackMs ? sessionMs - kCheckSlackMs : sessionMs;
        uint64_t elapsed = 0;
        uint64_t lastWait = 0;
        unsigned checks = 0;
        for (uint64_t k = 0;; ++k) {
            const uint64_t wait = (k / kFreeIpmiBackoffCount + 1) * retransmissionMs;
            if (elapsed + wait > budget) break;
            elapsed += wait;
            lastWait = wait;
            ++checks;
        }
        // Two checks at least, so that the time-out passed stays above the retransmission time-out.
        if (checks >= 2) return static_cast<unsigned>(elapsed - lastWait / 2);
        if (retransmissionMs <= 1) return std::max(2u, sessionMs);
        retransmissionMs = std::max(1u, std::min(retransmissionMs, budget) / 2);
    }
}

bool IsCredentialRefusal(int errnum) {
    return errnum == IPMI_ERR_USERNAME_INVALID || errnum == IPMI_ERR_PASSWORD_INVALID ||
           errnum == IPMI_ERR_K_G_INVALID || errnum == IPMI_ERR_PRIVILEGE_LEVEL_INSUFFICIENT ||
           errnum == IPMI_ERR_PRIVILEGE_LEVEL_CANNOT_BE_OBTAINED;
}

// A time-out already took the whole configured session time; another try would double it
// (Open still retries a session time-out, see there).
bool IsTimeout(int errnum) {
    return errnum == IPMI_ERR_SESSION_TIMEOUT || errnum == IPMI_ERR_CONNECTION_TIMEOUT ||
           errnum == IPMI_ERR_PASSWORD_VERIFICATION_TIMEOUT || errnum == IPMI_ERR_MESSAGE_TIMEOUT;
}

// Failures that a new attempt cannot change.
bool IsPermanent(int errnum) {
    return errnum == IPMI_ERR_PARAMETERS || errnum == IPMI_ERR_HOSTNAME_INVALID ||
           errnum == IPMI_ERR_CIPHER_SUITE_ID_UNAVAILABLE || errnum == IPMI_ERR_IPMI_2_0_UNAVAILABLE ||
           errnum == IPMI_ERR_AUTHENTICATION_TYPE_UNAVAILABLE || errnum == IPMI_ERR_OUT_OF_MEMORY;
}

}  // namespace

struct IpmiClient::Impl {
    std::string address;
    std::string user;
    std::string password;
    std::string port;
    uint64_t count = 1;
    // FreeIPMI, once the first Open loaded it; set whenever ctx is.
    const IpmiBackend* ipmi = nullptr;
    ipmi_ctx_t ctx = nullptr;
    // Set when the controller stopped answering inside the session: closing it
    // politely would only wait for another time-out.
    bool sessionDead = false;

    void Destroy(bool closeSession) {
        if (ctx == nullptr) return;
        if (closeSession && !sessionDead) ipmi->ctxClose(ctx);
        ipmi->ctxDestroy(ctx);
        ctx = nullptr;
        sessionDead = false;
    }
};

IpmiClient::IpmiClient(const std::string& address, const std::string& user, const std::string& password,
                       const std::string& port, uint64_t count)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->address = address;
    m_impl->user = user;
    m_impl->password = password;
    m_impl->port = port;
    m_impl->count = count;
}

IpmiClient::~IpmiClient() {
    if (m_impl) m_impl->Destroy(true);
}

int32_t IpmiClient::OpenSession() {
    // A context is never reused: one whose session timed out stays broken.
    m_impl->Destroy(true);

    const int cipherSuite = GetGlobalConfigValue("IPMI_CIPHER_SUITE_ID", kDefaultCipherSuite);
    const uint8_t privilege = ReadPrivilegeLevel();
    int sessionTimeout = GetGlobalConfigValue("IPMI_SESSION_TIMEOUT_MS", kDefaultSessionTimeoutMs);
    int retransmissionTimeout =
        GetGlobalConfigValue("IPMI_RETRANSMISSION_TIMEOUT_MS", kDefaultRetransmissionTimeoutMs);
    const unsigned workarounds = ReadWorkaroundFlags();

    if (sessionTimeout <= 0) sessionTimeout = kDefaultSessionTimeoutMs;
    if (retransmissionTimeout <= 0) retransmissionTimeout = kDefaultRetransmissionTimeoutMs;
    unsigned retransmissionMs = static_cast<unsigned>(retransmissionTimeout);
    const unsigned sessionMs = AlignSessionTimeout(static_cast<unsigned>(sessionTimeout), retransmissionMs);
    if (retransmissionMs != static_cast<unsigned>(retransmissionTimeout)) {
        PLEXUM_LOG(2, kLogSource, __LINE__) << "IPMI retransmission time-out lowered to " << retransmissionMs
                                            << " ms to fit the session time-out of " << sessionTimeout << " ms";
    }
    if (cipherSuite < 0 || cipherSuite > 255) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI cipher suite id out of range: " << cipherSuite;
        return kOpenFailed;
    }

    const std::string host = HostWithPort(m_impl->address, m_impl->port);
    PLEXUM_LOG(4, kLogSource, __LINE__) << "IPMI open " << host << " user " << m_impl->user << " cipher suite "
                                        << cipherSuite << " privilege " << static_cast<unsigned>(privilege)
                                        << " session timeout " << sessionTimeout << " ms";

    const IpmiBackendLoad& load = LoadIpmiBackend();
    if (load.backend == nullptr) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI unavailable: " << load.error;
        return kOpenFailed;
    }
    const IpmiBackend& ipmi = *load.backend;

    const uint64_t attempts = m_impl->count == 0 ? 1 : m_impl->count;
    for (uint64_t attempt = 1; attempt <= attempts; ++attempt) {
        ipmi_ctx_t ctx = ipmi.ctxCreate();
        if (ctx == nullptr) {
            PLEXUM_LOG(1, kLogSource, __LINE__) << "cannot create an IPMI context: out of memory";
            return kOpenFailed;
        }
        const int opened = ipmi.ctxOpenOutofband20(
            ctx, host.c_str(), m_impl->user.c_str(), m_impl->password.c_str(), nullptr, 0, privilege,
            static_cast<uint8_t>(cipherSuite), sessionMs, retransmissionMs, workarounds, IPMI_FLAGS_DEFAULT);
        if (opened == 0) {
            m_impl->ipmi = &ipmi;
            m_impl->ctx = ctx;
            m_impl->sessionDead = false;
            return 0;
        }
        const int errnum = ipmi.ctxErrnum(ctx);
        // The target and the user are traced at level 4 above, never in failure records.
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI session start failed (attempt " << attempt << " of " << attempts
                                            << "): " << ipmi.ctxErrormsg(ctx);
        ipmi.ctxDestroy(ctx);
        if (IsCredentialRefusal(errnum)) return kOpenRefused;
        // A session time-out comes after the controller answered the first
        // message: a later reply of the session start was lost, and not every
        // controller answers a repeated RAKP message 3 again, so FreeIPMI's
        // retransmissions cannot recover it while a new session start can.
        if (errnum == IPMI_ERR_SESSION_TIMEOUT) continue;
        if (IsTimeout(errnum) || IsPermanent(errnum)) return kOpenFailed;
    }
    return kOpenFailed;
}

void IpmiClient::Close() {
    m_impl->Destroy(true);
}

int32_t IpmiClient::SendRequest(const IpmiRequest& request, std::vector<uint8_t>& response,
                                uint8_t& completionCode) {
    response.clear();
    completionCode = kNoReply;
    if (m_impl->ctx == nullptr) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI request 0x" << std::hex << static_cast<unsigned>(request.netFn)
                                            << "/0x" << static_cast<unsigned>(request.command)
                                            << " without an open session";
        return -1;
    }
    std::vector<uint8_t> rq;
    rq.reserve(request.data.size() + 1);
    rq.push_back(request.command);
    rq.insert(rq.end(), request.data.begin(), request.data.end());
    uint8_t rs[kMaxResponse] = {};
    const int got = m_impl->ipmi->cmdRaw(m_impl->ctx, kLunBmc, request.netFn, rq.data(), static_cast<unsigned>(rq.size()),
                                 rs, sizeof(rs));
    if (got < 0) {
        const int errnum = m_impl->ipmi->ctxErrnum(m_impl->ctx);
        if (IsTimeout(errnum)) m_impl->sessionDead = true;
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI request 0x" << std::hex << static_cast<unsigned>(request.netFn)
                                            << "/0x" << static_cast<unsigned>(request.command) << std::dec
                                            << " failed: " << m_impl->ipmi->ctxErrormsg(m_impl->ctx);
        return -1;
    }
    // The raw reply is the command byte, the completion code, then the data.
    if (got < 2) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << "IPMI reply of " << got << " bytes has no completion code";
        return -1;
    }
    completionCode = rs[1];
    response.assign(rs + 2, rs + got);
    return 0;
}

int32_t IpmiClient::Open() {
    // A session start is a wait on the network: a run asked to stop starts none.
    RunContext::Current().InterruptionPoint();
    const int32_t opened = OpenSession();
    // A session, or refused credentials: either way the controller answered over IPMI.
    if (opened == 0 || opened == kOpenRefused) {
        RunContext::Current().NoteProtocol(Protocol::Ipmi);
        RunContext::Current().NoteCredentials(opened == 0);
    }
    return opened;
}

}  // namespace Plexum
