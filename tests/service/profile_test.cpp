// Profiles in the service core: the file format, round trips, all-or-nothing applies, and the
// folder's walls.
#include <unistd.h>

#include <gtest/gtest.h>

#include "Profiles.h"
#include "service_fixture.h"

namespace configsrvc {
namespace {

constexpr char kHostname[] = "system/hostname";
constexpr char kWatchdog[] = "system/watchdog";
constexpr char kSerial[] = "provisioning/serial-number";

class ProfileTest : public ConfigServiceTest {
  protected:
    eErrorType create(const std::string& name, eSecurityRole role = kAdmin) {
        return error("CreateProfile", eSecurityRole_Name(role), "file_location: '" + name + "'");
    }
    eErrorType apply(const std::string& name, eSecurityRole role = kAdmin) {
        return error("ApplyProfile", eSecurityRole_Name(role), "file_location: '" + name + "'");
    }

    // Every value of interest, read in one batch with the highest role.
    std::string readAll() {
        const Answer answer =
            ask(ConfigProtocol::kBatchReadReqMsgId,
                batchRead(kProvisioning, {kMtu, kDns, kVolume, kHostname, kWatchdog, kSerial}));
        return answer.message->ShortDebugString();
    }

    std::string profilePath(const std::string& name) const {
        return folder_.file("profiles/" + name);
    }
};

// A profile gives back exactly the values its creator could read: those it lists, byte for
// byte, and the defaults of those it does not; what the creator could not read it neither saves
// nor touches.
TEST_F(ProfileTest, ApplyGivesBackExactlyWhatItsCreatorCouldRead) {
    ASSERT_EQ(write(kMtu, {"1400"}).error(), kErrNoError);
    ASSERT_EQ(write(kDns, {}).error(), kErrNoError);  // an empty list differs from the default
    ASSERT_EQ(write(kHostname, {"a \"quoted\" \\ name"}).error(), kErrNoError);
    ASSERT_EQ(write(kSerial, {"S1"}, kProvisioning).error(), kErrNoError);
    const std::string saved = testsupport::replaced(readAll(), "S1", "S2");
    ASSERT_EQ(create("backup"), kErrNoError);
    ASSERT_EQ(write(kMtu, {"1300"}).error(), kErrNoError);
    ASSERT_EQ(write(kVolume, {"10"}).error(), kErrNoError);
    ASSERT_EQ(write(kSerial, {"S2"}, kProvisioning).error(), kErrNoError);
    EXPECT_EQ(apply("backup"), kErrNoError);
    EXPECT_EQ(readAll(), saved);
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(readAll(), saved) << "applied durably";
    const std::string text = testsupport::readFile(profilePath("backup"));
    EXPECT_NE(text.find("model \"example-room-unit\"\nrole kAdmin\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("serial"), std::string::npos) << text;
    EXPECT_EQ(create("backup"), kErrAlreadyExists);
}

TEST_F(ProfileTest, AProfileWithOneBadPartAppliesNothing) {
    ASSERT_EQ(write(kMtu, {"1400"}).error(), kErrNoError);
    ASSERT_EQ(write(kWatchdog, {"false"}, kSystem).error(), kErrNoError);
    ASSERT_EQ(create("good", kSystem), kErrNoError);
    const std::string good = testsupport::readFile(profilePath("good"));
    ASSERT_EQ(write(kMtu, {"1300"}).error(), kErrNoError);
    const std::string now = readAll();
    const struct {
        const char* what;
        std::string text;
        eSecurityRole role;
        eErrorType error;
    } cases[] = {
        {"value out of range", testsupport::replaced(good, "\"1400\"", "\"99999\""), kSystem,
         kErrBadParameter},
        {"unknown instance", good + "value \"network[1]/interface[9]/mtu\" \"1400\"\n", kSystem,
         kErrBadParameter},
        {"other model", testsupport::replaced(good, "example-room-unit", "other"), kSystem,
         kErrBadParameter},
        {"malformed line", good + "value unquoted\n", kSystem, kErrBadParameter},
        {"listed twice", good + "value \"network[1]/interface[2]/mtu\" \"1500\"\n", kSystem,
         kErrBadParameter},
        {"write level not reached", good, kAdmin, kErrNotAuthorized},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string name = "bad-" + std::to_string(i);
        ASSERT_TRUE(testsupport::writeFile(profilePath(name), cases[i].text));
        EXPECT_EQ(apply(name, cases[i].role), cases[i].error) << cases[i].what;
        EXPECT_EQ(readAll(), now) << cases[i].what;
    }
}

TEST_F(ProfileTest, NamesOutsideTheFolderLinksAndExistingFilesAreRefused) {
    testsupport::TempDir outside{"configsrvc-outside"};
    const std::string target = outside.file("target");
    ASSERT_TRUE(testsupport::writeFile(target, "model \"example-room-unit\"\nrole kAdmin\n"));
    ASSERT_EQ(::symlink(target.c_str(), profilePath("link").c_str()), 0);
    for (const std::string& name :
         {std::string("/etc/passwd"), std::string("../escape"), std::string("a/b"), std::string(""),
          std::string(".hidden"), std::string("x y"), std::string(129, 'x')}) {
        EXPECT_EQ(create(name), kErrBadParameter) << name;
        EXPECT_EQ(apply(name), kErrBadParameter) << name;
    }
    EXPECT_EQ(apply("link"), kErrBadParameter) << "a link is never followed";
    EXPECT_EQ(create("link"), kErrAlreadyExists) << "a link is never replaced";
    EXPECT_EQ(testsupport::readFile(target), "model \"example-room-unit\"\nrole kAdmin\n");
    EXPECT_EQ(apply("missing"), kErrItemNotFound);
    EXPECT_EQ(create("by-user", kUser), kErrNotAuthorized);
    EXPECT_EQ(apply("link", kUser), kErrNotAuthorized);
}

TEST(ProfileFormat, EveryByteOfAValueSurvivesAndBadTextIsRefusedByLine) {
    Profile profile;
    profile.model = "m \"1\"";
    profile.role = kSystem;
    profile.values["a"] = {"quote \" backslash \\", "new\nline\ttab", std::string("\x01\x7f\0", 3),
                           "caf\xc3\xa9", ""};
    profile.values["b"] = {};
    Profile back;
    std::string error;
    ASSERT_TRUE(parseProfile(formatProfile(profile), &back, &error)) << error;
    EXPECT_EQ(back.model, profile.model);
    EXPECT_EQ(back.role, profile.role);
    EXPECT_EQ(back.values, profile.values);

    const struct {
        const char* text;
        const char* error;
    } bad[] = {
        {"model \"m\"\n", "a profile names its model and its role"},
        {"model \"m\"\nrole kBoss\n", "line 2: malformed role line"},
        {"model \"m\"\nmodel \"n\"\nrole kUser\n", "line 2: 'model' is not a profile line here"},
        {"model \"m\nrole kUser\n", "line 1: malformed model line"},
        {"model \"m\"\nrole kUser\nvalue \"k\" \"\\q\"\n",
         "line 3: values are strings in "
         "double quotes"},
        {"model \"m\"\nrole kUser\nvalue k\n", "line 3: a value line needs a key in double quotes"},
    };
    for (const auto& c : bad) {
        Profile ignored;
        EXPECT_FALSE(parseProfile(c.text, &ignored, &error)) << c.text;
        EXPECT_EQ(error, c.error) << c.text;
    }
}

}  // namespace
}  // namespace configsrvc
