// Feeds arbitrary request payloads to every request the service answers.
//
// Input: byte 0 chooses the request and the sender: bit 1 a privileged uid, else an ordinary
// one; bits 2 to 7 the request, counted among those the service answers in the order of the
// protocol's list, where 0 means a ReadReq (bit 0 clear) or a WriteReq (bit 0 set). The rest is
// the payload as it came off the wire. Whatever arrives, the answer must be a complete message
// whose errors are members of eErrorType, and accepted changes must apply without harm. A batch
// read the service answers straight from its bytes must get exactly the bytes of the full
// answer.
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigService.h"
#include "FuzzTarget.h"
#include "ModelLoader.h"
#include "ValueStore.h"

namespace {

using namespace configsrvc;

constexpr uid_t kServiceUid = 990;
constexpr uid_t kOrdinaryUid = 4321;

struct Fixture {
    DeviceModel model;
    std::unique_ptr<ValueStore> store;
    std::unique_ptr<RecordState> state;
    std::unique_ptr<ConfigService> service;
    std::vector<uint32_t> requests;  // the ids the service answers
};

// Built once: the example model and an empty store in a private folder.
Fixture& fixture() {
    static Fixture* instance = [] {
        auto* built = new Fixture;
        std::string error;
        std::vector<std::string> warnings;
        Records records;
        char folder[] = "/tmp/fuzz-service-XXXXXX";
        FUZZ_CHECK(mkdtemp(folder) != nullptr);
        FUZZ_CHECK(loadModelFile(EXAMPLE_MODEL, &built->model, &error));
        FUZZ_CHECK(
            ValueStore::open(folder, built->model, &built->store, &records, &warnings, &error));
        built->state = std::make_unique<RecordState>(std::move(records));
        built->service = std::make_unique<ConfigService>(built->model, *built->state, kServiceUid);
        for (const ConfigProtocol::MessageType& type : ConfigProtocol::kMessageTypes) {
            if (ConfigService::serves(type.id)) {
                built->requests.push_back(type.id);
            }
        }
        return built;
    }();
    return *instance;
}

// Every error of the answer, at any depth, must be a member of eErrorType: a value outside it
// would make the client's parse fail.
void checkErrors(const google::protobuf::Message& message) {
    const google::protobuf::Reflection* fields = message.GetReflection();
    std::vector<const google::protobuf::FieldDescriptor*> set;
    fields->ListFields(message, &set);
    for (const google::protobuf::FieldDescriptor* field : set) {
        if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) {
            const int count = field->is_repeated() ? fields->FieldSize(message, field) : 1;
            for (int i = 0; i < count; ++i) {
                checkErrors(field->is_repeated() ? fields->GetRepeatedMessage(message, field, i)
                                                 : fields->GetMessage(message, field));
            }
        } else if (field->name() == "error") {
            FUZZ_CHECK(CommonIF::eErrorType_IsValid(fields->GetEnumValue(message, field)));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    Fixture& f = fixture();
    const uid_t sender = (data[0] & 2) != 0 ? kServiceUid : kOrdinaryUid;
    const size_t choice = data[0] >> 2;
    const uint32_t request = choice == 0 ? ((data[0] & 1) != 0 ? ConfigProtocol::kWriteReqMsgId
                                                               : ConfigProtocol::kReadReqMsgId)
                                         : f.requests[choice % f.requests.size()];
    google::protobuf::Arena arena;
    Answer answer;
    f.service->handle(request, data + 1, size - 1, sender, &arena, &answer);
    if (ConfigService::isBareCommand(request)) {
        // Obeyed or refused, never answered.
        FUZZ_CHECK(answer.msgId == 0 && answer.message == nullptr);
    } else {
        FUZZ_CHECK(answer.msgId == ConfigProtocol::responseIdOf(request));
        FUZZ_CHECK(answer.message != nullptr && answer.message->IsInitialized());
        checkErrors(*answer.message);
    }
    Answer fromWire;
    std::string encoded;
    if (f.service->answerReadFromWire(request, data + 1, size - 1, Sender{sender}, &encoded,
                                      &fromWire)) {
        FUZZ_CHECK(encoded == answer.message->SerializeAsString());
        FUZZ_CHECK(fromWire.msgId == answer.msgId && fromWire.requester == answer.requester);
        FUZZ_CHECK(answer.refusals.empty());
    }
    if (!answer.changes.empty()) {
        // Only memory is changed here: the disk side is exercised by the store's own tests.
        f.state->accept(answer.changes);
        f.state->finish(true);
    }
    return 0;
}
