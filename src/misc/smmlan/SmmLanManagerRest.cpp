// SPDX-License-Identifier: GPL-3.0-or-later
#include "misc/smmlan/SmmLanManagerRest.h"

#include <rapidjson/document.h>

#include <boost/format.hpp>
#include <cstdint>
#include <sstream>

#include "common/result/ResultCodes.h"
#include "host/ConsoleReport.h"
#include "host/Log.h"
#include "host/RunContext.h"

const std::string kSmmChassisResourcePath = "/redfish/v1/Chassis/2";

namespace {

// The source text that this manager's log records and console lines carry.
constexpr char kLogSource[] = "Src/Misc/SmmLan/SmmLanManagerrest";

constexpr char kSupportedText[] = "The system is support enable ipmi or lan over rest";
constexpr char kErrorMsgPrefix[] = "    Error msg: ";
constexpr char kEnableBanner[] = "************Enable Result************";
constexpr char kQueryBanner[] = "************Query Result************";

// Replies come from the network. The iterative parser keeps deeply nested
// input off the call stack, so a hostile body cannot overflow it. Numbers are
// taken as text and never converted: RapidJSON 1.1.0's conversion overflows a
// signed int on extreme exponents, and no number is ever read here (a number
// only has to be "not a boolean, not a string, not an object"). The syntax
// check of a number is the same either way.
constexpr unsigned kParseFlags =
    rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

// Builds the document from the reader's events, storing every number as 0.
class NumberBlindFiller {
public:
    explicit NumberBlindFiller(rapidjson::Document& document) : m_document(document) {}

    bool Null() { return m_document.Null(); }
    bool Bool(bool value) { return m_document.Bool(value); }
    bool Int(int) { return m_document.Int(0); }
    bool Uint(unsigned) { return m_document.Int(0); }
    bool Int64(int64_t) { return m_document.Int(0); }
    bool Uint64(uint64_t) { return m_document.Int(0); }
    bool Double(double) { return m_document.Int(0); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return m_document.Int(0); }
    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        return m_document.String(text, length, copy);
    }
    bool StartObject() { return m_document.StartObject(); }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) { return m_document.Key(text, length, copy); }
    bool EndObject(rapidjson::SizeType members) { return m_document.EndObject(members); }
    bool StartArray() { return m_document.StartArray(); }
    bool EndArray(rapidjson::SizeType elements) { return m_document.EndArray(elements); }

private:
    rapidjson::Document& m_document;
};

// Parses the body as a NUL-terminated UTF-8 text; false on a parse error.
bool ParseBody(const std::string& body, rapidjson::Document& document) {
    rapidjson::Reader reader;
    rapidjson::StringStream stream(body.c_str());
    rapidjson::ParseResult parsed;
    auto generate = [&](rapidjson::Document& target) {
        NumberBlindFiller filler(target);
        parsed = reader.Parse<kParseFlags>(stream, filler);
        return !parsed.IsError();
    };
    document.Populate(generate);
    return !parsed.IsError();
}

// FindMember is a linear scan in document order that stops at the first
// match, so the first of several members with the same name wins.
const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member == object.MemberEnd() ? nullptr : &member->value;
}

// The vendor object Oem -> Qarvon, or null when the root is not an object or
// either level is missing or not an object.
const rapidjson::Value* FindVendorObject(const rapidjson::Document& document) {
    if (!document.IsObject()) return nullptr;
    const rapidjson::Value* oem = FindMember(document, "Oem");
    if (oem == nullptr || !oem->IsObject()) return nullptr;
    const rapidjson::Value* vendor = FindMember(*oem, "Qarvon");
    if (vendor == nullptr || !vendor->IsObject()) return nullptr;
    return vendor;
}

// The boolean member `name` of `object`, or null when absent or of another type.
const rapidjson::Value* FindBool(const rapidjson::Value& object, const char* name) {
    const rapidjson::Value* value = FindMember(object, name);
    return value != nullptr && value->IsBool() ? value : nullptr;
}

bool NoteVendorState(const rapidjson::Value& vendor);  // at the end of the file
}  // namespace

SmmLanManagerRest::SmmLanManagerRest(Plexum::PlexumConnection::ConnectionInfo* connection)
    : m_connection(connection),
      m_lanEnabled(false),
      m_ipmiEnabled(false),
      m_response(-1, -1, std::string()),
      m_client() {
    Initialize();
}

SmmLanManagerRest::~SmmLanManagerRest() = default;

void SmmLanManagerRest::Initialize() {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::Initialize";

    std::string host = m_connection->address;
    if (m_connection->addressType == Plexum::PlexumConnection::kAddressTypeIpv6) {
        host = "[" + host + "]";
    }
    m_url = (boost::format("https://%s:%d") % host % m_connection->port).str() + kSmmChassisResourcePath;
    PLEXUM_LOG(3, kLogSource, __LINE__) << "url:" << m_url;

    m_client = std::make_shared<Rest::RedfishClient>();
    m_client->SetInsecure(true);
    m_client->SetCredentials(m_connection->username, m_connection->password);
    m_client->SetTimeout(60);
    m_client->SetFollowRedirects(true, -1);
    m_client->SetHeader("Content-Type", "application/json");
    m_client->SetHeader("Expect", "");
    m_client->SetHeader("If-None-Match", "0");

    PLEXUM_LOG(4, kLogSource, __LINE__) << "Exiting  " << "SmmLanManagerRest::Initialize";
}

bool SmmLanManagerRest::CheckIsSupportByRest() {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::CheckIsSupportByRest";

    m_response = m_client->Get(m_url);
    if (CheckResponse(m_response) != RESULT_SUCCEED) return false;
    return ReadProbeReply(m_response.body, m_lanEnabled);
}

bool SmmLanManagerRest::ReadProbeReply(const std::string& body, bool& lanEnabled) {
    rapidjson::Document document;
    if (!ParseBody(body, document)) return false;
    const rapidjson::Value* vendor = FindVendorObject(document);
    if (vendor == nullptr) return false;
    const rapidjson::Value* lan = FindBool(*vendor, "LANEnabled");
    if (lan == nullptr) return false;
    lanEnabled = NoteVendorState(*vendor);
    return true;
}

int32_t SmmLanManagerRest::CheckResponse(const Rest::Response& reply) {
    if (reply.curlCode != CURLE_OK) {
        switch (reply.curlCode) {
            case CURLE_OPERATION_TIMEDOUT:
                return RESULT_TIMEOUT;
            case CURLE_SSL_CERTPROBLEM:
            case CURLE_PEER_FAILED_VERIFICATION:
            case CURLE_SSL_CACERT_BADFILE:
            case CURLE_SSL_INVALIDCERTSTATUS:
                return RESULT_CONNECTION_FAILED;
            default:
                return RESULT_GENERIC_FAILURE;
        }
    }
    // Kept as it always was: the status from the stored reply, the transfer code from `reply` (callers pass that one).
    // One unsigned comparison covers 200..299 and sends negatives far above 99.
    if (static_cast<uint32_t>(m_response.httpCode) - 200u <= 99u) {
        PLEXUM_LOG(3, kLogSource, __LINE__) << kSupportedText;
        return RESULT_SUCCEED;
    }
    PLEXUM_LOG(1, kLogSource, __LINE__) << kErrorMsgPrefix << reply.body;
    return RESULT_INTERNAL_ERROR;
}

int32_t SmmLanManagerRest::Enable(const std::string& key, const std::string& value) {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::Enable";
    const int32_t result = update(key, value);
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Exiting  " << "SmmLanManagerRest::Enable";
    return result;
}

int32_t SmmLanManagerRest::Disable(const std::string& key, const std::string& value) {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::Disable";
    const int32_t result = update(key, value);
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Exiting  " << "SmmLanManagerRest::Disable";
    return result;
}

int32_t SmmLanManagerRest::update(const std::string& key, const std::string& value) {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::update";

    const std::string feature = key == "LANEnabled" ? "LAN" : "IPMI";

    if (key == "IPMIEnabled") {
        // IPMI over LAN rides on the SMM network: refuse while that is off,
        // judged by the chassis resource as the probe read it.
        // It leaves the flag alone when the reply does not say.
        (void)ReadProbeReply(m_response.body, m_lanEnabled);
        if (!m_lanEnabled) {
            PLEXUM_LOG(3, kLogSource, __LINE__) << "smmlan_status: " << static_cast<int>(m_lanEnabled);
            ConsoleReport(3, kLogSource, __LINE__).Stream() << "Enable SMM " << feature << " failed.";
            ConsoleReport(3, kLogSource, __LINE__).Stream()
                << kErrorMsgPrefix << "the SMM LAN is disable, can not enable ipmi via SMM LAN \n";
            return RESULT_GENERIC_FAILURE;
        }
    }

    // Written by hand, not serialised: the controller expects these exact bytes,
    // including the blank in front of the member name.
    std::ostringstream bodyStream;
    bodyStream << "{\"Oem\":" << ' ' << '{' << "\"Qarvon\":" << ' ' << '{' << " \" " << key << "\" : " << value
               << "}}}";
    const std::string body = bodyStream.str();
    PLEXUM_LOG(3, kLogSource, __LINE__) << "post body:" << body;
    // Whatever comes back, even a refusal or nothing at all, the change went out.
    Plexum::RunContext::Current().NoteChangeSent();
    m_response = m_client->Patch(m_url, body);
    PLEXUM_LOG(3, kLogSource, __LINE__) << "curl code:" << m_response.curlCode << " status code:"
                                        << m_response.httpCode << " return msg: " << m_response.body;

    ConsoleReport(3, kLogSource, __LINE__).Stream() << kEnableBanner << '\n';
    const int32_t result = CheckResponse(m_response);
    if (result == RESULT_SUCCEED) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << "redfish Enable Smm request success";
        ConsoleReport(3, kLogSource, __LINE__).Stream() << "Enable SMM " << feature << " succeeded";
    } else {
        ConsoleReport(3, kLogSource, __LINE__).Stream() << "Enable SMM " << feature << " failed.";
        ConsoleReport(3, kLogSource, __LINE__).Stream() << kErrorMsgPrefix << m_response.body;
    }
    ConsoleReport(3, kLogSource, __LINE__).Stream() << '\n' << kEnableBanner;
    return result;
}

int32_t SmmLanManagerRest::Query() {
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Entering  " << "SmmLanManagerRest::Query";
    const int32_t result = RESULT_SUCCEED;
    PLEXUM_LOG(3, kLogSource, __LINE__) << kSupportedText;
    ConsoleReport(3, kLogSource, __LINE__).Stream() << kQueryBanner << '\n';

    // No request of its own: the probe's reply is the state to report.
    rapidjson::Document document;
    if (!ParseBody(m_response.body, document)) {
        PLEXUM_LOG(1, kLogSource, __LINE__) << kErrorMsgPrefix << m_response.body;
        ConsoleReport(3, kLogSource, __LINE__).Stream() << "Query SMM network status failed.";
        return RESULT_SUCCEED;
    }

    if (const rapidjson::Value* vendor = FindVendorObject(document)) {
        if (const rapidjson::Value* lan = FindBool(*vendor, "LANEnabled")) m_lanEnabled = lan->IsTrue();
        if (const rapidjson::Value* ipmi = FindBool(*vendor, "IPMIEnabled")) m_ipmiEnabled = ipmi->IsTrue();
        const rapidjson::Value* ip = FindMember(*vendor, "IPv4");
        if (ip != nullptr && ip->IsString()) m_smmIp = ip->GetString();  // up to the first NUL

        const char* status = !m_lanEnabled   ? "SMM network and IPMI over LAN disabled"
                             : m_ipmiEnabled ? "SMM network and IPMI over LAN enabled"
                                             : "SMM network over LAN enabled and IPMI over LAN disabled";
        ConsoleReport(3, kLogSource, __LINE__).Stream() << "Query SMM network status succeeded";
        ConsoleReport(3, kLogSource, __LINE__).Stream() << "    Status: " << status;
        if (!m_smmIp.empty()) {
            ConsoleReport(3, kLogSource, __LINE__).Stream() << "    SMM IP: " << m_smmIp << '\n';
        } else {
            ConsoleReport(3, kLogSource, __LINE__).Stream() << "Get SMM ip failed\n";
        }
    }

    ConsoleReport(3, kLogSource, __LINE__).Stream() << kQueryBanner << '\n';
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Exiting  " << "SmmLanManagerRest::Query";
    return result;
}

namespace {

// Tells the run what the vendor object says: the network, IPMI over LAN and
// the address, each where the object gives it in its type. Returns LANEnabled.
bool NoteVendorState(const rapidjson::Value& vendor) {
    Plexum::RunContext& run = Plexum::RunContext::Current();
    const rapidjson::Value* lan = FindBool(vendor, "LANEnabled");
    const rapidjson::Value* ipmi = FindBool(vendor, "IPMIEnabled");
    const rapidjson::Value* ip = FindMember(vendor, "IPv4");
    if (lan != nullptr) run.NoteNetwork(lan->IsTrue());
    if (ipmi != nullptr) run.NoteIpmiOverLan(ipmi->IsTrue());
    if (ip != nullptr && ip->IsString()) run.NoteIpv4(ip->GetString());
    return lan != nullptr && lan->IsTrue();
}

}  // namespace
