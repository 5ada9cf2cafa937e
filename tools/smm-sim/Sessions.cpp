// SPDX-License-Identifier: GPL-3.0-or-later
// The simulated SMM's session service: which sessions are open and their
// tokens. Every session made or deleted is a line of the record, so that tests
// can count the sessions a client left behind.
#include <openssl/rand.h>

#include <string>

#include "SmmSim.h"

namespace SmmSim {
namespace {

// 16 random bytes as hex, as a service's tokens look.
std::string NewToken() {
    unsigned char bytes[16] = {};
    if (RAND_bytes(bytes, sizeof bytes) != 1) return std::string();
    return Hex(bytes, sizeof bytes);
}

void RecordSessionEvent(const char* event, unsigned id, const std::string& user, size_t open) {
    Sim::Instance().Record([&](JsonWriter& w) {
        w.Key("face");
        w.String("session");
        w.Key("event");
        w.String(event);
        w.Key("session");
        w.String(std::to_string(id).c_str());
        if (!user.empty()) {
            w.Key("user");
            w.String(user.c_str());
        }
        w.Key("open");
        w.Uint64(open);
    });
}

}  // namespace

unsigned SessionStore::Open(const std::string& user, unsigned limit, std::string& token) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_tokens.size() >= limit) return 0;
    token = NewToken();
    if (token.empty()) return 0;
    const unsigned id = ++m_lastId;
    m_tokens[id] = token;
    m_issued[token] = id;
    RecordSessionEvent("created", id, user, m_tokens.size());
    return id;
}

unsigned SessionStore::Find(const std::string& token) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_tokens) {
        if (!token.empty() && entry.second == token) return entry.first;
    }
    return 0;
}

unsigned SessionStore::Named(const std::string& token) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_issued.find(token);
    return found == m_issued.end() ? 0 : found->second;
}

bool SessionStore::Close(unsigned id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_tokens.erase(id) == 0) return false;
    RecordSessionEvent("deleted", id, std::string(), m_tokens.size());
    return true;
}

}  // namespace SmmSim
