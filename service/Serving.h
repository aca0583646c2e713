// Serving: everything requests are answered from, built together from a device model and a
// state folder: the model, the store with its records, the committer and the request handler.
//
// Start-up builds one; a reload builds another for the new model the same way, so stored records
// are checked against the new model exactly as at start-up: those that no longer fit stay in the
// database and are ignored with a warning, and those that fit again come back.
//
// Everything here belongs to the serving thread, except the committer's own thread.
#ifndef CONFIGSRVC_SERVING_H
#define CONFIGSRVC_SERVING_H

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Committer.h"
#include "ConfigService.h"
#include "DeviceModel.h"
#include "Records.h"
#include "ValueStore.h"

namespace configsrvc {

// What every Serving of a process shares.
struct ServingSettings {
    std::string stateFolder;      // where the store lives
    uid_t serviceUid = 0;         // the service's own user, which may claim every role
    size_t maxPendingWrites = 0;  // writes waiting for the disk beyond this are refused
};

class Serving {
  public:
    // Opens the store for `model`, loads its records and starts committing. Stored records that
    // the model ignores are described in *warnings. Null with *error when the store cannot be
    // opened or the committer cannot start.
    static std::unique_ptr<Serving> open(std::shared_ptr<const DeviceModel> model,
                                         const ServingSettings& settings,
                                         std::vector<std::string>* warnings, std::string* error);
    // Stops the committer (committing what was submitted), then closes the store.
    virtual ~Serving();

    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    // Commits what was submitted, stops the committer and closes the store, so that another
    // Serving may open the state folder. Call only while no write is in flight. The model,
    // records, handler and the stopped committer stay valid until destruction: a server may
    // still look at them, but they take no more writes.
    void closeStore();

    const std::shared_ptr<const DeviceModel>& model() const { return model_; }
    const ConfigService& service() const { return *service_; }
    RecordState* state() { return state_.get(); }
    Committer* committer() { return committer_.get(); }
    const std::string& databasePath() const { return databasePath_; }
    // The store's latest commit number; call before anything is submitted.
    uint64_t lastCommit() const { return store_->lastCommit(); }

  private:
    Serving() = default;

    // Destroyed in reverse: the handler, then the committer (whose thread uses the store), the
    // records, the store, and last the model that everything else refers to.
    std::shared_ptr<const DeviceModel> model_;
    std::unique_ptr<ValueStore> store_;
    std::unique_ptr<RecordState> state_;
    std::unique_ptr<Committer> committer_;
    std::unique_ptr<ProfileFolder> profiles_;  // <state folder>/profiles
    std::unique_ptr<ConfigService> service_;
    std::string databasePath_;
};

// How a reload ended.
enum class ReloadResult {
    kReloaded,     // *serving is new, for the new model
    kKept,         // the new model was refused: *serving is the one from before, untouched
    kOldReopened,  // the store could not be opened for the new model: *serving is new, for the
                   // model from before
    kFailed,       // the store could not be opened at all: *serving's store is closed
};

// Reloads the model file at `modelPath` in place of (*serving)'s model. The file is checked
// first; when it is refused nothing changes. Otherwise (*serving)'s store is closed (no write may
// be in flight) and opened again for the new model, or failing that for the model from before.
// Why anything failed is in *error; stored records the model now in use ignores are described in
// *warnings. When the result is not kKept, the Serving from before is handed over in *previous
// (its store closed), for its users to let go of before it is destroyed.
ReloadResult reloadModel(const std::string& modelPath, const ServingSettings& settings,
                         std::unique_ptr<Serving>* serving, std::unique_ptr<Serving>* previous,
                         std::vector<std::string>* warnings, std::string* error);

}  // namespace configsrvc

#endif  // CONFIGSRVC_SERVING_H
