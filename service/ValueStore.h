// ValueStore: the values that differ from their defaults, durable in SQLite and held in memory.
//
// The database is <state folder>/values.db. Every value in it is loaded into memory when the
// store opens, so reads never touch the disk. A change is first committed durably (commit(),
// on the committing thread) and only then applied to memory (apply(), on the serving thread),
// so no reader ever sees a value that a crash could still take back.
//
// A database that is damaged, belongs to another program or has a newer format is refused
// with a message and left exactly as it was. A folder already used by another running service
// is refused too. Stored values the model no longer declares, or that no longer fit it, stay
// in the database untouched and are reported as warnings; the variable reads its default.
#ifndef CONFIGSRVC_VALUE_STORE_H
#define CONFIGSRVC_VALUE_STORE_H

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "DeviceModel.h"

struct sqlite3;

namespace configsrvc {

// One change to a variable instance. `reset` removes the stored value, so the variable reads
// its default again; otherwise `values` (canonical, possibly empty for a list) replace it.
struct StoredChange {
    std::string key;
    bool reset = false;
    std::vector<std::string> values;
};

class ValueStore {
  public:
    // Opens (creating when absent) the store in `folder`, which is created when missing.
    // Messages about stored values that are ignored go to *warnings.
    static bool open(const std::string& folder, const DeviceModel& model,
                     std::unique_ptr<ValueStore>* store, std::vector<std::string>* warnings,
                     std::string* error);
    virtual ~ValueStore();

    ValueStore(const ValueStore&) = delete;
    ValueStore& operator=(const ValueStore&) = delete;

    // Memory side, for the serving thread only. find() gives null for a variable that reads
    // its default.
    const std::vector<std::string>* find(const std::string& key) const;
    void apply(const StoredChange& change);

    // Disk side: writes every change in one transaction and waits until it is on disk. Only
    // one thread at a time may commit. On failure nothing of the batch is stored.
    bool commit(const std::vector<const StoredChange*>& changes, std::string* error);

    const std::string& databasePath() const { return path_; }

  private:
    ValueStore() = default;

    bool lockFolder(const std::string& folder, std::string* error);
    bool openDatabase(std::string* error);
    bool checkExisting(bool* isEmpty, std::string* error);
    bool createSchema(std::string* error);
    bool loadValues(const DeviceModel& model, std::vector<std::string>* warnings,
                    std::string* error);
    bool exec(const char* sql, std::string* error);

    std::string path_;
    int lockFd_ = -1;
    sqlite3* db_ = nullptr;
    std::unordered_map<std::string, std::vector<std::string>> values_;
};

// How a list of values is kept in one database column: each value as its byte length in
// decimal, ':' and the bytes ("3:abc1:x"); no values is the empty string.
std::string encodeValues(const std::vector<std::string>& values);
bool decodeValues(const std::string& encoded, std::vector<std::string>* values);

}  // namespace configsrvc

#endif  // CONFIGSRVC_VALUE_STORE_H
