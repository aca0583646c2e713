// How the setvane binary is linked: libmsgpass dynamically and through its eleven client
// operations only, so that the device's own library can take its place; the rest statically;
// and without the test build's switches for the log device and the log daemon's pid file.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>

namespace {

std::string commandOutput(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return output;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, n);
    }
    pclose(pipe);
    return output;
}

TEST(Binary, UsesOnlyTheElevenClientOperationsOfLibmsgpass) {
    const std::string symbols =
        commandOutput(std::string("nm -D --undefined-only ") + SETVANE_BINARY);
    ASSERT_FALSE(symbols.empty());
    const std::set<std::string> allowed = {
        "MSG_DebugSetName", "MSG_OpenLocal",       "MSG_OpenRemoteSync",    "MSG_CloseLocal",
        "MSG_AllocMsg",     "MSG_SendMsg",         "MSG_GetPayloadMutable", "MSG_RecvMsg",
        "MSG_GetPayload",   "MSG_GetPayloadBytes", "MSG_ReleaseMsg"};
    std::set<std::string> used;
    std::istringstream lines(symbols);
    std::string kind;
    std::string name;
    while (lines >> kind >> name) {
        name = name.substr(0, name.find('@'));
        if (name.rfind("MSG_", 0) == 0) {
            used.insert(name);
        }
    }
    EXPECT_EQ(used, allowed);
}

TEST(Binary, LoadsOnlyLibmsgpassAndTheCLibraryDynamically) {
    const std::string dynamic = commandOutput(std::string("readelf -d ") + SETVANE_BINARY);
    EXPECT_NE(dynamic.find("[libmsgpass.so"), std::string::npos);
    EXPECT_EQ(dynamic.find("libprotobuf"), std::string::npos);
    EXPECT_EQ(dynamic.find("libstdc++"), std::string::npos);
    EXPECT_EQ(dynamic.find("libgcc_s"), std::string::npos);
    // RUNPATH, unlike RPATH, lets LD_LIBRARY_PATH choose another libmsgpass.
    EXPECT_NE(dynamic.find("(RUNPATH)"), std::string::npos);
    EXPECT_EQ(dynamic.find("(RPATH)"), std::string::npos);
}

TEST(Binary, OnlyTheTestBuildTakesItsLogFilesFromTheEnvironment) {
    // The test build shows what the check looks for; the product must not contain it.
    for (const char* variable : {"SETVANE_TEST_PID_FILE", "LOGMSG_TEST_DEVICE"}) {
        const std::string grep = std::string(" | grep -c ") + variable;
        EXPECT_EQ(commandOutput(std::string("strings ") + SETVANE_TESTDEV_BINARY + grep), "1\n");
        EXPECT_EQ(commandOutput(std::string("strings ") + SETVANE_BINARY + grep), "0\n");
    }
}

}  // namespace
