// placeholder: being written (FreeIPMI implementation)
#include "host/IpmiClient.h"
namespace Plexum {
struct IpmiClient::Impl {};
IpmiClient::IpmiClient(const std::string&, const std::string&, const std::string&, const std::string&, uint64_t) {}
IpmiClient::~IpmiClient() = default;
int32_t IpmiClient::Open() { return kOpenFailed; }
void IpmiClient::Close() {}
int32_t IpmiClient::SendRequest(const IpmiRequest&, std::vector<uint8_t>&, uint8_t& completionCode) { completionCode = kNoReply; return -1; }
}
