// ConfigService: what a read or a write request means, from its payload to its answer.
//
// Checks, in this order, and the answer each gives when it fails:
//   1. the payload parses as the request and has every required field  -> kErrBadParameter
//   2. the claimed role is one the sender may claim (by its kernel uid)  -> kErrNotAuthorized
//   3. the path names a variable instance of the model                   -> kErrItemNotFound
//   4. the role reaches the variable's read or write level               -> kErrNotAuthorized
//   5. for writes, the values fit the variable                           -> kErrBadParameter
// Writes carry a human-readable reason in ret_message.error_message; a ReadRsp has no room
// for one.
//
// Meaning of a write:
//   - A single variable takes exactly one value. A write with no values resets it to its
//     default (this is how a client without a reset request restores a default).
//   - A list variable takes between its min-count and max-count values; no values is the
//     empty list, which is a value like any other.
//   - Values are kept in canonical form: integers in plain decimal, booleans as true/false.
//   - A value equal to the default is not stored: the variable reads as default again.
//   - override_security skips the variable's level check, and is honoured only for senders
//     who may claim every role; anyone else asking for it is refused with kErrNotAuthorized.
//   - A successful write of a variable that needs a reboot sets reboot_required.
//
// The service keeps one set of values: every scope of Inst addresses the same one.
#ifndef CONFIGSRVC_CONFIG_SERVICE_H
#define CONFIGSRVC_CONFIG_SERVICE_H

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "Committer.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "DeviceModel.h"
#include "ValueStore.h"

namespace configsrvc {

// Largest request payload looked at; anything larger is refused before parsing.
constexpr size_t kMaxRequestBytes = 2 * 1024 * 1024;

class ConfigService {
  public:
    ConfigService(const DeviceModel& model, const ValueStore& store, uid_t serviceUid);
    virtual ~ConfigService();

    // Answers a ReadReq payload from `senderUid`; always fills a complete ReadRsp.
    void read(const void* payload, size_t bytes, uid_t senderUid,
              ConfigIF::ReadRsp* response) const;

    // Checks a WriteReq payload from `senderUid`. When the write may go ahead returns true with
    // the change and its reboot flag in *write (whose reply address the caller sets);
    // otherwise returns false with the refusal in *response.
    bool checkWrite(const void* payload, size_t bytes, uid_t senderUid, PendingWrite* write,
                    ConfigIF::WriteRsp* response) const;

    // The answer to a write once it was committed (or failed to be).
    static void answerCommitted(const FinishedWrite& finished, ConfigIF::WriteRsp* response);

  private:
    CommonIF::eErrorType checkClaim(CommonIF::eSecurityRole role, uid_t senderUid,
                                    std::string* reason) const;

    const DeviceModel& model_;
    const ValueStore& store_;
    uid_t serviceUid_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_CONFIG_SERVICE_H
