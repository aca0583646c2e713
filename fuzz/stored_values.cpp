// Feeds arbitrary column text to the decoder of stored value lists. Whatever it accepts must
// encode back to exactly the same text, so nothing read from a database is altered on the
// next write.
#include <string>
#include <vector>

#include "FuzzTarget.h"
#include "ValueStore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string encoded(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> values;
    if (configsrvc::decodeValues(encoded, &values)) {
        FUZZ_CHECK(configsrvc::encodeValues(values) == encoded);
    }
    return 0;
}
