// SPDX-License-Identifier: GPL-3.0-or-later
// The simulated SMM's HTTPS face: the Redfish chassis resource that carries the
// vendor's SMM network properties, served from the same state as the IPMI face.

#include <httplib.h>
#include <openssl/evp.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "SmmSim.h"

namespace SmmSim {
namespace {

constexpr char kChassisPath[] = "/redfish/v1/Chassis/2";
constexpr char kSessionsPath[] = "/redfish/v1/SessionService/Sessions";
constexpr char kTokenHeader[] = "X-Auth-Token";
constexpr char kProbeHeader[] = "X-Smm-Sim-Probe";
// A held PATCH goes on after this long even when nobody releases it.
constexpr int kMaxHoldSeconds = 300;
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

// The open session the request's X-Auth-Token belongs to, or 0.
unsigned TokenSession(const httplib::Request& req) {
    if (!req.has_header(kTokenHeader)) return 0;
    return Sim::Instance().Sessions().Find(req.get_header_value(kTokenHeader));
}

// A session's token, or Basic credentials while REDFISH_BASIC is on.
bool Authenticated(const httplib::Request& req) {
    return TokenSession(req) != 0 || (Sim::Instance().knobs().redfishBasic && CheckAuth(req).auth == Auth::Ok);
}

void Unauthorized(httplib::Response& res) {
    if (Sim::Instance().knobs().redfishBasic) res.set_header("WWW-Authenticate", "Basic realm=\"SMM\"");
    SetJson(res, 401, ErrorBody("Base.1.0.NoValidSession", "Authentication is required."));
}

// Answers true when the request was settled here (503 or 401).
bool Gate(const httplib::Request& req, httplib::Response& res) {
    if (Sim::Instance().Take503()) {
        res.set_header("Retry-After", "1");
        SetJson(res, 503, ErrorBody("Base.1.0.ServiceTemporarilyUnavailable", "The service is starting."));
        return true;
    }
    if (!Authenticated(req)) {
        Unauthorized(res);
        return true;
    }
    return false;
}

// The first members of a record line about a request: its face, method and path.
void WriteRequestHead(JsonWriter& w, const char* face, const httplib::Request& req) {
    w.Key("face");
    w.String(face);
    w.Key("method");
    w.String(req.method.c_str());
    w.Key("path");
    w.String(req.path.c_str());
}

// PATCH_HOLD: waits until its file exists, so that a test decides when the
// answer leaves; the hold itself is recorded when it begins.
void HoldPatch(const httplib::Request& req) {
    const std::string& release = Sim::Instance().knobs().patchHold;
    if (release.empty()) return;
    Sim::Instance().Record([&](JsonWriter& w) { WriteRequestHead(w, "hold", req); });
    for (int waited = 0; waited < kMaxHoldSeconds * 50 && ::access(release.c_str(), F_OK) != 0; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
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
    HoldPatch(req);
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

// The string member `name` of a JSON object, or null.
const rapidjson::Value* StringMember(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.IsString() ? &found->value : nullptr;
}

// POST of {"UserName", "Password"}: a session and its token, within SESSION_LIMIT.
void PostSession(const httplib::Request& req, httplib::Response& res) {
    const Knobs& k = Sim::Instance().knobs();
    if (k.sessionService == "absent") {
        SetJson(res, 404, ErrorBody("Base.1.0.ResourceMissingAtURI", "No resource at " + req.path + "."));
        return;
    }
    if (k.sessionService == "nopost") {
        res.set_header("Allow", "GET");
        SetJson(res, 405, ErrorBody("Base.1.0.OperationNotAllowed", "Method not allowed."));
        return;
    }
    if (k.sessionService == "refuse") {
        SetJson(res, 403, ErrorBody("Base.1.0.InsufficientPrivilege", "Sessions are not allowed for this user."));
        return;
    }
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(req.body.c_str(), req.body.size());
    const rapidjson::Value* user = !doc.HasParseError() && doc.IsObject() ? StringMember(doc, "UserName") : nullptr;
    const rapidjson::Value* password = user != nullptr ? StringMember(doc, "Password") : nullptr;
    if (password == nullptr) {
        SetJson(res, 400, ErrorBody("Base.1.0.PropertyMissing", "UserName and Password are required."));
        return;
    }
    const std::string name(user->GetString(), user->GetStringLength());
    if (name != k.user || std::string(password->GetString(), password->GetStringLength()) != k.password) {
        SetJson(res, 401, ErrorBody("Base.1.0.NoValidSession", "The user name or password is not valid."));
        return;
    }
    if (k.sessionService == "notoken") {
        SetJson(res, 201, "{\"Name\":\"User Session\"}");
        return;
    }
    std::string token;
    const unsigned id = Sim::Instance().Sessions().Open(name, k.sessionLimit, token);
    if (id == 0) {
        SetJson(res, 503, ErrorBody("Base.1.0.SessionLimitExceeded", "Too many sessions are open."));
        return;
    }
    const std::string location = std::string(kSessionsPath) + "/" + std::to_string(id);
    res.set_header(kTokenHeader, token);
    res.set_header("Location", location);
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    w.StartObject();
    w.Key("@odata.id");
    w.String(location.c_str());
    w.Key("Id");
    w.String(std::to_string(id).c_str());
    w.Key("Name");
    w.String("User Session");
    w.Key("UserName");
    w.String(name.c_str());
    w.EndObject();
    SetJson(res, 201, buffer.GetString());
}

// DELETE of a session: the logout; its token is dead afterwards.
void DeleteSession(const httplib::Request& req, httplib::Response& res) {
    if (!Authenticated(req)) {
        Unauthorized(res);
        return;
    }
    const int deleteStatus = Sim::Instance().knobs().sessionDeleteStatus;
    if (deleteStatus != 0) {
        SetJson(res, deleteStatus, ErrorBody("Base.1.0.GeneralError", "The session was not deleted."));
        return;
    }
    unsigned long id = 0;
    const std::string digits = req.matches[1];
    if (digits.size() < 10) id = std::stoul(digits);
    if (id == 0 || !Sim::Instance().Sessions().Close(static_cast<unsigned>(id))) {
        SetJson(res, 404, ErrorBody("Base.1.0.ResourceMissingAtURI", "No resource at " + req.path + "."));
        return;
    }
    res.status = 204;
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

// A login's body with the password as "*" (a body that is no JSON object: "*" whole).
std::string RecordedBody(const httplib::Request& req) {
    if (req.method != "POST" || req.path != kSessionsPath) return req.body;
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(req.body.c_str(), req.body.size());
    if (doc.HasParseError() || !doc.IsObject()) return "*";
    for (auto m = doc.MemberBegin(); m != doc.MemberEnd(); ++m) {
        if (std::string(m->name.GetString(), m->name.GetStringLength()) == "Password") m->value.SetString("*");
    }
    rapidjson::StringBuffer buffer;
    JsonWriter w(buffer);
    doc.Accept(w);
    return std::string(buffer.GetString(), buffer.GetSize());
}

void RecordExchange(const httplib::Request& req, const httplib::Response& res) {
    if (req.has_header(kProbeHeader)) return;
    const AuthResult auth = CheckAuth(req);
    const std::string body = RecordedBody(req);
    // The session a token was made for, whether it is still open or not (the status says whether it was taken).
    const bool hasToken = req.has_header(kTokenHeader);
    const unsigned session = hasToken ? Sim::Instance().Sessions().Named(req.get_header_value(kTokenHeader)) : 0;
    Sim::Instance().Record([&](JsonWriter& w) {
        WriteRequestHead(w, "redfish", req);
        w.Key("target");
        w.String(req.target.c_str());
        w.Key("body");
        w.String(body.c_str(), static_cast<rapidjson::SizeType>(body.size()));
        w.Key("headers");
        w.StartObject();
        for (const auto& header : req.headers) {
            // The credentials stay out of the record; httplib's own entries are not headers.
            if (header.first == "Authorization" || header.first == kTokenHeader || header.first == "REMOTE_ADDR" ||
                header.first == "REMOTE_PORT" || header.first == "LOCAL_ADDR" || header.first == "LOCAL_PORT") {
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
        if (hasToken) {
            w.Key("token");
            w.String(session != 0 ? std::to_string(session).c_str() : "unknown");
        }
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
    server.Post(kSessionsPath, PostSession);
    server.Delete(R"(/redfish/v1/SessionService/Sessions/(\d+))", DeleteSession);
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
