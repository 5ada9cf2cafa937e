// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Detector.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

#include "fleet/FleetLog.h"
#include "host/Log.h"
#include "host/RmcpPing.h"
#include "host/RunContext.h"

namespace Fleet {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPingInterval = std::chrono::seconds(1);
// While the Redfish port is being tried, the first ping waits this long: a
// service that is there answers sooner, and a healthy fleet sends no ping.
constexpr auto kFirstPingAfterTcp = std::chrono::milliseconds(250);
constexpr uint8_t kPingTag = 0x4d;

std::string Seconds(std::chrono::milliseconds bound) {
    const auto ms = bound.count();
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

// An address as the key pongs are matched by: the family and the raw bytes.
std::string AddressKey(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(address);
        return std::string("4") + std::string(reinterpret_cast<const char*>(&in.sin_addr), sizeof in.sin_addr);
    }
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    return std::string("6") + std::string(reinterpret_cast<const char*>(&in6.sin6_addr), sizeof in6.sin6_addr);
}

void SetPort(sockaddr_storage& address, int port) {
    if (address.ss_family == AF_INET) {
        reinterpret_cast<sockaddr_in&>(address).sin_port = htons(static_cast<uint16_t>(port));
    } else {
        reinterpret_cast<sockaddr_in6&>(address).sin6_port = htons(static_cast<uint16_t>(port));
    }
}

socklen_t LengthOf(const sockaddr_storage& address) {
    return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// The address of a target written as a literal; false for a host name.
bool Literal(const Target& target, sockaddr_storage& address) {
    std::memset(&address, 0, sizeof address);
    auto& in = reinterpret_cast<sockaddr_in&>(address);
    auto& in6 = reinterpret_cast<sockaddr_in6&>(address);
    if (!target.bmc.ipv6 && ::inet_pton(AF_INET, target.bmc.host.c_str(), &in.sin_addr) == 1) {
        in.sin_family = AF_INET;
        return true;
    }
    if (target.bmc.ipv6 && ::inet_pton(AF_INET6, target.bmc.host.c_str(), &in6.sin6_addr) == 1) {
        in6.sin6_family = AF_INET6;
        return true;
    }
    return false;
}

// The first address the resolver gives for a host name.
bool LookUp(const std::string& host, sockaddr_storage& address) {
    std::memset(&address, 0, sizeof address);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, ::freeaddrinfo);
    std::memcpy(&address, found->ai_addr, std::min<size_t>(found->ai_addrlen, sizeof address));
    return true;
}

// Host names are looked up on a few threads of their own, so that a slow
// resolver holds up no probe of another target; the loop hears of each
// answer through Fd().
class Lookups {
public:
    static constexpr size_t kThreads = 16;

    struct Answer {
        size_t index;
        bool found;
        sockaddr_storage address;
    };

    Lookups() : m_ready(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Lookups() {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_asked.notify_all();
        for (std::thread& thread : m_threads) thread.join();
    }
    Lookups(const Lookups&) = delete;
    Lookups& operator=(const Lookups&) = delete;

    int Fd() const { return m_ready.Get(); }

    void Ask(size_t index, const std::string& host) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_questions.emplace_back(index, host);
            if (m_threads.size() < kThreads && m_threads.size() < m_questions.size() + m_busy) {
                m_threads.emplace_back([this] { Work(); });
            }
        }
        m_asked.notify_one();
    }

    std::vector<Answer> Take() {
        uint64_t count = 0;
        static_cast<void>(::read(m_ready.Get(), &count, sizeof count));
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Answer> answers;
        answers.swap(m_answers);
        return answers;
    }

private:
    void Work() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_asked.wait(lock, [this] { return m_stopping || !m_questions.empty(); });
            if (m_stopping) return;
            const std::pair<size_t, std::string> question = std::move(m_questions.front());
            m_questions.pop_front();
            ++m_busy;
            lock.unlock();
            Answer answer{question.first, false, {}};
            answer.found = LookUp(question.second, answer.address);
            lock.lock();
            --m_busy;
            m_answers.push_back(answer);
            const uint64_t one = 1;
            static_cast<void>(::write(m_ready.Get(), &one, sizeof one));
        }
    }

    Plexum::UniqueFd m_ready;
    std::mutex m_mutex;
    std::condition_variable m_asked;
    std::deque<std::pair<size_t, std::string>> m_questions;
    std::vector<Answer> m_answers;
    std::vector<std::thread> m_threads;
    size_t m_busy = 0;
    bool m_stopping = false;
};

// A record of the target's, labelled as its run's records are.
void Note(const Target& target, unsigned level, const std::string& text) {
    if (Plexum::Log::GetMinLogLevel() < level) return;
    Plexum::RunContext labelled(target.label, nullptr);
    const Plexum::ScopedRunContext installed(labelled);
    PLEXUM_LOG(level, FleetLog::kSource, FleetLog::kDetection) << text;
}

// One target being probed.
struct Probe {
    size_t index;
    sockaddr_storage address;  // without port
    Plexum::UniqueFd tcp;      // the connection under way to its Redfish port, or none
    Clock::time_point started;
    Clock::time_point deadline;
    Clock::time_point nextPing;
};

// The loop of one detection; lives on the detector's thread.
class Probing {
public:
    Probing(const std::vector<Target>& targets, const DetectOptions& options, const Detector::Verdict& verdict,
            int wake)
        : m_targets(targets), m_options(options), m_verdict(verdict), m_wake(wake),
          m_ping(options.ipmi ? Plexum::RmcpPing::Packet(kPingTag) : std::vector<uint8_t>()) {}

    void Run() {
        for (;;) {
            while (m_probes.size() + m_lookingUp < m_options.maxProbes && m_next < m_targets.size()) Begin(m_next++);
            if (m_probes.empty() && m_lookingUp == 0) return;
            if (!Wait()) return;  // stopped
            Expire();
        }
    }

private:
    void Begin(size_t index) {
        sockaddr_storage address{};
        if (Literal(m_targets[index], address)) {
            StartProbe(index, address);
            return;
        }
        if (!m_lookups) m_lookups = std::make_unique<Lookups>();
        m_lookups->Ask(index, m_targets[index].bmc.host);
        ++m_lookingUp;
    }

    void LookedUp() {
        for (const Lookups::Answer& answer : m_lookups->Take()) {
            --m_lookingUp;
            if (answer.found) {
                StartProbe(answer.index, answer.address);
                continue;
            }
            const Target& target = m_targets[answer.index];
            Note(target, 3, "detection: cannot resolve " + target.bmc.host + "; left to the whole behaviour");
            m_verdict(answer.index, true);
        }
    }

    void StartProbe(size_t index, const sockaddr_storage& address) {
        const Target& target = m_targets[index];
        Probe probe{index, address, Plexum::UniqueFd(), Clock::now(), {}, {}};
        probe.deadline = probe.started + m_options.bound;
        probe.nextPing = probe.started + (m_options.redfish ? Clock::duration(kFirstPingAfterTcp) : Clock::duration::zero());
        if (m_options.redfish && !Connect(probe, target.bmc.port)) {
            // Refused at once: nothing listens there, but the host is there all the same.
            Note(target, 4, "detection: answered on TCP port " + std::to_string(target.bmc.port) + " (Redfish; refused)");
            m_verdict(index, true);
            return;
        }
        m_probes.push_back(std::move(probe));
    }

    // Starts the connection to the Redfish port; false when it was refused at once.
    static bool Connect(Probe& probe, int port) {
        sockaddr_storage address = probe.address;
        SetPort(address, port);
        Plexum::UniqueFd socket(::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (socket.Get() < 0) return true;
        // Holds back the last ACK of the handshake, so the reset that follows the
        // SMM's SYN-ACK finds its connection not yet made: the service never
        // accepts the probe, and its web server has nothing to do for it.
        const int holdAck = 1;
        static_cast<void>(::setsockopt(socket.Get(), IPPROTO_TCP, TCP_DEFER_ACCEPT, &holdAck, sizeof holdAck));
        if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), LengthOf(address)) != 0 &&
            errno != EINPROGRESS) {
            return errno != ECONNREFUSED;
        }
        probe.tcp = std::move(socket);
        return true;
    }

    int UdpSocket(int family) {
        Plexum::UniqueFd& socket = family == AF_INET ? m_udp4 : m_udp6;
        if (socket.Get() < 0) socket = Plexum::UniqueFd(::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        return socket.Get();
    }

    void SendPings() {
        const Clock::time_point now = Clock::now();
        for (Probe& probe : m_probes) {
            if (m_ping.empty() || now < probe.nextPing) continue;
            sockaddr_storage to = probe.address;
            SetPort(to, Plexum::RmcpPing::kPort);
            const int socket = UdpSocket(to.ss_family);
            if (socket >= 0) {
                static_cast<void>(::sendto(socket, m_ping.data(), m_ping.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                                           LengthOf(to)));
            }
            probe.nextPing = now + kPingInterval;
        }
    }

    // Waits for answers until the next ping or deadline; false when stopped.
    bool Wait() {
        SendPings();
        std::vector<pollfd> watched = {{m_wake, POLLIN, 0}, {m_udp4.Get(), POLLIN, 0}, {m_udp6.Get(), POLLIN, 0},
                                       {m_lookups ? m_lookups->Fd() : -1, POLLIN, 0}};
        for (const Probe& probe : m_probes) watched.push_back({probe.tcp.Get(), POLLOUT, 0});
        Clock::time_point until = Clock::time_point::max();
        for (const Probe& probe : m_probes) {
            until = std::min(until, probe.deadline);
            if (!m_ping.empty()) until = std::min(until, probe.nextPing);
        }
        // Nothing under way but look-ups: wait for them, or for the stop.
        const auto left = until == Clock::time_point::max()
                              ? int64_t{-2}
                              : std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        const int ready = ::poll(watched.data(), watched.size(), static_cast<int>(std::max<int64_t>(-1, left + 1)));
        if (ready < 0 && errno != EINTR) return false;
        if (ready <= 0) return true;
        if (watched[0].revents != 0) return false;
        // The probes answered through TCP, by their place in `watched`, taken out from the back
        // (before the pongs, which take probes out wherever they are).
        for (size_t at = watched.size(); at-- > kFirstProbe;) {
            if (watched[at].fd < 0 || watched[at].revents == 0) continue;
            int error = 0;
            socklen_t length = sizeof error;
            ::getsockopt(watched[at].fd, SOL_SOCKET, SO_ERROR, &error, &length);
            Probe& probe = m_probes[at - kFirstProbe];
            if (error == 0) {
                // Closed with a reset: the SMM drops the half-made connection, and no TIME-WAIT is left here.
                const linger abort{1, 0};
                ::setsockopt(watched[at].fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            }
            if (error == 0 || error == ECONNREFUSED) {
                const std::string port = "TCP port " + std::to_string(m_targets[probe.index].bmc.port);
                Answer(at - kFirstProbe, port + (error == 0 ? " (Redfish)" : " (Redfish; refused)"));
            } else {
                probe.tcp = Plexum::UniqueFd();  // no answer there; the ping may still get one
            }
        }
        for (const size_t at : {size_t{1}, size_t{2}}) {
            if ((watched[at].revents & POLLIN) != 0) ReadPongs(watched[at].fd);
        }
        if ((watched[3].revents & POLLIN) != 0) LookedUp();
        return true;
    }

    // Where the probes' sockets start in the list poll watches.
    static constexpr size_t kFirstProbe = 4;

    void ReadPongs(int socket) {
        uint8_t buffer[512];
        for (;;) {
            sockaddr_storage from{};
            socklen_t length = sizeof from;
            const ssize_t got = ::recvfrom(socket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
            if (got < 0) return;
            if (!Plexum::RmcpPing::PongTag(buffer, static_cast<size_t>(got))) continue;
            const std::string key = AddressKey(from);
            // Every target at that address answered: IPMI uses the one port whatever the Redfish port is.
            for (size_t at = m_probes.size(); at-- > 0;) {
                if (AddressKey(m_probes[at].address) == key) Answer(at, "UDP port 623 (IPMI)");
            }
        }
    }

    // Takes the probe at `at` out by moving the last one there: the loops that
    // take probes out walk from the back, so they have seen the one moved.
    Probe Remove(size_t at) {
        Probe probe = std::move(m_probes[at]);
        if (at + 1 != m_probes.size()) m_probes[at] = std::move(m_probes.back());
        m_probes.pop_back();
        return probe;
    }

    void Answer(size_t at, const std::string& how) {
        const Probe probe = Remove(at);
        const auto after = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - probe.started).count();
        Note(m_targets[probe.index], 4, "detection: answered on " + how + " after " + std::to_string(after) + " ms");
        m_verdict(probe.index, true);
    }

    void Expire() {
        const Clock::time_point now = Clock::now();
        for (size_t at = m_probes.size(); at-- > 0;) {
            if (now < m_probes[at].deadline) continue;
            const size_t index = Remove(at).index;
            Note(m_targets[index], 3, "detection: " + UnreachableText(m_options, m_targets[index].bmc.port));
            m_verdict(index, false);
        }
    }

    const std::vector<Target>& m_targets;
    const DetectOptions& m_options;
    const Detector::Verdict& m_verdict;
    int m_wake;
    std::vector<uint8_t> m_ping;
    Plexum::UniqueFd m_udp4;
    Plexum::UniqueFd m_udp6;
    std::vector<Probe> m_probes;
    std::unique_ptr<Lookups> m_lookups;  // made at the first host name
    size_t m_lookingUp = 0;
    size_t m_next = 0;
};

}  // namespace

std::string UnreachableText(const DetectOptions& options, int redfishPort) {
    std::string ports;
    if (options.redfish) ports = "TCP port " + std::to_string(redfishPort) + " (Redfish)";
    if (options.redfish && options.ipmi) ports += " or ";
    if (options.ipmi) ports += "UDP port 623 (IPMI)";
    return "no answer on " + ports + " within " + Seconds(options.bound);
}

bool Detect(const Target& target, const DetectOptions& options) {
    const std::vector<Target> one = {target};
    bool answered = false;
    Detector detector(one, options, [&answered](size_t, bool verdict) { answered = verdict; });
    detector.Start();
    detector.Join();
    return answered;
}

Detector::Detector(const std::vector<Target>& targets, DetectOptions options, Verdict verdict)
    : m_targets(targets), m_options(options), m_verdict(std::move(verdict)),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Detector::~Detector() {
    Stop();
    Join();
}

void Detector::Start() { m_thread = std::thread([this] { Run(); }); }

void Detector::Stop() {
    const uint64_t one = 1;
    if (m_wake.Get() >= 0 && ::write(m_wake.Get(), &one, sizeof one) < 0) {
        // Nothing to do: the loop also ends when every target has its verdict.
    }
}

void Detector::Join() {
    if (m_thread.joinable()) m_thread.join();
}

void Detector::Run() { Probing(m_targets, m_options, m_verdict, m_wake.Get()).Run(); }

}  // namespace Fleet
