#include "Records.h"

namespace configsrvc {

void Records::apply(const StoredChange& change) {
    Map& map = maps_[static_cast<int>(change.kind)];
    if (change.reset) {
        map.erase(change.key);
    } else {
        map[change.key] = change.values;
    }
}

namespace {

bool holds(const Records& records, const StoredChange& change) {
    const std::vector<std::string>* stored = records.find(change.kind, change.key);
    return change.reset ? stored == nullptr : stored != nullptr && *stored == change.values;
}

}  // namespace

RecordState::RecordState(Records committed)
    : committed_(std::move(committed)), accepted_(committed_) {}

void RecordState::accept(ChangeList changes) {
    for (const StoredChange& change : *changes) {
        accepted_.apply(change);
        if (change.kind == RecordKind::kValue) {
            valueVersions_[change.key] = ++acceptedChanges_;
        }
    }
    inFlight_.push_back(std::move(changes));
}

bool RecordState::changesNothing(const std::vector<StoredChange>& changes) const {
    for (const StoredChange& change : changes) {
        if (!holds(committed_, change) || !holds(accepted_, change)) {
            return false;
        }
    }
    return true;
}

void RecordState::finish(bool stored) {
    if (inFlight_.empty()) {
        return;
    }
    if (stored) {
        for (const StoredChange& change : *inFlight_.front()) {
            committed_.apply(change);
        }
        inFlight_.pop_front();
        return;
    }
    // Rare (the disk failed): rebuild what is accepted from what is stored and what is still
    // on its way, so the failed batch leaves no trace.
    inFlight_.pop_front();
    accepted_ = committed_;
    for (const ChangeList& batch : inFlight_) {
        for (const StoredChange& change : *batch) {
            accepted_.apply(change);
        }
    }
}

}  // namespace configsrvc
