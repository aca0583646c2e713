// Feeds arbitrary text to the device model parser: it must either accept it or refuse it
// with "file:line: reason", never crash or hang.
#include <string>

#include "FuzzTarget.h"
#include "ModelLoader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    configsrvc::DeviceModel model;
    std::string error;
    if (!configsrvc::parseModel(text, "fuzz.xml", &model, &error)) {
        FUZZ_CHECK(error.rfind("fuzz.xml:", 0) == 0);
    }
    return 0;
}
