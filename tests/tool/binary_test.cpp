// How the setvane binary is linked: libmsgpass dynamically and through its eleven client
// operations only, so that the device's own library can take its place; the rest statically;
// and without the test build's switches for the log device and the log daemon's pid file.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "Harness.h"

namespace {

std::string shell(const std::string& command) {
    return runProgram("/bin/sh", {"sh", "-c", command}, {}).out;
}

TEST(Binary, UsesOnlyTheElevenClientOperationsOfLibmsgpass) {
    std::istringstream symbols(shell(std::string("nm -D --undefined-only ") + SETVANE_BINARY));
    std::set<std::string> used;
    for (std::string kind, name; symbols >> kind >> name;) {
        if (name.rfind("MSG_", 0) == 0) {
            used.insert(name.substr(0, name.find('@')));
        }
    }
    EXPECT_EQ(used,
              std::set<std::string>({"MSG_DebugSetName", "MSG_OpenLocal", "MSG_OpenRemoteSync",
                                     "MSG_CloseLocal", "MSG_AllocMsg", "MSG_SendMsg",
                                     "MSG_GetPayloadMutable", "MSG_RecvMsg", "MSG_GetPayload",
                                     "MSG_GetPayloadBytes", "MSG_ReleaseMsg"}));
}

TEST(Binary, LoadsOnlyLibmsgpassAndTheCLibraryDynamically) {
    const std::string dynamic = shell(std::string("readelf -d ") + SETVANE_BINARY);
    EXPECT_NE(dynamic.find("[libmsgpass.so"), std::string::npos);
    for (const char* absent : {"libprotobuf", "libstdc++", "libgcc_s", "(RPATH)"}) {
        EXPECT_EQ(dynamic.find(absent), std::string::npos) << absent;
    }
    // RUNPATH, unlike RPATH, lets LD_LIBRARY_PATH choose another libmsgpass.
    EXPECT_NE(dynamic.find("(RUNPATH)"), std::string::npos);
}

TEST(Binary, OnlyTheTestBuildTakesItsLogFilesFromTheEnvironment) {
    for (const std::string variable : {"SETVANE_TEST_PID_FILE", "LOGMSG_TEST_DEVICE"}) {
        EXPECT_EQ(shell("strings " SETVANE_TESTDEV_BINARY " | grep -c " + variable), "1\n");
        EXPECT_EQ(shell("strings " SETVANE_BINARY " | grep -c " + variable), "0\n");
    }
}

}  // namespace
