// ConfigService: what each request of the protocol means, from its payload to its answer.
//
// The meaning of every request is documented in service/PROTOCOL.md; this header gives the
// contract of the class that implements it.
//
// Every request goes through the same steps, and the first that fails gives the answer:
//   1. the payload parses as the request and has every required field  -> kErrBadParameter
//   2. the claimed role is one the sender may claim (by its kernel uid)  -> kErrNotAuthorized
//   3. the request's own checks (paths, levels, values, bounds)
// A refusal carries its reason on the wire where the response has room for one (a
// ReturnMessage); every reason also goes to Answer::refusals for the log.
//
// Reads are answered from the committed records. Changes are checked against the accepted ones
// (committed plus in flight) and come back as Answer::changes: the caller stores them in one
// transaction and sends the answer only then (or, when storing failed, the answer that
// answerUnstored() makes of it).
#ifndef CONFIGSRVC_CONFIG_SERVICE_H
#define CONFIGSRVC_CONFIG_SERVICE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/arena.h>

#include "Callbacks.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "DeviceModel.h"
#include "Profiles.h"
#include "Records.h"
#include "Submissions.h"

namespace configsrvc {

// Largest request payload looked at; anything larger is refused before parsing.
constexpr size_t kMaxRequestBytes = 2 * 1024 * 1024;
// Most instances one batch request may name; more is refused as a whole.
constexpr int kMaxBatchInstances = 1024;

// What resolving an instance takes, kept across the items of a batch so that they reuse it.
struct Lookup {
    std::vector<PathStep> path;
    ResolvedVariable found;
};

// Who sent a request.
struct Sender {
    uid_t uid = 0;                       // its kernel uid
    uint32_t connection = 0;             // the connection it came on; 0: none, so no submission
    Submissions* submissions = nullptr;  // the open submissions, kept by whoever serves
    Callbacks* callbacks = nullptr;      // the registered callbacks, kept by whoever serves
    uint64_t changeIndex = 0;            // where the change log ends now: a new registration's
                                         // first change
};

// What one request comes to.
struct Answer {
    uint32_t msgId = 0;                            // the response's message id
    google::protobuf::Message* message = nullptr;  // the response, on the arena of handle()
    std::vector<StoredChange> changes;  // to store, all or nothing, before the response is sent
    std::vector<std::string> refusals;  // why the request, or items of it, were refused
    std::string requester;              // the name the request gave (printable), or
    bool checkpoint = false;            // once the changes are stored, checkpoint the database
    CommonIF::eSecurityRole role = CommonIF::kUser;  // the role the request claimed
    // What a validation would change, for the validators to be asked (nothing is stored).
    std::vector<StoredChange> proposed;
    // For the end of a submission: its scope, a serialised ConfigIF::Inst ("" otherwise).
    std::string submitScope;
};

class ConfigService {
  public:
    // `profiles` (may be null: then no profiles are kept) is the folder profiles live in; it
    // must outlive the service.
    ConfigService(const DeviceModel& model, const RecordState& state, uid_t serviceUid,
                  const ProfileFolder* profiles = nullptr);
    virtual ~ConfigService();

    // Whether `requestId` is a request of the protocol, which this service answers: those it
    // does not carry out with kErrNotYetSupported.
    static bool serves(uint32_t requestId);

    // Whether `requestId` is a bare command: one without a name, a role or a response
    // (FlushAllCmd, ClearConfigCmd). handle() then leaves answer->message null and answer->msgId
    // 0, and obeys only senders whose uid may claim every role.
    static bool isBareCommand(uint32_t requestId);

    // Answers the request of id `requestId` (one that serves() accepts) from a sender running
    // as `senderUid`; always fills a complete response in *answer. The request and the response
    // are made on `arena`, which must outlive the use of answer->message: a batch of a thousand
    // items is then a few bump allocations rather than thousands of mallocs.
    // Writes and submissions of a connection with an open submission change only that
    // submission (sender.submissions); nothing else is changed here.
    void handle(uint32_t requestId, const void* payload, size_t bytes, const Sender& sender,
                google::protobuf::Arena* arena, Answer* answer) const;
    // The same for a sender on no connection (no submissions).
    void handle(uint32_t requestId, const void* payload, size_t bytes, uid_t senderUid,
                google::protobuf::Arena* arena, Answer* answer) const {
        handle(requestId, payload, bytes, Sender{senderUid}, arena, answer);
    }

    // Answers a ReadReq or BatchReadReq (`requestId`) in the plain form clients send (see
    // BatchReadWire.cpp) without building messages: on true, *encoded holds the response's
    // bytes, exactly those that handle() would answer, and *answer its id and requester
    // (answer->message stays null; a read it takes refuses nothing). False for any other
    // request, when the request is not in that form, refuses something, or comes from a
    // connection with an open submission: then handle() must answer it. *encoded is reused from
    // call to call.
    bool answerReadFromWire(uint32_t requestId, const void* payload, size_t bytes,
                            const Sender& sender, std::string* encoded, Answer* answer) const;

    // Turns the answer to a change into the answer for when storing it failed with `error`.
    static void answerUnstored(const std::string& error, google::protobuf::Message* response);

    // Whether a sender running as `senderUid` may claim `role`, else the reason.
    bool mayClaim(CommonIF::eSecurityRole role, uid_t senderUid, std::string* reason) const {
        return checkClaim(role, senderUid, reason) == CommonIF::kErrNoError;
    }

    const DeviceModel& model() const { return model_; }
    const RecordState& state() const { return state_; }

  private:
    struct Command;
    static const Command kCommands[];
    template <typename Request, typename Response,
              void (ConfigService::*Handle)(const Request&, const Sender&, Response*, Answer*)
                  const>
    static void adapt(const ConfigService& service, const google::protobuf::Message& request,
                      const Sender& sender, google::protobuf::Message* response, Answer* answer);

    // kNotEnabled, with the reason, when one of `components` is detached in `records`.
    CommonIF::eErrorType notEnabled(const std::vector<std::string>& components,
                                    const Records& records, std::string* reason) const;
    // Resolves `path` to a variable that is served now: kErrItemNotFound when the model has
    // none there, kNotEnabled when it lies in a detached component; the reason in *reason.
    CommonIF::eErrorType lookUp(const std::vector<PathStep>& path, const Records& records,
                                ResolvedVariable* found, std::string* reason) const;
    // Looks up a node or variable by its path of names ("" is the root) that is served now, as
    // lookUp() does for instances.
    CommonIF::eErrorType lookUpNamed(const std::string& path, const NodeDef** node,
                                     const VariableDef** variable, std::string* reason) const;
    // The same, with the reason of a refusal in answer->refusals.
    CommonIF::eErrorType findNamed(const std::string& path, const NodeDef** node,
                                   const VariableDef** variable, Answer* answer) const;
    // Resolves `instance`, as lookUp() does; the reason of a refusal goes to answer->refusals.
    CommonIF::eErrorType resolve(const ConfigIF::Inst& instance, ResolvedVariable* found,
                                 Answer* answer) const;
    CommonIF::eErrorType checkClaim(CommonIF::eSecurityRole role, uid_t senderUid,
                                    std::string* reason) const;
    // Reads one instance into *response; a refused item carries its reason in *reason.
    // lookup->found holds the instance's variable when it was found.
    // `staged` (may be null) is the requester's open submission, whose writes it sees.
    void readOne(const ConfigIF::Inst& instance, CommonIF::eSecurityRole role,
                 const Submission* staged, Lookup* lookup, ConfigIF::ReadRsp* response,
                 std::string* reason) const;
    // The submission open on the sender's connection, or null.
    static Submission* openSubmission(const Sender& sender);
    // Keeps a checked write in the sender's open submission when it lies in its scope; true
    // when it did (or refused it for a bound, answered in *message), false when the write is
    // to be stored as usual.
    bool stageWrite(const Sender& sender, const StagedWrite& write,
                    ConfigIF::ReturnMessage* message, Answer* answer) const;
    // A bare command (see isBareCommand()).
    void obeyCommand(uint32_t requestId, const void* payload, size_t bytes, const Sender& sender,
                     Answer* answer) const;
    CommonIF::eErrorType startSubmission(const ConfigIF::Inst& instance, const Sender& sender,
                                         std::string* reason) const;
    CommonIF::eErrorType endSubmission(const ConfigIF::Inst& instance, const Sender& sender,
                                       Answer* answer, std::string* reason) const;
    CommonIF::eErrorType saveProfile(const std::string& name, CommonIF::eSecurityRole role,
                                     std::string* reason) const;
    CommonIF::eErrorType profileChanges(const std::string& name, CommonIF::eSecurityRole role,
                                        Answer* answer, std::string* reason) const;
    CommonIF::eErrorType profileChange(const std::string& key,
                                       const std::vector<std::string>& values,
                                       CommonIF::eSecurityRole role, StoredChange* change,
                                       std::string* reason) const;
    // Whether a staged write may still be stored as it is, else why not.
    bool stillAllowed(const StagedWrite& write, std::string* reason) const;
    // The checks of a write; fills *change and *reboot when it may go ahead.
    CommonIF::eErrorType checkWrite(const ConfigIF::InstValue& target, CommonIF::eSecurityRole role,
                                    bool overriding, uid_t senderUid, StoredChange* change,
                                    bool* reboot, std::string* reason) const;
    // Runs the checks of a write and answers them in *message; true with the change when it
    // may go ahead.
    bool answerWriteChecks(const ConfigIF::InstValue& target, CommonIF::eSecurityRole role,
                           bool overriding, uid_t senderUid, ConfigIF::ReturnMessage* message,
                           Answer* answer, StoredChange* change) const;
    // Whether *role reaches `level` to act on `what`, else the reason.
    bool reaches(CommonIF::eSecurityRole role, CommonIF::eSecurityRole level, const char* act,
                 const std::string& what, std::string* reason) const;
    // The options and levels parts of a value-options-access answer.
    void fillOptions(const VariableDef& variable, ConfigIF::GetAttributeOptionsRsp* response) const;
    void fillValueOptionsAccess(const ConfigIF::Inst& instance, CommonIF::eSecurityRole role,
                                const Submission* staged, Lookup* lookup,
                                ConfigIF::ValueOptionsAccess* item, Answer* answer) const;
    // Whether every stored value and default of `variable`'s instances fits `candidate` (the
    // variable with other attributes), else the reason.
    bool storedValuesFit(const VariableDef& variable, const VariableDef& candidate,
                         std::string* reason) const;
    // The node or variable whose attributes `role` would change at `path`: looked up as
    // lookUpNamed() does, and kErrNotAuthorized when `role` may not change them.
    CommonIF::eErrorType attributeTarget(const std::string& path, CommonIF::eSecurityRole role,
                                         const NodeDef** node, const VariableDef** variable,
                                         std::string* reason) const;
    bool mayChangeAttributes(CommonIF::eSecurityRole role, const VariableDef* variable,
                             const std::string& path, std::string* reason) const;

    // One handler per request; each fills its response and, for changes, answer->changes.
    void read(const ConfigIF::ReadReq&, const Sender&, ConfigIF::ReadRsp*, Answer*) const;
    void batchRead(const ConfigIF::BatchReadReq&, const Sender&, ConfigIF::BatchReadRsp*,
                   Answer*) const;
    void write(const ConfigIF::WriteReq&, const Sender&, ConfigIF::WriteRsp*, Answer*) const;
    void validate(const ConfigIF::ValidateReq&, const Sender&, ConfigIF::ValidateRsp*,
                  Answer*) const;
    void getAttribute(const ConfigIF::GetAttributeReq&, const Sender&, ConfigIF::GetAttributeRsp*,
                      Answer*) const;
    void setAttribute(const ConfigIF::SetAttributeReq&, const Sender&, ConfigIF::SetAttributeRsp*,
                      Answer*) const;
    void resetAttribute(const ConfigIF::ResetAttributeReq&, const Sender&,
                        ConfigIF::ResetAttributeRsp*, Answer*) const;
    void readAttributes(const ConfigIF::ReadAttributesReq&, const Sender&,
                        ConfigIF::ReadAttributesRsp*, Answer*) const;
    void getOptions(const ConfigIF::GetAttributeOptionsReq&, const Sender&,
                    ConfigIF::GetAttributeOptionsRsp*, Answer*) const;
    void getDefaultOptions(const ConfigIF::GetDefaultOptionsReq&, const Sender&,
                           ConfigIF::GetDefaultOptionsRsp*, Answer*) const;
    void setOptions(const ConfigIF::SetAttributeOptionsReq&, const Sender&,
                    ConfigIF::SetAttributeOptionsRsp*, Answer*) const;
    void getLevels(const ConfigIF::GetAccessLevelsReq&, const Sender&,
                   ConfigIF::GetAccessLevelsRsp*, Answer*) const;
    void setLevels(const ConfigIF::SetAccessLevelsReq&, const Sender&,
                   ConfigIF::SetAccessLevelsRsp*, Answer*) const;
    void getValueOptionsAccess(const ConfigIF::GetValueOptionsAccessReq&, const Sender&,
                               ConfigIF::GetValueOptionsAccessRsp*, Answer*) const;
    void batchGetValueOptionsAccess(const ConfigIF::BatchGetValueOptionsAccessReq&, const Sender&,
                                    ConfigIF::BatchGetValueOptionsAccessRsp*, Answer*) const;
    void submit(const ConfigIF::SubmitReq&, const Sender&, ConfigIF::SubmitRsp*, Answer*) const;
    void componentChange(const ConfigIF::ComponentChangeReq&, const Sender&,
                         ConfigIF::ComponentChangeRsp*, Answer*) const;
    void createProfile(const ConfigIF::CreateProfileReq&, const Sender&,
                       ConfigIF::CreateProfileRsp*, Answer*) const;
    void applyProfile(const ConfigIF::ApplyProfileReq&, const Sender&, ConfigIF::ApplyProfileRsp*,
                      Answer*) const;
    void resetValue(const ConfigIF::ResetValueReq&, const Sender&, ConfigIF::ResetValueRsp*,
                    Answer*) const;
    void resetNodeValue(const ConfigIF::ResetNodeValueReq&, const Sender&,
                        ConfigIF::ResetNodeValueRsp*, Answer*) const;
    void registerCallback(const ConfigIF::RegisterClientCallbackReq&, const Sender&,
                          ConfigIF::RegisterClientCallbackRsp*, Answer*) const;
    void unregisterCallback(const ConfigIF::UnregisterClientCallbackReq&, const Sender&,
                            ConfigIF::UnregisterClientCallbackRsp*, Answer*) const;
    void unregisterAllCallbacks(const ConfigIF::UnregisterAllClientCallbacksReq&, const Sender&,
                                ConfigIF::UnregisterAllClientCallbacksRsp*, Answer*) const;
    // The registration a register or unregister request names, checked against the model and
    // the claimed role.
    CommonIF::eErrorType callbackOf(const std::string& name, CommonIF::eSecurityRole role,
                                    const std::string& path, int32_t instance,
                                    ConfigIF::CallbackType type, const Sender& sender,
                                    Registration* registration, std::string* reason) const;

    const DeviceModel& model_;
    const RecordState& state_;
    uid_t serviceUid_;
    const ProfileFolder* profiles_;
};

// `text` cut to `maxBytes` with every byte outside printable ASCII as '?': what a client sent
// can then go into a reason or the log without forging lines or terminal controls.
std::string printable(const std::string& text, size_t maxBytes);

// Reasons for a refusal name the path as the client sent it: "network/interface 2/mtu", cut
// to stay readable and printable whatever the client sent.
std::string describePath(const ConfigIF::Inst& instance);

// "no variable 'PATH' in the model".
std::string noVariable(const ConfigIF::Inst& instance);

// "no node or variable 'PATH' in the model", for a path of names joined by '.'.
std::string noNode(const std::string& path);

// Whether a batch of `count` instances is beyond kMaxBatchInstances; records the refusal if so.
bool batchTooLarge(int count, Answer* answer);

// The path of an instance as the model resolves it, in *path; the names are views of the
// instance's.
void pathOf(const ConfigIF::Inst& instance, std::vector<PathStep>* path);
std::vector<PathStep> pathOf(const ConfigIF::Inst& instance);

// Sets the error of any response of the protocol (its `error`, or its ret_message's error with
// `reason` as an error_message) and gives its other required fields empty values, so that it
// always serialises.
void setError(CommonIF::eErrorType error, const std::string& reason,
              google::protobuf::Message* response);

}  // namespace configsrvc

#endif  // CONFIGSRVC_CONFIG_SERVICE_H
