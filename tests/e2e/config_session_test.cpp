// The client library's failures, each with its status, against a stand-in peer of this process
// that answers what the test tells it to (the real service never sends garbage).
#include "ConfigSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "ConfigPath.h"
#include "ServiceProcess.h"

namespace {

using configclient::ConfigSession;

constexpr char kPeer[] = "stand-in";

// Receives one request at the stand-in and answers it with `bytes` under the ReadRsp id, or not
// at all when `bytes` is empty.
void answerOnce(const std::string& bytes) {
    MSG_Msg* request = MSG_RecvAny(kPeer, 5000);
    MSG_Sender sender{};
    if (request == nullptr || MSG_GetSender(request, &sender) != MSG_OK || bytes.empty()) {
        MSG_ReleaseMsg(request);
        return;
    }
    MSG_ReleaseMsg(request);
    MSG_Msg* reply =
        MSG_AllocMsg(ConfigProtocol::kReadRspMsgId, 0, static_cast<uint32_t>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), static_cast<char*>(MSG_GetPayloadMutable(reply)));
    MSG_SendMsg(kPeer, sender.address, reply);
}

TEST(ConfigSession, ReportsEachFailureByItsStatus) {
    testsupport::ServiceProcess sandbox;  // only its endpoint folder: no service runs
    const ConfigIF::ReadReq request = testsupport::readRequest("audio/volume", CommonIF::kUser);
    ConfigIF::ReadRsp response;

    ConfigSession lonely;
    EXPECT_EQ(lonely.connect("lonely", 50, kPeer), ConfigSession::kNotConnected);
    EXPECT_EQ(lonely.transportStatus(), MSG_ERR_TIMEOUT);
    EXPECT_EQ(lonely.read(request, &response, 50), ConfigSession::kNotConnected);
    EXPECT_EQ(lonely.sendRaw(1, "x"), ConfigSession::kNotConnected);

    ASSERT_EQ(MSG_OpenService(kPeer), MSG_OK);
    ConfigSession session;
    ASSERT_EQ(session.connect("client", 1000, kPeer), ConfigSession::kOk);
    ConfigIF::ReadRsp notFound;
    notFound.set_error(CommonIF::kErrItemNotFound);
    std::thread peer([&] {
        answerOnce(notFound.SerializeAsString());
        answerOnce("\xff\xff");  // a field tag cut short
        answerOnce("");
    });
    EXPECT_EQ(session.read(request, &response, 5000), ConfigSession::kOk);
    EXPECT_EQ(response.error(), CommonIF::kErrItemNotFound);
    EXPECT_EQ(session.read(request, &response, 5000), ConfigSession::kBadAnswer);
    EXPECT_EQ(session.read(request, &response, 100), ConfigSession::kNoAnswer);
    peer.join();
    EXPECT_EQ(session.sendRaw(1, std::string(MSG_MAX_PAYLOAD_BYTES + 1, 'x')),
              ConfigSession::kSendFailed);
    EXPECT_EQ(session.transportStatus(), MSG_ERR_TOO_BIG);
    MSG_CloseLocal(kPeer);
}

}  // namespace
