// How the setvane binary is linked: libmsgpass dynamically and through its eleven client
// operations only, so that the device's own library can take its place; the rest statically;
// and without the test build's switches for the log device and the log daemon's pid file.
#include <gtest/gtest.h>

#include "Harness.h"

namespace {

std::string shell(const std::string& command) {
    return runProgram("/bin/sh", {"sh", "-c", command}, {}).out;
}

TEST(Binary, UsesOnlyTheElevenClientOperationsOfLibmsgpass) {
    EXPECT_EQ(shell("nm -D --undefined-only " SETVANE_BINARY
                    " | grep -o ' MSG_[A-Za-z]*' | LC_ALL=C sort"),
              " MSG_AllocMsg\n MSG_CloseLocal\n MSG_DebugSetName\n MSG_GetPayload\n"
              " MSG_GetPayloadBytes\n MSG_GetPayloadMutable\n MSG_OpenLocal\n"
              " MSG_OpenRemoteSync\n MSG_RecvMsg\n MSG_ReleaseMsg\n MSG_SendMsg\n");
}

TEST(Binary, LoadsOnlyLibmsgpassAndTheCLibraryDynamically) {
    const std::string dynamic = shell("readelf -d " SETVANE_BINARY);
    EXPECT_NE(dynamic.find("[libmsgpass.so"), std::string::npos);
    // RUNPATH, unlike RPATH, lets LD_LIBRARY_PATH choose another libmsgpass.
    EXPECT_NE(dynamic.find("(RUNPATH)"), std::string::npos);
    for (const char* absent : {"libprotobuf", "libstdc++", "libgcc_s", "(RPATH)"}) {
        EXPECT_EQ(dynamic.find(absent), std::string::npos) << absent;
    }
}

TEST(Binary, OnlyTheTestBuildTakesItsLogFilesFromTheEnvironment) {
    for (const std::string variable : {"SETVANE_TEST_PID_FILE", "LOGMSG_TEST_DEVICE"}) {
        EXPECT_EQ(shell("strings " SETVANE_TESTDEV_BINARY " | grep -c " + variable), "1\n");
        EXPECT_EQ(shell("strings " SETVANE_BINARY " | grep -c " + variable), "0\n");
    }
}

}  // namespace
