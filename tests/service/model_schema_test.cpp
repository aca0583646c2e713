// The model schema shipped with the service, checked with xmllint against the loader: every model
// the loader takes, the schema takes; every model the loader refuses for its form (bad_models.txt)
// the schema refuses too, except for what needs more than one place of a file to be seen.
#include <gtest/gtest.h>

#include <string>

#include "CaseFile.h"
#include "ModelLoader.h"
#include "Process.h"
#include "ServiceProcess.h"
#include "TempDir.h"

namespace configsrvc {
namespace {

// Refusals that compare two places of a file, or a value with its variable: left to the loader.
const char* const kBeyondTheSchema[] = {"is declared twice", "is listed twice", " is above max ",
                                        "default does not fit", "nest deeper"};

// Whether the schema validates the model in `file`. xmllint ends with 0 for a valid file, 1 for
// one that is not XML and 3 for one that does not validate; anything else is a broken schema or
// a missing xmllint.
bool schemaTakes(const std::string& file) {
    const testsupport::Outcome run =
        testsupport::runProgram(XMLLINT, {"xmllint", "--noout", "--relaxng", MODEL_SCHEMA, file});
    EXPECT_TRUE(run.status == 0 || run.status == 1 || run.status == 3)
        << "xmllint (" XMLLINT ") ended with " << run.status << " (scripts/bootstrap installs it)\n"
        << run.err;
    return run.status == 0;
}

// A model text, as a file and through the loader.
struct Checked {
    bool schema;
    bool loader;
};

Checked check(const std::string& text) {
    testsupport::TempDir dir("model-schema");
    const std::string file = dir.file("m.xml");
    EXPECT_TRUE(testsupport::writeFile(file, text));
    DeviceModel model;
    std::string error;
    return {schemaTakes(file), parseModel(text, "m.xml", &model, &error)};
}

TEST(ModelSchema, TakesTheExampleAndEveryFormTheLoaderTakes) {
    EXPECT_TRUE(schemaTakes(testsupport::kExampleModel));
    const char* const kGood[] = {
        "<device-model><variable name='v' kind='boolean' default='yes' list='false'/>"
        "</device-model>",
        "<device-model name='m' description='d'><node name='n' instances='1000' read='kAdmin'"
        " write='kStartup' description='x'><node name='_n-2'><variable name='v' kind='integer'"
        " min='-9223372036854775808' max='9223372036854775807' default='0' reboot='true'/>"
        "</node></node><claims others='kUser'><uid id='4294967294' max='kSystem'/></claims>"
        "</device-model>",
        "<device-model><variable name='l' kind='option' list='true' min-count='0'"
        " max-count='256'><default>b</default><option>a</option><option>b</option>"
        "<default>a</default></variable><variable name='s' kind='string' max-length='4096'"
        " list='true'/></device-model>",
        "<device-model><!-- a comment --><variable name='o' kind='option' default='a'>"
        "<option>a</option></variable></device-model>",
        "<device-model><variable name='s' kind='string' default='a&#9;' max-length='9'"
        " control-characters='true'/></device-model>",
    };
    for (const char* text : kGood) {
        const Checked checked = check(text);
        EXPECT_TRUE(checked.loader) << text;
        EXPECT_TRUE(checked.schema) << text;
    }
}

TEST(ModelSchema, RefusesWhatTheLoaderRefusesForItsForm) {
    for (const testsupport::CaseBlock& bad : testsupport::readCaseFile(BAD_MODELS).blocks) {
        const std::string& reason = bad.head[0];
        bool beyond = false;
        for (const char* part : kBeyondTheSchema) {
            beyond = beyond || reason.find(part) != std::string::npos;
        }
        const Checked checked = check(bad.text(1));
        EXPECT_EQ(checked.schema, beyond) << bad.head.where << ": " << reason;
    }
}

}  // namespace
}  // namespace configsrvc
