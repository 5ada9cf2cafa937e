// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

namespace smmlan_test {
namespace {

using GetSmmIpTest = ManagerTest;

const Record kEntering{4, "Entering  SmmLanManager::GetSMMIp"};
const Record kExiting{4, "Exiting  SmmLanManager::GetSMMIp"};

std::vector<IpmiEvent> IpRead() { return Exchange(0xC4, SmmIpRequestData()); }

TEST_F(GetSmmIpTest, RequestIsTheSmmIpPropertyRead) {
    const std::vector<uint8_t> expected = {0x00, 0x00, 0x14, 0x93, '/', 'v', '2', '/', 'v', 'o', 'r', 'n',
                                           '/',  's',  'm',  'm',  '/', 's', 'm', 'm', '_', 'i', 'p'};
    EXPECT_EQ(SmmIpRequestData(), expected);
    EXPECT_EQ(expected.size(), 23U);
    fake.QueueReply(0, {0x00, 0x11, 0x22, 0x33, 0x0A, 0x01, 0xA8, 0xC0});
    manager.GetSMMIp();
    EXPECT_EQ(fake.events, IpRead());
}

TEST_F(GetSmmIpTest, AddressIsBuiltLastOctetFirst) {
    fake.QueueReply(0, {0x00, 0x11, 0x22, 0x33, 0x0A, 0x01, 0xA8, 0xC0});
    EXPECT_EQ(manager.GetSMMIp(), "192.168.1.10");
    EXPECT_EQ(fake.events, IpRead());
    EXPECT_EQ(Records(), (std::vector<Record>{kEntering, kExiting}));
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(GetSmmIpTest, OctetsAreUnsignedDecimals) {
    fake.QueueReply(0, {0x00, 0x00, 0x00, 0x00, 0xFF, 0x00, 0x80, 0x07});
    EXPECT_EQ(manager.GetSMMIp(), "7.128.0.255");
    fake.QueueReply(0, {0x00, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(manager.GetSMMIp(), "0.0.0.0");
}

TEST_F(GetSmmIpTest, BytesAfterTheEighthAreIgnored) {
    fake.QueueReply(0, {0x00, 0x01, 0x02, 0x03, 0x04, 0x03, 0x02, 0x0A, 0x63, 0x63, 0x63});
    EXPECT_EQ(manager.GetSMMIp(), "10.2.3.4");
    EXPECT_EQ(Records(), (std::vector<Record>{kEntering, kExiting}));
}

TEST_F(GetSmmIpTest, RefusedOpenIsLoggedAndTheReadStillGoesAhead) {
    fake.QueueOpen(2);
    fake.QueueReply(0, {0x00, 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0});
    EXPECT_EQ(manager.GetSMMIp(), "192.168.1.10");
    EXPECT_EQ(fake.events, IpRead());
    EXPECT_EQ(Records(),
              (std::vector<Record>{
                  kEntering, {1, "Authentication failed. For instance, user name or password error."}, kExiting}));
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(GetSmmIpTest, FailedOpenIsLoggedAsConnectionFailedAndTheReadStillGoesAhead) {
    const int32_t failures[] = {1, 5, -3};
    for (int32_t failure : failures) {
        ClearCaptured();
        fake.QueueOpen(failure);
        fake.QueueReply(0, {0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x0A});
        EXPECT_EQ(manager.GetSMMIp(), "10.0.0.1");
        EXPECT_EQ(fake.events, IpRead());
        EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, "Connection failed."}, kExiting}));
    }
}

TEST_F(GetSmmIpTest, ShortReplyWithGoodStatusGivesEmptyTextAndAnEmptyErrorRecord) {
    for (size_t size = 2; size < 8; ++size) {
        ClearCaptured();
        std::vector<uint8_t> reply(size, 0x0A);
        reply[0] = 0x00;
        fake.QueueReply(0, reply);
        EXPECT_EQ(manager.GetSMMIp(), "") << size << " bytes";
        EXPECT_EQ(fake.events, IpRead());
        EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, ""}, kExiting})) << size << " bytes";
    }
}

TEST_F(GetSmmIpTest, CompletionCodeIsWrittenAsOneRawByte) {
    fake.QueueReply(0xC1, {0x00, 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0});
    EXPECT_EQ(manager.GetSMMIp(), "");
    const std::string text = std::string("Get SMM ip failed with completion code :") + '\xC1';
    EXPECT_EQ(text.size(), 41U);
    EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, text}, kExiting}));
    EXPECT_EQ(fake.events, IpRead());
}

TEST_F(GetSmmIpTest, PrintableCompletionCodeIsStillTheByteNotItsNumber) {
    fake.QueueReply(0x41, {});
    EXPECT_EQ(manager.GetSMMIp(), "");
    EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, "Get SMM ip failed with completion code :A"}, kExiting}));
}

TEST_F(GetSmmIpTest, ReplyOfNoneOrOneByteIsAFailureWithAZeroByteInTheRecord) {
    const std::vector<std::vector<uint8_t>> replies = {{}, {0x00}};
    for (const auto& reply : replies) {
        ClearCaptured();
        fake.QueueReply(0, reply);
        EXPECT_EQ(manager.GetSMMIp(), "");
        const std::string text = std::string("Get SMM ip failed with completion code :") + '\0';
        EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, text}, kExiting})) << reply.size() << " bytes";
    }
}

TEST_F(GetSmmIpTest, EachPropertyStatusHasItsMessage) {
    const char* const messages[] = {
        "Get SMM ip failed with error : service not ready",
        "Get SMM ip failed with error : service error",
        "Get SMM ip failed with error : property doesn't exist",
        "Get SMM ip failed with error : invalid request",
        "Get SMM ip failed with error : packet format error",
        "Get SMM ip failed with error : conflicting property type",
        "Get SMM ip failed with error : out of space",
        "Get SMM ip failed with error : path doesn't exist",
        "Get SMM ip failed with error : success (end of tree)",
        "Get SMM ip failed with error : invalid correlator",
        "Get SMM ip failed with error : property locked",
    };
    for (unsigned status = 1; status <= 11; ++status) {
        ClearCaptured();
        fake.QueueReply(0, {static_cast<uint8_t>(status), 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0});
        EXPECT_EQ(manager.GetSMMIp(), "") << "status " << status;
        EXPECT_EQ(fake.events, IpRead());
        EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, messages[status - 1]}, kExiting}))
            << "status " << status;
    }
}

TEST_F(GetSmmIpTest, PropertyStatusTwelveAndAboveIsAnUnknownError) {
    for (unsigned status = 12; status <= 255; ++status) {
        ClearCaptured();
        fake.QueueReply(0, {static_cast<uint8_t>(status), 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0});
        EXPECT_EQ(manager.GetSMMIp(), "") << "status " << status;
        EXPECT_EQ(Records(), (std::vector<Record>{kEntering, {1, "Get SMM ip failed with unknow error"}, kExiting}))
            << "status " << status;
    }
}

TEST_F(GetSmmIpTest, PropertyStatusWithAShortReplyIsStillReportedByItsMessage) {
    fake.QueueReply(0, {0x03, 0x00});
    EXPECT_EQ(manager.GetSMMIp(), "");
    EXPECT_EQ(Records(),
              (std::vector<Record>{kEntering, {1, "Get SMM ip failed with error : property doesn't exist"}, kExiting}));
}

}  // namespace
}  // namespace smmlan_test
