// SPDX-License-Identifier: GPL-3.0-or-later
#include "SmmSim.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace SmmSim {
namespace {

std::string Trim(const std::string& text) {
    const char* const blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    const size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

bool ParseUnsigned(const std::string& text, unsigned long max, unsigned long& value) {
    const std::string t = Trim(text);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(t.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max || t[0] == '-') return false;
    value = v;
    return true;
}

bool ParseBool(const std::string& text, bool& value) {
    const std::string t = Upper(Trim(text));
    if (t == "ON" || t == "TRUE" || t == "YES" || t == "1") {
        value = true;
        return true;
    }
    if (t == "OFF" || t == "FALSE" || t == "NO" || t == "0") {
        value = false;
        return true;
    }
    return false;
}

bool ParseByte(const std::string& text, uint8_t& value) {
    unsigned long v = 0;
    if (!ParseUnsigned(text, 255, v)) return false;
    value = static_cast<uint8_t>(v);
    return true;
}

bool ParseHexByte(const std::string& text, int& value) {
    std::vector<uint8_t> bytes;
    if (!ParseHex(text, bytes) || bytes.size() != 1) return false;
    value = bytes[0];
    return true;
}

// "CMD[.DATA0][#N][:HEX]", hex without 0x; withBytes says whether ":HEX" is required.
bool ParseRule(const std::string& text, bool withBytes, Rule& rule) {
    std::string selector = Trim(text);
    if (withBytes) {
        const size_t colon = selector.find(':');
        if (colon == std::string::npos) return false;
        if (!ParseHex(Trim(selector.substr(colon + 1)), rule.bytes)) return false;
        selector = Trim(selector.substr(0, colon));
    }
    const size_t hash = selector.find('#');
    if (hash != std::string::npos) {
        unsigned long nth = 0;
        if (!ParseUnsigned(selector.substr(hash + 1), 1000000, nth) || nth == 0) return false;
        rule.nth = static_cast<unsigned>(nth);
        selector.resize(hash);
    }
    const size_t dot = selector.find('.');
    if (dot != std::string::npos) {
        if (!ParseHexByte(selector.substr(dot + 1), rule.data0)) return false;
        selector.resize(dot);
    }
    return ParseHexByte(selector, rule.command);
}

bool ParseRules(const std::string& text, bool withBytes, std::vector<Rule>& rules) {
    std::istringstream items(text);
    std::string item;
    while (std::getline(items, item, ',')) {
        if (Trim(item).empty()) continue;
        Rule rule;
        if (!ParseRule(item, withBytes, rule)) return false;
        rules.push_back(rule);
    }
    return true;
}

bool ParseIpv4(const std::string& text, uint8_t out[4]) {
    in_addr addr{};
    if (inet_pton(AF_INET, Trim(text).c_str(), &addr) != 1) return false;
    std::memcpy(out, &addr, 4);
    return true;
}

// "PATH:LINE: WHAT[DETAIL]", how every complaint about a line of the knobs file reads.
std::string LineError(const std::string& path, int number, const char* what, const std::string& detail = "") {
    std::string text = path;
    text += ':';
    text += std::to_string(number);
    text += ": ";
    text += what;
    text += detail;
    return text;
}

}  // namespace

bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes) {
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == '\t') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
        digits.push_back(c);
    }
    if (digits.size() % 2 != 0) return false;
    bytes.clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return true;
}

std::string Hex(const uint8_t* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 0x0F]);
    }
    return out;
}

bool LoadKnobs(const std::string& path, Knobs& k, std::string& error) {
    std::ifstream file(path);
    if (!file) {
        error = "cannot read " + path;
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            error = LineError(path, number, "expected KEY=VALUE");
            return false;
        }
        const std::string key = Upper(Trim(line.substr(0, equals)));
        const std::string value = line.substr(equals + 1);
        unsigned long n = 0;
        bool ok = true;
        if (key == "ADDRESS") k.address = Trim(value);
        else if (key == "USER") k.user = value;
        else if (key == "PASSWORD") k.password = value;
        else if (key == "RECORD") k.recordPath = Trim(value);
        else if (key == "STATE_FILE") k.stateFile = Trim(value);
        else if (key == "CERT") k.certFile = Trim(value);
        else if (key == "KEY") k.keyFile = Trim(value);
        else if (key == "WATCH_PID") {
            ok = ParseUnsigned(value, 4194304, n);
            k.watchPid = static_cast<int>(n);
        } else if (key == "INITIAL_STATUS") ok = ParseByte(value, k.initialStatus);
        else if (key == "STATUS_DELAY_READS") {
            ok = ParseUnsigned(value, 1000000, n);
            k.statusDelayReads = static_cast<unsigned>(n);
        } else if (key == "C4_STATUS") ok = ParseByte(value, k.c4Status);
        else if (key == "C4_STRICT") ok = ParseBool(value, k.c4Strict);
        else if (key == "SMM_IP") ok = ParseIpv4(value, k.smmIp);
        else if (key == "CC") {
            ok = ParseRules(value, true, k.cc);
            for (const Rule& rule : k.cc) ok = ok && rule.bytes.size() == 1;
        }
        else if (key == "DROP") ok = ParseRules(value, false, k.drop);
        else if (key == "RESPONSE") ok = ParseRules(value, true, k.response);
        else if (key == "REDFISH") ok = ParseBool(value, k.redfish);
        else if (key == "REDFISH_PORT") {
            ok = ParseUnsigned(value, 65535, n) && n > 0;
            k.redfishPort = static_cast<int>(n);
        } else if (key == "REDFISH_IPV6") ok = ParseBool(value, k.redfishIpv6);
        else if (key == "REDFISH_VENDOR") {
            k.redfishVendor = Trim(value);
            ok = k.redfishVendor == "present" || k.redfishVendor == "absent" || k.redfishVendor == "malformed";
        } else if (key == "REDFISH_LAN_AS_STRING") ok = ParseBool(value, k.redfishLanAsString);
        else if (key == "REDFISH_BODY") {
            const std::string kind = Trim(value);
            ok = kind == "json" || kind == "nonjson";
            k.redfishNonJson = kind == "nonjson";
        } else if (key == "REDFISH_GET_BODY") {
            k.hasGetBody = true;
            k.getBody = value;
        } else if (key == "REDFISH_IPV4") {
            k.hasIpv4Text = true;
            k.ipv4Text = value;
        } else if (key == "REDFISH_IPV4_KIND") {
            k.ipv4Kind = Trim(value);
            ok = k.ipv4Kind == "string" || k.ipv4Kind == "absent" || k.ipv4Kind == "number";
        } else if (key == "REDFISH_503") {
            ok = ParseUnsigned(value, 1000000, n);
            k.redfish503 = static_cast<unsigned>(n);
        } else if (key == "PATCH_STATUS") {
            ok = ParseUnsigned(value, 599, n) && n >= 100;
            k.patchStatus = static_cast<int>(n);
        } else if (key == "PATCH_BODY") {
            k.hasPatchBody = true;
            k.patchBody = value;
        } else if (key == "PATCH_HOLD") {
            k.patchHold = Trim(value);
            ok = k.patchHold.empty() || k.patchHold[0] == '/';
        } else if (key == "REDFISH_BASIC") ok = ParseBool(value, k.redfishBasic);
        else if (key == "SESSION_SERVICE") {
            k.sessionService = Trim(value);
            ok = k.sessionService == "on" || k.sessionService == "absent" || k.sessionService == "nopost" ||
                 k.sessionService == "notoken" || k.sessionService == "refuse";
        } else if (key == "SESSION_LIMIT") {
            ok = ParseUnsigned(value, 1000000, n);
            k.sessionLimit = static_cast<unsigned>(n);
        } else if (key == "SESSION_DELETE_STATUS") {
            ok = ParseUnsigned(value, 599, n) && n >= 100;
            k.sessionDeleteStatus = static_cast<int>(n);
        } else if (key == "USER_PRIV" || key == "IPMI_PORT" || key == "IPMI_IPV6" || key == "IPMI_IPV6_PORT") {
            // Read by the launcher for lan.conf.
        } else {
            error = LineError(path, number, "unknown key ", key);
            return false;
        }
        if (!ok) {
            error = LineError(path, number, "bad value for ", key);
            return false;
        }
    }
    if (k.recordPath.empty() || k.stateFile.empty()) {
        error = path + ": RECORD and STATE_FILE are required";
        return false;
    }
    return true;
}

Sim& Sim::Instance() {
    // Never destroyed: the HTTPS threads may still run while the process exits.
    static Sim* const sim = new Sim();
    return *sim;
}

bool Sim::Init(const std::string& confPath, std::string& error) {
    if (!LoadKnobs(confPath, m_knobs, error)) return false;
    {
        // Sequence numbers go on across restarts of the same simulator.
        std::ifstream existing(m_knobs.recordPath);
        std::string line;
        while (std::getline(existing, line)) ++m_seq;
    }
    m_record = std::fopen(m_knobs.recordPath.c_str(), "ae");
    if (m_record == nullptr) {
        error = "cannot open record " + m_knobs.recordPath + ": " + std::strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_status = m_knobs.initialStatus;
    LoadStateLocked();
    PersistLocked();
    return true;
}

void Sim::LoadStateLocked() {
    // A restart ("reboot") keeps the status the SMM had.
    std::ifstream file(m_knobs.stateFile);
    std::string line;
    while (std::getline(file, line)) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = line.substr(0, equals);
        unsigned long v = 0;
        if (!ParseUnsigned(line.substr(equals + 1), 1000000, v)) continue;
        if (key == "STATUS" && v <= 255) m_status = static_cast<uint8_t>(v);
        else if (key == "PENDING" && v <= 255) {
            m_hasPending = true;
            m_pending = static_cast<uint8_t>(v);
        } else if (key == "READS_LEFT") m_readsLeft = static_cast<unsigned>(v);
        else if (key == "METHOD" && v <= 255) m_method = static_cast<uint8_t>(v);
    }
}

void Sim::PersistLocked() {
    std::ostringstream text;
    text << "STATUS=" << static_cast<unsigned>(m_status) << "\n";
    if (m_hasPending) text << "PENDING=" << static_cast<unsigned>(m_pending) << "\n";
    text << "READS_LEFT=" << m_readsLeft << "\n";
    text << "METHOD=" << static_cast<unsigned>(m_method) << "\n";
    const std::string temp = m_knobs.stateFile + ".tmp";
    const std::string body = text.str();
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    // No fsync: the state must outlive a killed simulator, not a crashed machine,
    // and a flush to disk on a loaded machine can hold a reply past the client's
    // retransmission time-out.
    const bool written = ::write(fd, body.data(), body.size()) == static_cast<ssize_t>(body.size());
    ::close(fd);
    // A state file that cannot be replaced keeps the last saved state; the
    // running simulator goes on from memory, so there is nothing else to do.
    if (written) (void)std::rename(temp.c_str(), m_knobs.stateFile.c_str());
}

uint8_t Sim::ReadStatus() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_hasPending) {
        if (m_readsLeft > 0) {
            --m_readsLeft;
        } else {
            m_status = m_pending;
            m_hasPending = false;
        }
        PersistLocked();
    }
    return m_status;
}

uint8_t Sim::PeekStatus() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_status;
}

uint8_t Sim::TargetStatus() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_hasPending ? m_pending : m_status;
}

void Sim::RequestStatus(uint8_t target) {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (!m_hasPending && target == m_status) return;
    if (m_knobs.statusDelayReads == 0) {
        m_status = target;
        m_hasPending = false;
        m_readsLeft = 0;
    } else {
        m_hasPending = true;
        m_pending = target;
        m_readsLeft = m_knobs.statusDelayReads;
    }
    PersistLocked();
}

void Sim::SetMethod(uint8_t method) {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_method = method;
    PersistLocked();
}

bool Sim::Take503() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    ++m_chassisRequests;
    return m_chassisRequests <= m_knobs.redfish503;
}

void Sim::Record(const std::function<void(JsonWriter&)>& fill) {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    if (m_record == nullptr) return;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const double seconds = static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) / 1e6;
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    w.StartObject();
    w.Key("seq");
    w.Uint64(++m_seq);
    w.Key("t");
    w.Double(seconds);
    fill(w);
    w.EndObject();
    // The record is written on a best-effort basis: a line that cannot be
    // written shows up as missing to whoever reads the record, and the
    // simulator must keep answering either way.
    (void)std::fputs(buffer.GetString(), m_record);
    (void)std::fputc('\n', m_record);
    (void)std::fflush(m_record);
}

void StartWatchdog() {
    const int pid = Sim::Instance().knobs().watchPid;
    if (pid <= 0) return;
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    std::thread([pid] {
        while (::kill(pid, 0) == 0 || errno == EPERM) std::this_thread::sleep_for(std::chrono::milliseconds(500));
        ::_exit(0);
    }).detach();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace SmmSim
