#include "ModelLoader.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace configsrvc {
namespace {

TEST(ModelLoader, ExampleModelLoadsAndDefaultsAreKeptInCanonicalForm) {
    DeviceModel example, model;
    std::string error;
    EXPECT_TRUE(loadModelFile(EXAMPLE_MODEL, &example, &error)) << error;
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

// The cases live in bad_models.txt: "== <expected error>" and then the model text.
TEST(ModelLoader, BadModelsAreRefusedWithFileLineAndReason) {
    std::vector<std::pair<std::string, std::string>> cases;  // error, text
    std::ifstream corpus(BAD_MODELS);
    for (std::string line; std::getline(corpus, line);) {
        if (line.rfind("== ", 0) == 0) {
            cases.emplace_back(line.substr(3), "");
        } else if (!cases.empty()) {
            cases.back().second += line + "\n";
        }
    }
    ASSERT_GE(cases.size(), 32u) << "cannot read " BAD_MODELS;
    for (const auto& [expected, text] : cases) {
        DeviceModel model;
        std::string error;
        EXPECT_FALSE(parseModel(text, "m.xml", &model, &error)) << text;
        EXPECT_EQ(error, expected) << text;
    }
    // Files that cannot be a model; an endless one is refused without being read whole.
    const std::pair<const char*, const char*> unreadable[] = {
        {"/nonexistent/model.xml",
         "/nonexistent/model.xml: cannot open: No such file or directory"},
        {"/", "/: cannot read: Is a directory"},
        {"/dev/zero", "/dev/zero: larger than 4194304 bytes"},
    };
    for (const auto& [path, expected] : unreadable) {
        DeviceModel model;
        std::string error;
        EXPECT_FALSE(loadModelFile(path, &model, &error));
        EXPECT_EQ(error, expected);
    }
}

}  // namespace
}  // namespace configsrvc
