// Records: everything the service stores besides its model, as it is held in memory.
//
// Four kinds of record, each a map from a key to a list of strings:
//   kValue       instance key ("network[1]/interface[2]/mtu") -> the values, canonical
//   kOptions     instance key -> the index of the default option, then the options
//   kLevels      instance key -> read level, write level (role names; "" keeps the model's)
//   kAttributes  variable or node path ("network.interface.mtu") -> name, value, name, value...
//   kComponents  path of a component node ("video") -> "detached" (none: attached)
// A variable instance without a record of a kind is as the model declares it.
//
// RecordState keeps two views of them. `committed` is what reached the disk and is what clients
// read; `accepted` adds the changes handed to the disk but not yet back, and is what new changes
// are checked against, so that two changes in flight are never checked against a state that one
// of them already made stale. Both are for the serving thread only.
#ifndef CONFIGSRVC_RECORDS_H
#define CONFIGSRVC_RECORDS_H

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace configsrvc {

enum class RecordKind { kValue = 0, kOptions = 1, kLevels = 2, kAttributes = 3, kComponents = 4 };
constexpr int kRecordKinds = 5;

// One change to one record. `reset` removes it (the model's word holds again); otherwise
// `values` replace it.
struct StoredChange {
    RecordKind kind = RecordKind::kValue;
    std::string key;
    bool reset = false;
    std::vector<std::string> values;
};

// The changes of one request, once they are final: shared, never copied, by the request waiting
// for its answer, the records in flight and the committer's thread, which only read them.
using ChangeList = std::shared_ptr<const std::vector<StoredChange>>;

class Records {
  public:
    using Map = std::unordered_map<std::string, std::vector<std::string>>;

    Records() = default;
    virtual ~Records() = default;

    // The record of `kind` under `key`, or null when there is none.
    const std::vector<std::string>* find(RecordKind kind, const std::string& key) const {
        const Map& map = maps_[static_cast<int>(kind)];
        if (map.empty()) {  // the common case for overrides: no hashing at all
            return nullptr;
        }
        auto it = map.find(key);
        return it == map.end() ? nullptr : &it->second;
    }
    const Map& all(RecordKind kind) const { return maps_[static_cast<int>(kind)]; }
    void apply(const StoredChange& change);

  private:
    std::array<Map, kRecordKinds> maps_;
};

class RecordState {
  public:
    explicit RecordState(Records committed);
    virtual ~RecordState() = default;

    const Records& committed() const { return committed_; }
    const Records& accepted() const { return accepted_; }

    // `changes` (not null) were handed to the disk, after every batch accepted before them.
    void accept(ChangeList changes);
    void accept(const std::vector<StoredChange>& changes) {
        accept(std::make_shared<const std::vector<StoredChange>>(changes));
    }
    // The oldest accepted batch came back from the disk, stored or not.
    void finish(bool stored);

    // Whether `changes` would leave every record as it is, in what is committed and in what is
    // accepted alike: then nothing needs to reach the disk (or be told to anyone), and a write
    // of them may be answered at once. A record equal to it only while a change is on its way
    // to the disk does not count, since that change is not durable yet.
    bool changesNothing(const std::vector<StoredChange>& changes) const;

    // Changes to the value under `key` are numbered as they are accepted: the number of the
    // latest, 0 when none was accepted since the service started. Whoever compares two of
    // these learns whether someone changed the value in between.
    uint64_t valueVersion(const std::string& key) const {
        auto it = valueVersions_.find(key);
        return it == valueVersions_.end() ? 0 : it->second;
    }

  private:
    Records committed_;
    Records accepted_;
    std::deque<ChangeList> inFlight_;
    std::unordered_map<std::string, uint64_t> valueVersions_;
    uint64_t acceptedChanges_ = 0;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_RECORDS_H
