// How the setvane binary is linked: libmsgpass dynamically and through its eleven client
// operations only, so that the device's own library can take its place; the rest statically.
#include <gtest/gtest.h>

#include "setvane_test.h"

namespace testsupport {
namespace {

TEST(Binary, UsesOnlyTheElevenClientOperationsOfLibmsgpass) {
    EXPECT_EQ(runShell("nm -D --undefined-only " SETVANE_BINARY
                       " | grep -o ' MSG_[A-Za-z]*' | LC_ALL=C sort")
                  .out,
              " MSG_AllocMsg\n MSG_CloseLocal\n MSG_DebugSetName\n MSG_GetPayload\n"
              " MSG_GetPayloadBytes\n MSG_GetPayloadMutable\n MSG_OpenLocal\n"
              " MSG_OpenRemoteSync\n MSG_RecvMsg\n MSG_ReleaseMsg\n MSG_SendMsg\n");
}

TEST(Binary, LoadsOnlyLibmsgpassAndTheCLibraryDynamically) {
    const std::string dynamic = runShell("readelf -d " SETVANE_BINARY).out;
    EXPECT_NE(dynamic.find("[libmsgpass.so"), std::string::npos);
    // RUNPATH, unlike RPATH, lets LD_LIBRARY_PATH choose another libmsgpass.
    EXPECT_NE(dynamic.find("(RUNPATH)"), std::string::npos);
    for (const char* absent : {"libprotobuf", "libstdc++", "libgcc_s", "(RPATH)"}) {
        EXPECT_EQ(dynamic.find(absent), std::string::npos) << absent;
    }
}

}  // namespace
}  // namespace testsupport
