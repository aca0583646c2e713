#include "Serving.h"

#include "ModelLoader.h"

namespace configsrvc {

std::unique_ptr<Serving> Serving::open(std::shared_ptr<const DeviceModel> model,
                                       const ServingSettings& settings,
                                       std::vector<std::string>* warnings, std::string* error) {
    std::unique_ptr<Serving> serving(new Serving());
    serving->model_ = std::move(model);
    Records records;
    if (!ValueStore::open(settings.stateFolder, *serving->model_, &serving->store_, &records,
                          warnings, error)) {
        return nullptr;
    }
    serving->databasePath_ = serving->store_->databasePath();
    serving->state_ = std::make_unique<RecordState>(std::move(records));
    serving->committer_ =
        std::make_unique<Committer>(serving->store_.get(), settings.maxPendingWrites);
    if (!serving->committer_->start(error)) {
        return nullptr;
    }
    if (!ProfileFolder::open(settings.stateFolder + "/profiles", &serving->profiles_, error)) {
        return nullptr;
    }
    serving->service_ = std::make_unique<ConfigService>(
        *serving->model_, *serving->state_, settings.serviceUid, serving->profiles_.get());
    return serving;
}

Serving::~Serving() = default;

void Serving::closeStore() {
    committer_->stop();
    store_.reset();
}

ReloadResult reloadModel(const std::string& modelPath, const ServingSettings& settings,
                         std::unique_ptr<Serving>* serving, std::unique_ptr<Serving>* previous,
                         std::vector<std::string>* warnings, std::string* error) {
    auto model = std::make_shared<DeviceModel>();
    if (!loadModelFile(modelPath, model.get(), error)) {
        return ReloadResult::kKept;
    }
    // The folder's lock admits one store at a time, even within a process.
    (*serving)->closeStore();
    *previous = std::move(*serving);
    *serving = Serving::open(model, settings, warnings, error);
    if (*serving != nullptr) {
        return ReloadResult::kReloaded;
    }
    // The disk, not the model, failed; the model from before may still be served.
    warnings->clear();
    std::string again;
    *serving = Serving::open((*previous)->model(), settings, warnings, &again);
    if (*serving != nullptr) {
        return ReloadResult::kOldReopened;
    }
    if (again != *error) {
        *error += "; for the model from before: " + again;
    }
    return ReloadResult::kFailed;
}

}  // namespace configsrvc
