// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The simulated SMM's shared core: knobs, the one network state both faces
// read and change, its persistence, and the record of what was received.

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace SmmSim {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// One entry of the CC, DROP or RESPONSE lists: "CMD[.DATA0][#N][:HEX]".
struct Rule {
    int command = -1;
    int data0 = -1;         // -1: any first data byte
    unsigned nth = 0;       // 0: every matching request
    std::vector<uint8_t> bytes;
};

// Members are grouped by size, largest first, so the struct carries no padding
// holes between them.
struct Knobs {
    std::vector<Rule> cc;
    std::vector<Rule> drop;
    std::vector<Rule> response;

    std::string address;
    std::string user = "admin";
    std::string password;
    std::string recordPath;
    std::string stateFile;
    std::string certFile;
    std::string keyFile;
    std::string redfishVendor = "present";  // present | absent | malformed
    std::string getBody;
    std::string ipv4Text;
    std::string ipv4Kind = "string";  // string | absent | number
    std::string patchBody;
    std::string sessionService = "on";  // on | absent | nopost | notoken | refuse
    std::string patchHold;              // a PATCH waits until this file exists (empty: never)

    int watchPid = 0;  // exit when this process is gone (0: never)
    unsigned statusDelayReads = 0;
    int redfishPort = 443;
    unsigned redfish503 = 0;
    int patchStatus = 0;  // 0: apply the change and answer 200 with the resource
    unsigned sessionLimit = 4;
    int sessionDeleteStatus = 0;  // 0: a DELETE of a session deletes it

    uint8_t initialStatus = 1;
    uint8_t c4Status = 0;
    bool c4Strict = true;
    bool redfish = true;
    bool redfishBasic = true;  // off: only a session's token authenticates
    bool redfishIpv6 = false;
    bool redfishLanAsString = false;
    bool redfishNonJson = false;
    bool hasGetBody = false;
    bool hasIpv4Text = false;
    bool hasPatchBody = false;
    uint8_t smmIp[4] = {192, 0, 2, 100};
};

bool LoadKnobs(const std::string& path, Knobs& knobs, std::string& error);
bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes);
std::string Hex(const uint8_t* data, size_t size);

// The session service's open sessions, at most SESSION_LIMIT at once; every
// session made or deleted is recorded with how many are left open.
class SessionStore {
public:
    // A new session of `user`: its id and token; 0 when the limit is reached.
    unsigned Open(const std::string& user, unsigned limit, std::string& token);
    // The id of the open session `token` belongs to, or 0 (deleted, or never made).
    unsigned Find(const std::string& token);
    // Deletes session `id`; false when no such session is open.
    bool Close(unsigned id);
    // The id of the session `token` was made for, open or deleted, or 0 (for the record).
    unsigned Named(const std::string& token);

private:
    std::mutex m_mutex;
    std::map<unsigned, std::string> m_tokens;  // the open ones: id -> token
    std::map<std::string, unsigned> m_issued;  // every token made: token -> id
    unsigned m_lastId = 0;
};

class Sim {
public:
    static Sim& Instance();

    bool Init(const std::string& confPath, std::string& error);
    const Knobs& knobs() const { return m_knobs; }

    // Status byte as a status read sees it; a read lets a pending change take effect.
    uint8_t ReadStatus();
    // Status without counting as a read (the record, the PATCH logic).
    uint8_t PeekStatus();
    // The status a change is heading for (the pending one, else the current one).
    uint8_t TargetStatus();
    void RequestStatus(uint8_t target);
    void SetMethod(uint8_t method);

    // Counts one more Redfish request to the chassis; true while it must get 503.
    bool Take503();

    // Appends one JSON line {"seq":..,"t":..,<fill>} to the record.
    void Record(const std::function<void(JsonWriter&)>& fill);

    SessionStore& Sessions() { return m_sessions; }

private:
    Sim() = default;
    void LoadStateLocked();
    void PersistLocked();

    Knobs m_knobs;
    std::mutex m_stateMutex;
    uint8_t m_status = 1;
    bool m_hasPending = false;
    uint8_t m_pending = 0;
    unsigned m_readsLeft = 0;
    uint8_t m_method = 0;
    unsigned m_chassisRequests = 0;

    std::mutex m_recordMutex;
    FILE* m_record = nullptr;
    uint64_t m_seq = 0;

    SessionStore m_sessions;
};

// Starts the HTTPS face(s) in background threads; false and a message when a
// listener cannot be set up (the simulator must then refuse to start).
bool StartRedfish(std::string& error);

// Ends the simulator once knobs().watchPid no longer exists, so that a test
// run killed half-way leaves no simulator behind.
void StartWatchdog();

}  // namespace SmmSim
