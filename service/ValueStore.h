// ValueStore: the records of Records.h made durable in SQLite.
//
// The database is <state folder>/values.db: values in the table `setting`, every other kind of
// record in `override`. Every record is loaded into memory when the store opens, so requests
// never touch the disk. A change is first committed durably (commit(), on the committing
// thread) and only then applied to the records that are served (RecordState, on the serving
// thread), so no reader ever sees a change that a crash could still take back.
//
// A database that is damaged, belongs to another program or has a newer format is refused
// with a message and left exactly as it was; one of the older format (values only) gains the
// `override` table. A folder already used by another running service is refused too. Stored
// records the model no longer declares, or that no longer fit it, stay in the database
// untouched and are reported as warnings; what they changed reads as the model says.
#ifndef CONFIGSRVC_VALUE_STORE_H
#define CONFIGSRVC_VALUE_STORE_H

#include <memory>
#include <string>
#include <vector>

#include "DeviceModel.h"
#include "Records.h"

struct sqlite3;

namespace configsrvc {

class ValueStore {
  public:
    // Opens (creating when absent) the store in `folder`, which is created when missing, and
    // loads what it holds into *records. Messages about stored records that are ignored go to
    // *warnings.
    static bool open(const std::string& folder, const DeviceModel& model,
                     std::unique_ptr<ValueStore>* store, Records* records,
                     std::vector<std::string>* warnings, std::string* error);
    virtual ~ValueStore();

    ValueStore(const ValueStore&) = delete;
    ValueStore& operator=(const ValueStore&) = delete;

    // Disk side: writes every change in one transaction and waits until it is on disk. Only
    // one thread at a time may commit. On failure nothing of the batch is stored.
    bool commit(const std::vector<const StoredChange*>& changes, std::string* error);

    // Disk side: carries every committed change from the write-ahead log into the database
    // file itself (which then holds everything on its own), and empties the log.
    bool checkpoint(std::string* error);

    const std::string& databasePath() const { return path_; }

  private:
    ValueStore() = default;

    bool lockFolder(const std::string& folder, std::string* error);
    bool openDatabase(std::string* error);
    bool checkExisting(bool* isEmpty, long long* version, std::string* error);
    bool createSchema(bool isEmpty, std::string* error);
    bool loadRows(const char* sql, std::vector<StoredChange>* rows, std::string* error);
    bool load(const DeviceModel& model, Records* records, std::vector<std::string>* warnings,
              std::string* error);
    bool exec(const char* sql, std::string* error);

    std::string path_;
    int lockFd_ = -1;
    sqlite3* db_ = nullptr;
};

// How a list of values is kept in one database column: each value as its byte length in
// decimal, ':' and the bytes ("3:abc1:x"); no values is the empty string.
std::string encodeValues(const std::vector<std::string>& values);
bool decodeValues(const std::string& encoded, std::vector<std::string>* values);

}  // namespace configsrvc

#endif  // CONFIGSRVC_VALUE_STORE_H
