// Components in the service core: detached, everything in them answers kNotEnabled and keeps its
// values; the change is durable, idempotent and needs kSystem.
#include <gtest/gtest.h>

#include "service_fixture.h"

namespace configsrvc {
namespace {

constexpr char kResolution[] = "video/resolution";

class ComponentTest : public ConfigServiceTest {
  protected:
    // The error of a ComponentChangeReq, and whether it changed anything.
    std::pair<eErrorType, bool> change(const std::string& component, bool detach,
                                       eSecurityRole role = kSystem) {
        ConfigIF::ComponentChangeReq request;
        request.set_name("test");
        request.set_role(role);
        request.set_component_name(component);
        request.set_detach(detach);
        const Answer answer =
            ask(ConfigProtocol::kComponentChangeReqMsgId, request.SerializeAsString(), kService);
        return {static_cast<const ConfigIF::ComponentChangeRsp&>(*answer.message).error(),
                !answer.changes.empty()};
    }

    // The error of each request that names something inside the video component.
    std::vector<eErrorType> errorsInside() {
        ConfigIF::GetAttributeReq attribute;
        attribute.set_name("test");
        attribute.set_role(kUser);
        attribute.set_node_name("video.resolution");
        ConfigIF::GetAccessLevelsReq levels;
        levels.set_name("test");
        levels.set_role(kUser);
        *levels.mutable_instance() = testsupport::instOf(kResolution);
        ConfigIF::ResetNodeValueReq reset;
        reset.set_name("test");
        reset.set_role(kAdmin);
        reset.set_node_name("video");
        const auto error = [this](uint32_t id, const google::protobuf::Message& request) {
            const Answer answer = ask(id, request.SerializeAsString(), kService);
            const auto* field = answer.message->GetDescriptor()->FindFieldByName("error");
            return static_cast<eErrorType>(
                answer.message->GetReflection()->GetEnumValue(*answer.message, field));
        };
        const Answer batch = ask(ConfigProtocol::kBatchReadReqMsgId,
                                 batchRead(kAdmin, {kVolume, kResolution}), kService);
        const auto& items = static_cast<const ConfigIF::BatchReadRsp&>(*batch.message).response();
        return {read(kResolution).error(),
                write(kResolution, {"1280x720"}).error(),
                items.Get(0).error(),
                items.Get(1).error(),
                error(ConfigProtocol::kGetAttributeReqMsgId, attribute),
                error(ConfigProtocol::kGetAccessLevelsReqMsgId, levels),
                error(ConfigProtocol::kResetNodeValueReqMsgId, reset)};
    }
};

TEST_F(ComponentTest, DetachedOneAnswersNotEnabledKeepsItsValuesAndComesBackAttached) {
    ASSERT_EQ(write(kResolution, {"1280x720"}).error(), kErrNoError);
    EXPECT_EQ(change("video", true, kAdmin), std::make_pair(kErrNotAuthorized, false));
    EXPECT_EQ(change("audio", true), std::make_pair(kErrItemNotFound, false)) << "not a component";
    EXPECT_EQ(change("video.resolution", true), std::make_pair(kErrItemNotFound, false));

    EXPECT_EQ(change("video", true), std::make_pair(kErrNoError, true));
    EXPECT_EQ(change("video", true), std::make_pair(kErrNoError, false)) << "idempotent";
    const std::vector<eErrorType> detached(7, kNotEnabled);
    std::vector<eErrorType> expected = detached;
    expected[2] = kErrNoError;  // audio/volume, beside it in the batch
    EXPECT_EQ(errorsInside(), expected);
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(errorsInside(), expected) << "durable";
    EXPECT_EQ(ask(
                  ConfigProtocol::kResetNodeValueReqMsgId,
                  [] {
                      ConfigIF::ResetNodeValueReq all;
                      all.set_name("test");
                      all.set_role(kSystem);
                      all.set_node_name("");
                      return all.SerializeAsString();
                  }(),
                  kService)
                  .changes.size(),
              0u)
        << "a reset of everything passes over the detached values";

    EXPECT_EQ(change("video", false), std::make_pair(kErrNoError, true));
    EXPECT_EQ(change("video", false), std::make_pair(kErrNoError, false)) << "idempotent";
    EXPECT_EQ(valuesOf(read(kResolution)), Values{"1280x720"}) << "kept while detached";
}

}  // namespace
}  // namespace configsrvc
