// SPDX-License-Identifier: GPL-3.0-or-later
// Compares 200 sequential GETs through one RestClient (one handle, reused
// connection) with the curl command line: one process per request, and one
// process fetching all 200 URLs. Server: a loopback HTTPS server in this process.
//
// Usage: morvel_rest_bench [requests] [rounds]   (defaults 200 and 3; medians are printed)
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/rest/RestClient.h"
#include "support/RecordingHttpsServer.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

const char kResource[] =
    "{\"@odata.id\":\"/redfish/v1/Chassis/2\",\"Id\":\"2\",\"Name\":\"Enclosure\","
    "\"Oem\":{\"Qarvon\":{\"LANEnabled\":true,\"IPMIEnabled\":false,\"IPv4\":\"192.0.2.10\"}}}";

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// Runs a command (argv[0] looked up on PATH) with output to /dev/null; throws unless it exits 0.
void Run(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) throw std::runtime_error("cannot start " + arguments[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(arguments[0] + " failed");
}

double TimeClient(const std::string& url, int requests) {
    Rest::RestClient client;
    client.SetInsecure(true);  // the same trust as curl -k
    const auto start = Clock::now();
    for (int i = 0; i < requests; ++i) {
        Rest::Response response = client.Get(url);
        if (response.curlCode != 0 || response.httpCode != 200 || response.body != kResource)
            throw std::runtime_error("client GET failed: " + response.body);
    }
    return Seconds(Clock::now() - start);
}

double TimeCurlPerRequest(const std::string& url, int requests) {
    const auto start = Clock::now();
    for (int i = 0; i < requests; ++i) Run({"curl", "-k", "-s", "-f", "-o", "/dev/null", url});
    return Seconds(Clock::now() - start);
}

double TimeCurlAllUrls(const std::string& url, int requests) {
    std::vector<std::string> arguments{"curl", "-k", "-s", "-f"};
    for (int i = 0; i < requests; ++i) {
        arguments.emplace_back("-o");
        arguments.emplace_back("/dev/null");
        arguments.push_back(url);
    }
    const auto start = Clock::now();
    Run(arguments);
    return Seconds(Clock::now() - start);
}

// A whole decimal number from 1 up; 0 for anything else.
int Count(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 1 || value > 1000000) return 0;
    return static_cast<int>(value);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? Count(argv[1]) : 200;
    const int rounds = argc > 2 ? Count(argv[2]) : 3;
    if (requests < 1 || rounds < 1) {
        std::cerr << "usage: " << argv[0] << " [requests >= 1] [rounds >= 1]\n";
        return 2;
    }
    try {
        MorvelTest::RecordingHttpsServer server;
        server.Script("/redfish/v1/Chassis/2", {MorvelTest::Reply::Text(200, kResource, "application/json")});
        const std::string url = server.Url("/redfish/v1/Chassis/2");

        std::vector<double> client, perProcess, allUrls;
        for (int round = 0; round < rounds; ++round) {
            server.ClearRequests();
            client.push_back(TimeClient(url, requests));
            std::set<int> ports;
            for (const auto& request : server.Requests()) ports.insert(request.remotePort);
            if (ports.size() != 1) std::printf("note: the client used %zu connections\n", ports.size());
            perProcess.push_back(TimeCurlPerRequest(url, requests));
            allUrls.push_back(TimeCurlAllUrls(url, requests));
        }
        const double c = Median(client), p = Median(perProcess), a = Median(allUrls);
        std::printf("requests per run: %d, rounds: %d (medians)\n", requests, rounds);
        std::printf("RestClient, one handle        : %8.3f s  %7.3f ms/request\n", c, 1000 * c / requests);
        std::printf("curl, one process per request : %8.3f s  %7.3f ms/request\n", p, 1000 * p / requests);
        std::printf("curl, one process for all URLs: %8.3f s  %7.3f ms/request\n", a, 1000 * a / requests);
        std::printf("RestClient / curl all URLs    : %8.3f  (target <= 1.2)\n", c / a);
        std::printf("curl per request / RestClient : %8.1f\n", p / c);
        return c / a <= 1.2 ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "bench failed: " << error.what() << '\n';
        return 2;
    }
}
