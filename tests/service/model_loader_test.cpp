// Model files: defaults are kept in canonical form, and every file and text of
// bad_models.txt is refused with its place and reason.
#include "ModelLoader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CaseFile.h"

namespace configsrvc {
namespace {

// (The example model loads: every test of the service core starts with it.)
TEST(ModelLoader, DefaultsAreKeptInCanonicalForm) {
    DeviceModel model;
    std::string error;
    ASSERT_TRUE(
        parseModel("<device-model>\n  <variable name='on' kind='boolean' default='yes'/>\n"
                   "  <variable name='n' kind='integer' default='-0'/>\n</device-model>\n",
                   "m.xml", &model, &error))
        << error;
    ResolvedVariable on, n;
    ASSERT_TRUE(model.resolve({{"on", 0}}, &on) && model.resolve({{"n", 0}}, &n));
    EXPECT_EQ(on.variable->defaults, std::vector<std::string>{"true"});
    EXPECT_EQ(n.variable->defaults, std::vector<std::string>{"0"});
}

// Stored records name their instance by key; only the key as the model writes it resolves.
TEST(ModelLoader, KeysResolveOnlyInTheirOwnForm) {
    DeviceModel model;
    std::string error;
    ASSERT_TRUE(
        parseModel("<device-model>\n  <node name='n' instances='3'>\n"
                   "    <variable name='v' kind='integer' default='1'/>\n  </node>\n"
                   "</device-model>\n",
                   "m.xml", &model, &error))
        << error;
    const struct {
        const char* key;
        bool resolves;
    } kCases[] = {
        {"n[1]/v", true},           {"n[3]/v", true},     {"n[4]/v", false},  {"n[0]/v", false},
        {"n[01]/v", false},         {"n[+1]/v", false},   {"n[ 1]/v", false}, {"n[1 ]/v", false},
        {"n[]/v", false},           {"n[1x]/v", false},   {"n/v", false},     {"n[1]/v/", false},
        {"n[4294967297]/v", false}, {"n[1]/v[1]", false},
    };
    for (const auto& c : kCases) {
        ResolvedVariable found;
        EXPECT_EQ(model.resolveKey(c.key, &found), c.resolves) << c.key;
    }
}

// Who may claim what, by uid, with the service running as 990. Without a word from the model,
// users other than root and the service's own may claim kUser only.
TEST(ModelLoader, ClaimsAreNarrowUnlessTheModelWidensThem) {
    const struct {
        const char* claims;
        uid_t uid;
        CommonIF::eSecurityRole highest;
    } kCases[] = {
        {"", 4321, CommonIF::kUser},
        {"", 0, CommonIF::kStartup},
        {"", 990, CommonIF::kStartup},
        {"<claims/>", 4321, CommonIF::kUser},
        {"<claims others='kAdmin'/>", 4321, CommonIF::kAdmin},
        {"<claims><uid id='1500' max='kSystem'/></claims>", 1500, CommonIF::kSystem},
        {"<claims><uid id='1500' max='kSystem'/></claims>", 1501, CommonIF::kUser},
        {"<claims><uid id='0' max='kAdmin'/></claims>", 0, CommonIF::kAdmin},
    };
    for (const auto& c : kCases) {
        DeviceModel model;
        std::string error;
        ASSERT_TRUE(parseModel(std::string("<device-model>") + c.claims +
                                   "<variable name='v' kind='boolean' default='true'/>"
                                   "</device-model>",
                               "m.xml", &model, &error))
            << error;
        EXPECT_EQ(model.highestClaim(c.uid, 990), c.highest) << c.claims << " uid " << c.uid;
    }
}

TEST(ModelLoader, BadModelsAreRefusedWithFileLineAndReason) {
    const testsupport::CaseFile cases = testsupport::readCaseFile(BAD_MODELS);
    EXPECT_GE(cases.blocks.size(), 32u);
    EXPECT_GE(cases.rows.size(), 3u);
    for (const testsupport::CaseBlock& bad : cases.blocks) {
        DeviceModel model;
        std::string error;
        EXPECT_FALSE(parseModel(bad.text(1), "m.xml", &model, &error)) << bad.head.where;
        EXPECT_EQ(error, bad.head[0]) << bad.head.where;
    }
    for (const testsupport::CaseRow& file : cases.rows) {
        DeviceModel model;
        std::string error;
        EXPECT_FALSE(loadModelFile(file[0], &model, &error)) << file.where;
        EXPECT_EQ(error, file[1]) << file.where;
    }
}

}  // namespace
}  // namespace configsrvc
