// SPDX-License-Identifier: GPL-3.0-or-later
// The simulated SMM's HTTPS face: the Redfish chassis resource that carries the
// vendor's SMM network properties, served from the same state as the IPMI face.

#include <httplib.h>
#include <openssl/evp.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <signal.h>
#include <sys/socket.h>

#include <cctype>
#include <memory>
#include <thread>

#include "SmmSim.h"

namespace SmmSim {
namespace {

constexpr char kChassisPath[] = "/redfish/v1/Chassis/2";
constexpr char kProbeHeader[] = "X-Smm-Sim-Probe";
// Larger bodies are refused before parsing: the face only ever needs a few members.
constexpr size_t kMaxBody = size_t{64} * 1024;

enum class Auth { Ok, Missing, Bad };

struct AuthResult {
    Auth auth = Auth::Missing;
    std::string user;
};

const char* AuthName(Auth auth) {
    switch (auth) {
        case Auth::Ok: return "ok";
        case Auth::Missing: return "missing";
        default: return "bad";
    }
}

std::string DecodeBase64(const std::string& text) {
    if (text.empty() || text.size() % 4 != 0 || text.size() > 4096) return std::string();
    std::string out(text.size() / 4 * 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                  reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (n < 0) return std::string();
    size_t size = static_cast<size_t>(n);
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) --size;
    out.resize(size);
    return out;
}

AuthResult CheckAuth(const httplib::Request& req) {
    AuthResult result;
    if (!req.has_header("Authorization")) return result;
    result.auth = Auth::Bad;
    const std::string value = req.get_header_value("Authorization");
    const std::string scheme = "Basic ";
    if (value.compare(0, scheme.size(), scheme) != 0) return result;
    const std::string decoded = DecodeBase64(value.substr(scheme.size()));
    const size_t colon = decoded.find(':');
    if (colon == std::string::npos) return result;
    result.user = decoded.substr(0, colon);
    const Knobs& k = Sim::Instance().knobs();
    if (result.user == k.user && decoded.substr(colon + 1) == k.password) result.auth = Auth::Ok;
    return result;
}

std::string ErrorBody(const std::string& code, const std::string& message) {
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    w.StartObject();
    w.Key("error");
    w.StartObject();
    w.Key("code");
    w.String(code.c_str());
    w.Key("message");
    w.String(message.c_str());
    w.EndObject();
    w.EndObject();
    return buffer.GetString();
}

void SetJson(httplib::Response& res, int status, const std::string& body) {
    res.status = status;
    res.set_header("OData-Version", "4.0");
    res.set_content(body, "application/json");
}

std::string DottedSmmIp(const Knobs& k) {
    return std::to_string(k.smmIp[0]) + "." + std::to_string(k.smmIp[1]) + "." + std::to_string(k.smmIp[2]) + "." +
           std::to_string(k.smmIp[3]);
}

std::string ChassisBody(uint8_t status) {
    const Knobs& k = Sim::Instance().knobs();
    const bool lan = status == 1 || status == 4;
    const bool ipmi = status == 4;
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    w.StartObject();
    w.Key("@odata.id");
    w.String(kChassisPath);
    w.Key("@odata.type");
    w.String("#Chassis.v1_10_0.Chassis");
    w.Key("Id");
    w.String("2");
    w.Key("Name");
    w.String("SMM Enclosure");
    w.Key("ChassisType");
    w.String("Enclosure");
    if (k.redfishVendor != "absent") {
        w.Key("Oem");
        w.StartObject();
        w.Key("Qarvon");
        if (k.redfishVendor == "malformed") {
            // The vendor object is there but is not an object.
            w.StartArray();
            w.String("LANEnabled");
            w.Bool(lan);
            w.EndArray();
        } else {
            w.StartObject();
            w.Key("LANEnabled");
            if (k.redfishLanAsString) w.String(lan ? "true" : "false");
            else w.Bool(lan);
            w.Key("IPMIEnabled");
            w.Bool(ipmi);
            if (k.ipv4Kind == "string") {
                const std::string text = k.hasIpv4Text ? k.ipv4Text : DottedSmmIp(k);
                w.Key("IPv4");
                w.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
            } else if (k.ipv4Kind == "number") {
                w.Key("IPv4");
                w.Uint((uint32_t{k.smmIp[0]} << 24) | (uint32_t{k.smmIp[1]} << 16) | (uint32_t{k.smmIp[2]} << 8) |
                       k.smmIp[3]);
            }
            w.EndObject();
        }
        w.EndObject();
    }
    w.EndObject();
    return buffer.GetString();
}

// Answers true when the request was settled here (503 or 401).
bool Gate(const httplib::Request& req, httplib::Response& res) {
    if (Sim::Instance().Take503()) {
        res.set_header("Retry-After", "1");
        SetJson(res, 503, ErrorBody("Base.1.0.ServiceTemporarilyUnavailable", "The service is starting."));
        return true;
    }
    if (CheckAuth(req).auth != Auth::Ok) {
        res.set_header("WWW-Authenticate", "Basic realm=\"SMM\"");
        SetJson(res, 401, ErrorBody("Base.1.0.NoValidSession", "Authentication is required."));
        return true;
    }
    return false;
}

void GetChassis(const httplib::Request& req, httplib::Response& res) {
    if (Gate(req, res)) return;
    const Knobs& k = Sim::Instance().knobs();
    const uint8_t status = Sim::Instance().ReadStatus();
    if (k.hasGetBody) {
        SetJson(res, 200, k.getBody);
    } else if (k.redfishNonJson) {
        res.status = 200;
        res.set_content("<html><body>SMM management</body></html>", "text/html");
    } else {
        SetJson(res, 200, ChassisBody(status));
    }
}

// The client writes the member names with blanks around them; match on the name alone.
bool NameIs(const rapidjson::Value& name, const char* wanted) {
    std::string text(name.GetString(), name.GetStringLength());
    const size_t first = text.find_first_not_of(' ');
    const size_t last = text.find_last_not_of(' ');
    if (first == std::string::npos) return false;
    return text.substr(first, last - first + 1) == wanted;
}

void PatchChassis(const httplib::Request& req, httplib::Response& res) {
    if (Gate(req, res)) return;
    Sim& sim = Sim::Instance();
    const Knobs& k = sim.knobs();
    if (k.patchStatus != 0 && (k.patchStatus < 200 || k.patchStatus > 299)) {
        res.status = k.patchStatus;
        if (k.hasPatchBody) res.set_content(k.patchBody, "application/json");
        return;
    }
    if (req.body.size() > kMaxBody) {
        SetJson(res, 413, ErrorBody("Base.1.0.GeneralError", "The request body is too large."));
        return;
    }
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(req.body.c_str(), req.body.size());
    if (doc.HasParseError() || !doc.IsObject()) {
        SetJson(res, 400, ErrorBody("Base.1.0.MalformedJSON", "The request body is not a JSON object."));
        return;
    }
    const auto oem = doc.FindMember("Oem");
    if (oem == doc.MemberEnd() || !oem->value.IsObject()) {
        SetJson(res, 400, ErrorBody("Base.1.0.PropertyMissing", "Oem is required."));
        return;
    }
    const auto vendor = oem->value.FindMember("Qarvon");
    if (vendor == oem->value.MemberEnd() || !vendor->value.IsObject()) {
        SetJson(res, 400, ErrorBody("Base.1.0.PropertyMissing", "Oem/Qarvon is required."));
        return;
    }
    const rapidjson::Value* lanValue = nullptr;
    const rapidjson::Value* ipmiValue = nullptr;
    for (auto m = vendor->value.MemberBegin(); m != vendor->value.MemberEnd(); ++m) {
        if (NameIs(m->name, "LANEnabled")) lanValue = &m->value;
        else if (NameIs(m->name, "IPMIEnabled")) ipmiValue = &m->value;
        else {
            const std::string name(m->name.GetString(), m->name.GetStringLength());
            SetJson(res, 400, ErrorBody("Base.1.0.PropertyUnknown", "Unknown property " + name + "."));
            return;
        }
    }
    if (lanValue == nullptr && ipmiValue == nullptr) {
        SetJson(res, 400, ErrorBody("Base.1.0.PropertyMissing", "Nothing to change."));
        return;
    }
    if ((lanValue != nullptr && !lanValue->IsBool()) || (ipmiValue != nullptr && !ipmiValue->IsBool())) {
        SetJson(res, 400, ErrorBody("Base.1.0.PropertyValueTypeError", "The properties take true or false."));
        return;
    }
    const uint8_t current = sim.TargetStatus();
    bool lan = current == 1 || current == 4;
    bool ipmi = current == 4;
    if (lanValue != nullptr) {
        lan = lanValue->GetBool();
        if (!lan) ipmi = false;
    }
    if (ipmiValue != nullptr) {
        if (ipmiValue->GetBool() && !lan) {
            SetJson(res, 400, ErrorBody("Base.1.0.ActionNotSupported", "IPMI over LAN needs the SMM network on."));
            return;
        }
        ipmi = ipmiValue->GetBool();
    }
    sim.RequestStatus(!lan ? 2 : (ipmi ? 4 : 1));
    const int status = k.patchStatus != 0 ? k.patchStatus : 200;
    if (k.hasPatchBody) {
        res.status = status;
        res.set_content(k.patchBody, "application/json");
    } else if (k.patchStatus != 0) {
        res.status = status;
    } else {
        SetJson(res, 200, ChassisBody(sim.PeekStatus()));
    }
}

void ServiceRoot(const httplib::Request&, httplib::Response& res) {
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    w.StartObject();
    w.Key("@odata.id");
    w.String("/redfish/v1");
    w.Key("RedfishVersion");
    w.String("1.6.0");
    w.Key("Chassis");
    w.StartObject();
    w.Key("@odata.id");
    w.String("/redfish/v1/Chassis");
    w.EndObject();
    w.EndObject();
    SetJson(res, 200, buffer.GetString());
}

void NotFound(const httplib::Request& req, httplib::Response& res) {
    if (req.path == kChassisPath) {
        res.set_header("Allow", "GET, PATCH");
        SetJson(res, 405, ErrorBody("Base.1.0.OperationNotAllowed", "Method not allowed."));
        return;
    }
    SetJson(res, 404, ErrorBody("Base.1.0.ResourceMissingAtURI", "No resource at " + req.path + "."));
}

void RecordExchange(const httplib::Request& req, const httplib::Response& res) {
    if (req.has_header(kProbeHeader)) return;
    const AuthResult auth = CheckAuth(req);
    Sim::Instance().Record([&](JsonWriter& w) {
        w.Key("face");
        w.String("redfish");
        w.Key("method");
        w.String(req.method.c_str());
        w.Key("path");
        w.String(req.path.c_str());
        w.Key("target");
        w.String(req.target.c_str());
        w.Key("body");
        w.String(req.body.c_str(), static_cast<rapidjson::SizeType>(req.body.size()));
        w.Key("headers");
        w.StartObject();
        for (const auto& header : req.headers) {
            // The credentials stay out of the record; httplib's own entries are not headers.
            if (header.first == "Authorization" || header.first == "REMOTE_ADDR" || header.first == "REMOTE_PORT" ||
                header.first == "LOCAL_ADDR" || header.first == "LOCAL_PORT") {
                continue;
            }
            w.Key(header.first.c_str());
            w.String(header.second.c_str());
        }
        w.EndObject();
        w.Key("auth");
        w.String(AuthName(auth.auth));
        w.Key("user");
        w.String(auth.user.c_str());
        w.Key("local_addr");
        w.String(req.local_addr.c_str());
        w.Key("status");
        w.Int(res.status);
        w.Key("response_body");
        w.String(res.body.c_str(), static_cast<rapidjson::SizeType>(res.body.size()));
        w.Key("sim_status");
        w.Uint(Sim::Instance().PeekStatus());
    });
}

void Configure(httplib::SSLServer& server) {
    server.set_socket_options([](socket_t sock) {
        // Plain address reuse only: a second simulator must never share a port.
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    // Headers and body leave as two writes; without this each reply waits for
    // the client's delayed acknowledgement (about 40 ms).
    server.set_tcp_nodelay(true);
    server.set_payload_max_length(kMaxBody + 1);
    server.set_read_timeout(10, 0);
    server.Get(kChassisPath, GetChassis);
    server.Patch(kChassisPath, PatchChassis);
    server.Get("/redfish/v1", ServiceRoot);
    server.Get("/redfish/v1/", ServiceRoot);
    server.Get(".*", NotFound);
    server.Post(".*", NotFound);
    server.Put(".*", NotFound);
    server.Patch(".*", NotFound);
    server.Delete(".*", NotFound);
    server.Options(".*", NotFound);
    // Recorded before the reply leaves, so a client that has its answer can
    // already find the request in the record.
    server.set_post_routing_handler(RecordExchange);
}

}  // namespace

bool StartRedfish(std::string& error) {
    const Knobs& k = Sim::Instance().knobs();
    if (!k.redfish) return true;
    std::vector<std::string> hosts{k.address};
    if (k.redfishIpv6) hosts.emplace_back("::1");

    // The listener threads must leave signals to ipmi_sim's main loop.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    bool ok = true;
    for (const std::string& host : hosts) {
        // Never freed: the listeners live as long as the process.
        auto* server = new httplib::SSLServer(k.certFile.c_str(), k.keyFile.c_str());
        if (!server->is_valid()) {
            error = "cannot load the TLS certificate " + k.certFile + " and key " + k.keyFile;
            ok = false;
            break;
        }
        Configure(*server);
        if (!server->bind_to_port(host, k.redfishPort)) {
            error = "cannot listen on " + host + " port " + std::to_string(k.redfishPort);
            ok = false;
            break;
        }
        std::thread([server] { server->listen_after_bind(); }).detach();
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return ok;
}

}  // namespace SmmSim
