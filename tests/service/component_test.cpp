// Components in the service core: detached, everything in them answers kNotEnabled and keeps its
// values; the change is durable, idempotent and needs kSystem.
#include <gmock/gmock.h>
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
        const Answer answer =
            ask("ComponentChange", role,
                "component_name: '" + component + "' detach: " + (detach ? "true" : "false"));
        return {testsupport::errorOf(*answer.message), !answer.changes.empty()};
    }

    // The error of each request that names something inside the video component.
    std::vector<eErrorType> errorsInside() {
        const Answer batch = ask("BatchRead", kAdmin,
                                 "instance { {{audio/volume}} } instance { {{video/resolution}} }");
        const auto& items = static_cast<const ConfigIF::BatchReadRsp&>(*batch.message).response();
        return {read(kResolution).error(),
                write(kResolution, {"1280x720"}).error(),
                items.Get(0).error(),
                items.Get(1).error(),
                error("GetAttribute", kUser, "node_name: 'video.resolution'"),
                error("GetAccessLevels", kUser, "instance { {{video/resolution}} }"),
                error("ResetNodeValue", kAdmin, "node_name: 'video'")};
    }
};

TEST_F(ComponentTest, DetachedOneAnswersNotEnabledKeepsItsValuesAndComesBackAttached) {
    ASSERT_EQ(write(kResolution, {"1280x720"}).error(), kErrNoError);
    EXPECT_EQ(change("video", true, kAdmin), std::make_pair(kErrNotAuthorized, false));
    EXPECT_EQ(change("audio", true), std::make_pair(kErrItemNotFound, false)) << "not a component";
    EXPECT_EQ(change("video.resolution", true), std::make_pair(kErrItemNotFound, false));

    EXPECT_EQ(change("video", true), std::make_pair(kErrNoError, true));
    EXPECT_EQ(change("video", true), std::make_pair(kErrNoError, false)) << "idempotent";
    std::vector<eErrorType> expected(7, kNotEnabled);
    expected[2] = kErrNoError;  // audio/volume, beside it in the batch
    EXPECT_EQ(errorsInside(), expected);
    EXPECT_EQ(read(kResolution).ShortDebugString(), "error: kNotEnabled") << "no value leaks";
    EXPECT_THAT(write(kResolution, {"1"}).error_message(),
                testing::ElementsAre("the component 'video' is detached"));
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(errorsInside(), expected) << "durable";
    EXPECT_TRUE(ask("ResetNodeValue", kSystem, "node_name: ''").changes.empty())
        << "a reset of everything passes over the detached values";

    EXPECT_EQ(change("video", false), std::make_pair(kErrNoError, true));
    EXPECT_EQ(change("video", false), std::make_pair(kErrNoError, false)) << "idempotent";
    EXPECT_EQ(valuesOf(read(kResolution)), Values{"1280x720"}) << "kept while detached";
}

}  // namespace
}  // namespace configsrvc
