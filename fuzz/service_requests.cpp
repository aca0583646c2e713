// Feeds arbitrary request payloads to the service's read and write handling.
//
// Input: byte 0 chooses the request (even: ReadReq, odd: WriteReq) and the sender (bit 1:
// a privileged uid, else an ordinary one); the rest is the payload as it came off the wire.
// Whatever arrives, the answer must be a complete message whose error is a member of
// eErrorType, and an accepted write must apply to memory without harm.
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ConfigService.h"
#include "FuzzTarget.h"
#include "ModelLoader.h"

namespace {

using namespace configsrvc;

constexpr uid_t kServiceUid = 990;
constexpr uid_t kOrdinaryUid = 4321;

struct Fixture {
    DeviceModel model;
    std::unique_ptr<ValueStore> store;
    std::unique_ptr<ConfigService> service;
};

// Built once: the example model and an empty store in a private folder.
Fixture& fixture() {
    static Fixture* instance = [] {
        auto* built = new Fixture;
        std::string error;
        std::vector<std::string> warnings;
        char folder[] = "/tmp/fuzz-service-XXXXXX";
        FUZZ_CHECK(mkdtemp(folder) != nullptr);
        FUZZ_CHECK(loadModelFile(EXAMPLE_MODEL, &built->model, &error));
        FUZZ_CHECK(ValueStore::open(folder, built->model, &built->store, &warnings, &error));
        built->service = std::make_unique<ConfigService>(built->model, *built->store, kServiceUid);
        return built;
    }();
    return *instance;
}

void fuzzRead(const uint8_t* payload, size_t size, uid_t sender) {
    ConfigIF::ReadRsp response;
    fixture().service->read(payload, size, sender, &response);
    FUZZ_CHECK(response.IsInitialized());
    FUZZ_CHECK(CommonIF::eErrorType_IsValid(response.error()));
    if (response.error() != CommonIF::kErrNoError) {
        FUZZ_CHECK(response.value_size() == 0);
    }
}

void fuzzWrite(const uint8_t* payload, size_t size, uid_t sender) {
    Fixture& f = fixture();
    ConfigIF::WriteRsp response;
    PendingWrite pending;
    if (f.service->checkWrite(payload, size, sender, &pending, &response)) {
        // Only memory is changed here: the disk side is exercised by the store's own tests.
        f.store->apply(pending.change);
        FinishedWrite finished{pending, true, ""};
        ConfigService::answerCommitted(finished, &response);
        FUZZ_CHECK(response.ret_message().error() == CommonIF::kErrNoError);
    } else {
        FUZZ_CHECK(response.ret_message().error() != CommonIF::kErrNoError);
    }
    FUZZ_CHECK(response.IsInitialized());
    FUZZ_CHECK(CommonIF::eErrorType_IsValid(response.ret_message().error()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uid_t sender = (data[0] & 2) != 0 ? kServiceUid : kOrdinaryUid;
    if ((data[0] & 1) == 0) {
        fuzzRead(data + 1, size - 1, sender);
    } else {
        fuzzWrite(data + 1, size - 1, sender);
    }
    return 0;
}
