// SPDX-License-Identifier: GPL-3.0-or-later
// The abstract interface's one non-pure operation, and its use through a base pointer.
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "common/rest/RedfishClient.h"
#include "common/rest/RestClient.h"
#include "common/rest/RestClientInterface.h"

namespace {

using Rest::Response;

// Implements every pure operation and leaves ClassifyResponse to the interface.
class Inert : public Rest::RestClientInterface {
public:
    void SetCredentials(const std::string&, const std::string&) override {}
    void SetTimeout(int32_t) override {}
    void SetInsecure(bool) override {}
    void SetDisableExpect(bool) override {}
    void SetFollowRedirects(bool, int32_t) override {}
    void SetCaInfo(const std::string&) override {}
    void SetProxy(const std::string&, const std::string&, const std::string&) override {}
    void SetHeaders(Rest::HeaderMap) override {}
    Rest::HeaderMap GetHeaders() override { return {}; }
    std::string& SetHeader(const std::string&, const std::string&) override { return m_value; }
    int32_t EnableGzip() override { return 0; }
    Response Request(Rest::RequestType, const std::string&, const std::string&) override { return {}; }
    Response Get(const std::string&) override { return {}; }
    Response PostMime(const std::string&, const Rest::MimeParts&, Rest::ProgressCallback) override { return {}; }
    Response Post(const std::string&, std::istream&) override { return {}; }
    Response Post(const std::string&, const std::string&) override { return {}; }
    Response Put(const std::string&, std::istream&) override { return {}; }
    Response Put(const std::string&, const std::string&) override { return {}; }
    Response Patch(const std::string&, std::istream&) override { return {}; }
    Response Patch(const std::string&, const std::string&) override { return {}; }
    Response Delete(const std::string&) override { return {}; }
    Response Head(const std::string&) override { return {}; }
    Response Options(const std::string&) override { return {}; }

private:
    std::string m_value;
};

TEST(RestClientInterface, DefaultClassificationIsSuccessForAnyResponse) {
    Inert inert;
    const Rest::RestClientInterface& base = inert;
    EXPECT_EQ(base.ClassifyResponse(Response(0, 503, "")), 0);
    EXPECT_EQ(base.ClassifyResponse(Response(28, -1, "")), 0);
    EXPECT_EQ(base.ClassifyResponse(Response()), 0);
}

TEST(RestClientInterface, ResponseStartsEmpty) {
    Response made(7, -1, "text");
    EXPECT_EQ(made.curlCode, 7);
    EXPECT_EQ(made.httpCode, -1);
    EXPECT_EQ(made.body, "text");
    EXPECT_TRUE(made.headers.empty());
    EXPECT_TRUE(made.cookies.empty());
    Response fresh;
    EXPECT_EQ(fresh.curlCode, -1);
    EXPECT_EQ(fresh.httpCode, -1);
}

TEST(RestClientInterface, ClientsAreNotCopyableAndOverrideClassification) {
    static_assert(!std::is_copy_constructible<Rest::RestClient>::value, "one handle per client");
    static_assert(!std::is_copy_assignable<Rest::RestClient>::value, "one handle per client");
    static_assert(!std::is_copy_constructible<Rest::RedfishClient>::value, "holds a RestClient");
    std::unique_ptr<Rest::RestClientInterface> rest = std::make_unique<Rest::RestClient>();
    std::shared_ptr<Rest::RestClientInterface> redfish = std::make_shared<Rest::RedfishClient>();
    EXPECT_EQ(rest->ClassifyResponse(Response(0, 503, "")), -1);
    EXPECT_EQ(redfish->ClassifyResponse(Response(0, 503, "")), -1);
}

}  // namespace
