#include "ModelLoader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace configsrvc {
namespace {

const VariableDef* findVariable(const DeviceModel& model, std::vector<PathStep> path) {
    ResolvedVariable found;
    return model.resolve(path, &found) ? found.variable : nullptr;
}

TEST(ModelLoader, ExampleModelLoadsWithItsDeclarations) {
    DeviceModel model;
    std::string error;
    ASSERT_TRUE(loadModelFile(EXAMPLE_MODEL, &model, &error)) << error;

    const VariableDef* mtu = findVariable(model, {{"network", 0}, {"interface", 3}, {"mtu", 0}});
    ASSERT_NE(mtu, nullptr);
    EXPECT_EQ(mtu->kind, ValueKind::kInteger);
    EXPECT_EQ(mtu->minimum, 576);
    EXPECT_EQ(mtu->maximum, 9000);
    EXPECT_TRUE(mtu->rebootRequired);

    const VariableDef* dns = findVariable(model, {{"network", 0}, {"interface", 1}, {"dns", 0}});
    ASSERT_NE(dns, nullptr);
    EXPECT_TRUE(dns->isList);
    EXPECT_EQ(dns->defaults, (std::vector<std::string>{"192.0.2.53", "198.51.100.53"}));

    // Levels set on a node reach the variables inside it.
    const VariableDef* serial = findVariable(model, {{"provisioning", 0}, {"serial-number", 0}});
    ASSERT_NE(serial, nullptr);
    EXPECT_EQ(serial->readLevel, kRoleProvisioning);
    EXPECT_EQ(serial->writeLevel, kRoleProvisioning);

    EXPECT_EQ(model.highestClaim(1500, 999), kRoleSystem);
    EXPECT_EQ(model.highestClaim(4321, 999), kRoleAdmin);
    EXPECT_EQ(model.highestClaim(0, 999), kRoleStartup);
    EXPECT_EQ(model.highestClaim(999, 999), kRoleStartup);
}

TEST(ModelLoader, DefaultsAreKeptInCanonicalForm) {
    DeviceModel model;
    std::string error;
    ASSERT_TRUE(
        parseModel("<device-model>\n"
                   "  <variable name='on' kind='boolean' default='yes'/>\n"
                   "  <variable name='n' kind='integer' default='-0'/>\n"
                   "</device-model>\n",
                   "m.xml", &model, &error))
        << error;
    EXPECT_EQ(findVariable(model, {{"on", 0}})->defaults, std::vector<std::string>{"true"});
    EXPECT_EQ(findVariable(model, {{"n", 0}})->defaults, std::vector<std::string>{"0"});
}

struct BadModel {
    const char* text;
    const char* error;
};

class ModelLoaderRefuses : public testing::TestWithParam<BadModel> {};

TEST_P(ModelLoaderRefuses, WithFileLineAndReason) {
    DeviceModel model;
    std::string error;
    EXPECT_FALSE(parseModel(GetParam().text, "m.xml", &model, &error));
    EXPECT_EQ(error, GetParam().error);
}

const BadModel kBadModels[] = {
    {"<device-model>\n<node name='a'>\n</device-model>\n",
     "m.xml:3: not well-formed XML: Start-end tags mismatch"},
    {"", "m.xml:1: not well-formed XML: No document element found"},
    {"<model/>", "m.xml:1: the root element must be <device-model>, not <model>"},
    {"<device-model/>", "m.xml:1: the model declares no node and no variable"},
    {"<device-model>\n  <nod name='a'/>\n</device-model>",
     "m.xml:2: unknown element <nod> in <device-model>"},
    {"<device-model>\n  <node name='a' size='2'/>\n</device-model>",
     "m.xml:2: unknown attribute 'size' on <node>"},
    {"<device-model>\n  <node/>\n</device-model>", "m.xml:2: <node> needs a name"},
    {"<device-model>\n  <node name='a b'/>\n</device-model>",
     "m.xml:2: name 'a b' must start with a letter or '_' and hold only letters, digits, '_' "
     "and '-' (at most 64)"},
    {"<device-model>\n  <node name='2nd'/>\n</device-model>",
     "m.xml:2: name '2nd' must start with a letter or '_' and hold only letters, digits, '_' "
     "and '-' (at most 64)"},
    {"<device-model>\n  <node name='a'/>\n  <variable name='a' kind='boolean' default='true'/>\n"
     "</device-model>",
     "m.xml:3: 'a' is declared twice in the model"},
    {"<device-model>\n <node name='n'>\n  <node name='a'/>\n  <node name='a'/>\n </node>\n"
     "</device-model>",
     "m.xml:4: 'a' is declared twice in node 'n'"},
    {"<device-model>\n  <node name='a' instances='0'/>\n</device-model>",
     "m.xml:2: instances must be an integer from 1 to 1000, not '0'"},
    {"<device-model>\n  <node name='a' instances='2x'/>\n</device-model>",
     "m.xml:2: instances must be an integer from 1 to 1000, not '2x'"},
    {"<device-model>\n  <node name='a' read='kRoot'/>\n</device-model>",
     "m.xml:2: unknown role 'kRoot' (roles: kUser, kAdmin, kSystem, kProvisioning, kStartup)"},
    {"<device-model>\n  <variable name='v' kind='float' default='1'/>\n</device-model>",
     "m.xml:2: kind must be string, integer, boolean or option, not 'float'"},
    {"<device-model>\n  <variable name='v' kind='string'/>\n</device-model>",
     "m.xml:2: variable 'v' needs a default"},
    {"<device-model>\n  <variable name='v' kind='string' min='1' default=''/>\n</device-model>",
     "m.xml:2: unknown attribute 'min' on <variable>"},
    {"<device-model>\n  <variable name='v' kind='integer' max-count='2' default='1'/>\n"
     "</device-model>",
     "m.xml:2: unknown attribute 'max-count' on <variable>"},
    {"<device-model>\n  <variable name='v' kind='integer' min='5' max='1' default='3'/>\n"
     "</device-model>",
     "m.xml:2: min 5 is above max 1"},
    {"<device-model>\n  <variable name='v' kind='integer' max='10' default='11'/>\n"
     "</device-model>",
     "m.xml:2: default does not fit: value 11 of 'v' is above the maximum 10"},
    {"<device-model>\n  <variable name='v' kind='option' default='a'/>\n</device-model>",
     "m.xml:2: option variable 'v' lists no <option>"},
    {"<device-model>\n  <variable name='v' kind='option' default='c'>\n"
     "    <option>a</option>\n    <option>b</option>\n  </variable>\n</device-model>",
     "m.xml:2: default does not fit: value 'c' of 'v' is not one of: a, b"},
    {"<device-model>\n  <variable name='v' kind='boolean' default='true'>\n"
     "    <option>a</option>\n  </variable>\n</device-model>",
     "m.xml:3: unknown element <option> in <variable>"},
    {"<device-model>\n  <variable name='v' kind='string' list='true' default='a'/>\n"
     "</device-model>",
     "m.xml:2: list variable 'v' takes its defaults as <default> elements"},
    {"<device-model>\n  <variable name='v' kind='string' list='true' min-count='1'/>\n"
     "</device-model>",
     "m.xml:2: default does not fit: 'v' takes at least 1 values, not 0"},
    {"<device-model>\n  <variable name='v' kind='string' list='yes'/>\n</device-model>",
     "m.xml:2: list must be true or false, not 'yes'"},
    {"<device-model>\n  <variable name='v' kind='string' default='x'>\n"
     "    <default>y</default>\n  </variable>\n</device-model>",
     "m.xml:3: single variable 'v' takes its default as an attribute"},
    {"<device-model>\n  <variable name='v' kind='string' default='x'>text</variable>\n"
     "</device-model>",
     "m.xml:2: unexpected text in <variable>"},
    {"<device-model>\n  <claims others='root'/>\n  <node name='a'/>\n</device-model>",
     "m.xml:2: unknown role 'root' (roles: kUser, kAdmin, kSystem, kProvisioning, kStartup)"},
    {"<device-model>\n  <claims>\n    <uid id='7' max='kUser'/>\n    <uid id='7' max='kAdmin'/>\n"
     "  </claims>\n  <node name='a'/>\n</device-model>",
     "m.xml:4: uid 7 is listed twice"},
    {"<device-model>\n  <claims/>\n  <claims/>\n  <node name='a'/>\n</device-model>",
     "m.xml:3: <claims> may appear only once"},
};

INSTANTIATE_TEST_SUITE_P(Table, ModelLoaderRefuses, testing::ValuesIn(kBadModels));

TEST(ModelLoader, NestingDeeperThanAPathCanReachIsRefused) {
    std::string text = "<device-model>\n";
    for (size_t i = 0; i < kMaxPathDepth; ++i) {
        text += "<node name='n'>\n";
    }
    for (size_t i = 0; i < kMaxPathDepth; ++i) {
        text += "</node>";
    }
    text += "</device-model>\n";
    DeviceModel model;
    std::string error;
    EXPECT_FALSE(parseModel(text, "m.xml", &model, &error));
    EXPECT_EQ(error, "m.xml:17: nodes nest deeper than 15");
}

TEST(ModelLoader, MissingFileIsNamedInTheError) {
    DeviceModel model;
    std::string error;
    EXPECT_FALSE(loadModelFile("/nonexistent/model.xml", &model, &error));
    EXPECT_EQ(error, "/nonexistent/model.xml: cannot open: No such file or directory");
}

}  // namespace
}  // namespace configsrvc
