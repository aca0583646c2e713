// The real setvane against the real configsrvc with the example device model.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "ServiceHarness.h"

namespace e2e {
namespace {

std::vector<std::string> setvane(std::vector<std::string> words) {
    words.insert(words.begin(), SETVANE_BIN);
    return words;
}

class SetvaneService : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(service_.start(EXAMPLE_MODEL, sandbox_.state(), &error)) << error;
    }

    RunResult tool(const std::vector<std::string>& words) { return run(setvane(words)); }

    Sandbox sandbox_;
    ServiceProcess service_;
};

TEST_F(SetvaneService, ReadsADefaultWritesAndReadsBack) {
    RunResult before = tool({"audio", "volume"});
    EXPECT_EQ(before.status, 0) << before.err;
    EXPECT_EQ(before.out, "50\n");

    RunResult written = tool({"audio", "volume", "-v", "80"});
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out + written.err, "");

    EXPECT_EQ(tool({"audio", "volume"}).out, "80\n");
}

TEST_F(SetvaneService, ListVariablePrintsOneValuePerLine) {
    EXPECT_EQ(tool({"network", "interface", "2", "dns"}).out, "192.0.2.53\n198.51.100.53\n");
    ASSERT_EQ(
        tool({"network", "interface", "2", "dns", "-v", "10.0.0.1", "10.0.0.2", "10.0.0.3"}).status,
        0);
    EXPECT_EQ(tool({"network", "interface", "2", "dns"}).out, "10.0.0.1\n10.0.0.2\n10.0.0.3\n");
    // Interface 1 (also what no number means) is another instance and kept its default.
    EXPECT_EQ(tool({"network", "interface", "dns"}).out, "192.0.2.53\n198.51.100.53\n");
}

struct ErrorCase {
    std::vector<std::string> words;
    int status;
    const char* line;  // on standard error, between the colour codes
};

// Names each case in test listings by its command line.
void PrintTo(const ErrorCase& error, std::ostream* out) {
    *out << "setvane";
    for (const std::string& word : error.words) {
        *out << ' ' << word;
    }
}

class SetvaneErrors : public SetvaneService, public testing::WithParamInterface<ErrorCase> {};

TEST_P(SetvaneErrors, EndWithTheServiceErrorAsStatus) {
    RunResult result = tool(GetParam().words);
    EXPECT_EQ(result.status, GetParam().status) << result.err;
    EXPECT_EQ(result.err, std::string("\033[31m") + GetParam().line + "\033[0m\n");
    EXPECT_EQ(result.out, "");
}

const ErrorCase kErrors[] = {
    {{"audio", "bass"}, 249, "ReadRsp error kErrItemNotFound"},
    {{"network", "interface", "4", "mtu"}, 249, "ReadRsp error kErrItemNotFound"},
    {{"audio"}, 249, "ReadRsp error kErrItemNotFound"},
    {{"--read"}, 249, "ReadRsp error kErrItemNotFound"},
    {{"audio", "bass", "-v", "1"}, 249, "WriteRsp error kErrItemNotFound"},
    {{"provisioning", "serial-number"}, 248, "ReadRsp error kErrNotAuthorized"},
    {{"-w", "audio", "volume", "-v", "1"}, 248, "WriteRsp error kErrNotAuthorized"},
    {{"--role", "kAdmin", "system", "watchdog", "-v", "off"},
     248,
     "WriteRsp error kErrNotAuthorized"},
    {{"audio", "volume", "-v", "101"}, 253, "WriteRsp error kErrBadParameter"},
    {{"audio", "volume", "-v", "loud"}, 253, "WriteRsp error kErrBadParameter"},
    {{"audio", "volume", "-v", "1", "2"}, 253, "WriteRsp error kErrBadParameter"},
    {{"audio", "output", "-v", "radio"}, 253, "WriteRsp error kErrBadParameter"},
    {{"audio", "mute", "-v", "maybe"}, 253, "WriteRsp error kErrBadParameter"},
    {{"network", "interface", "1", "dns", "-v", "a", "b", "c", "d"},
     253,
     "WriteRsp error kErrBadParameter"},
};

INSTANTIATE_TEST_SUITE_P(Table, SetvaneErrors, testing::ValuesIn(kErrors));

TEST_F(SetvaneService, ValuesSurviveARestart) {
    ASSERT_EQ(tool({"system", "hostname", "-v", "board-room"}).status, 0);
    ASSERT_EQ(tool({"--role", "kProvisioning", "provisioning", "enrolled", "-v", "yes"}).status, 0);
    ASSERT_EQ(service_.stop(SIGTERM), 0) << service_.output();

    std::string error;
    ASSERT_TRUE(service_.start(EXAMPLE_MODEL, sandbox_.state(), &error)) << error;
    EXPECT_EQ(tool({"system", "hostname"}).out, "board-room\n");
    EXPECT_EQ(tool({"--role", "kProvisioning", "provisioning", "enrolled"}).out, "true\n");
}

TEST_F(SetvaneService, WritingNoValuesRestoresTheDefault) {
    ASSERT_EQ(tool({"audio", "volume", "-v", "5"}).status, 0);
    ASSERT_EQ(tool({"--write", "audio", "volume"}).status, 0);
    EXPECT_EQ(tool({"audio", "volume"}).out, "50\n");
}

TEST_F(SetvaneService, RoleClaimBeyondAnUnprivilegedUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run the client as another user (uid 65534)";
    }
    std::vector<std::string> asNobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                         "--clear-groups", SETVANE_BIN};
    auto nobody = [&](std::vector<std::string> words) {
        std::vector<std::string> argv = asNobody;
        argv.insert(argv.end(), words.begin(), words.end());
        return run(argv);
    };
    RunResult user = nobody({"audio", "volume"});
    EXPECT_EQ(user.status, 0) << user.err;
    EXPECT_EQ(user.out, "50\n");
    EXPECT_EQ(nobody({"--role", "kAdmin", "audio", "volume", "-v", "20"}).status, 0);

    RunResult claim = nobody({"--role", "kSystem", "system", "watchdog", "-v", "off"});
    EXPECT_EQ(claim.status, 248);
    EXPECT_EQ(claim.err, "\033[31mWriteRsp error kErrNotAuthorized\033[0m\n");
    EXPECT_EQ(nobody({"--role", "kProvisioning", "provisioning", "serial-number"}).status, 248);

    // The same claims from root go through.
    EXPECT_EQ(tool({"--role", "kSystem", "system", "watchdog", "-v", "off"}).status, 0);
    EXPECT_EQ(tool({"system", "watchdog"}).out, "false\n");
}

TEST_F(SetvaneService, StopsCleanlyOnSigintAndTheEndpointGoesAway) {
    EXPECT_EQ(service_.stop(SIGINT), 0) << service_.output();
    setenv("MSGPASS_MAX_WAIT_MS", "200", 1);
    RunResult result = tool({"audio", "volume"});
    unsetenv("MSGPASS_MAX_WAIT_MS");
    EXPECT_EQ(result.status, 1);
}

// The daemon refuses to start, with a message that says why, and changes nothing.
TEST(ServiceStart, BadModelOrDamagedStateIsRefused) {
    Sandbox sandbox;
    std::string badModel = sandbox.root() + "/bad.xml";
    FILE* model = fopen(badModel.c_str(), "w");
    ASSERT_NE(model, nullptr);
    fputs(
        "<device-model>\n  <variable name='v' kind='integer' max='3' default='4'/>\n"
        "</device-model>\n",
        model);
    fclose(model);
    RunResult refused = run({CONFIGSRVC_BIN, "--model", badModel, "--state", sandbox.state()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find(badModel +
                               ":2: default does not fit: value 4 of 'v' is above the maximum 3"),
              std::string::npos)
        << refused.err;

    mkdir(sandbox.state().c_str(), 0755);
    std::string database = sandbox.state() + "/values.db";
    FILE* damaged = fopen(database.c_str(), "w");
    ASSERT_NE(damaged, nullptr);
    fputs("SQLite format 3\nnot really", damaged);
    fclose(damaged);
    refused = run({CONFIGSRVC_BIN, "--model", EXAMPLE_MODEL, "--state", sandbox.state()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find(database + " is damaged"), std::string::npos) << refused.err;

    RunResult usage = run({CONFIGSRVC_BIN, "--model", EXAMPLE_MODEL});
    EXPECT_EQ(usage.status, 1);
    EXPECT_NE(usage.err.find("configsrvc: --model and --state are required"), std::string::npos);
}

}  // namespace
}  // namespace e2e
