// ValueStore: the records of Records.h made durable in SQLite.
//
// The database is <state folder>/values.db: values in the table `setting`, every other kind of
// record in `override`. Every record is loaded into memory when the store opens, so requests
// never touch the disk. A change is first committed durably (commit(), on the committing
// thread) and only then applied to the records that are served (RecordState, on the serving
// thread), so no reader ever sees a change that a crash could still take back.
//
// What the folder holds besides the database: `values.lock`, which one running service at a
// time holds, and `values.commit`, the number of the last commit acknowledged (see below).
//
// A database that is damaged, empty, belongs to another program or has a newer format is refused
// with a message and left exactly as it was, and so is one whose write-ahead log lost
// acknowledged commits; one of an older format gains what it lacks. A new database is built
// under another name and renamed into place, so an existing `values.db` is always a whole one.
// Every row carries a check of its content, verified whenever it is read from the disk. Where
// the reason is the system's (no permission, no space) rather than the file's, the message says
// so. A folder already used by another running service is refused, and so is a database this
// process could not write. Stored records the model no longer declares, or that no longer fit
// it, stay in the database untouched and are reported as warnings; what they changed reads as
// the model says.
//
// Commits are numbered 1, 2, ... in the database itself, in the same transaction as their
// changes, and the number of the last one is also written to `values.commit` once it is durable
// (without a sync of its own: after a crash of the process that file is exact; after a power cut
// it may lag, which can hide damage but never invent it). A database that holds fewer commits
// than that file acknowledged lost some to its log, and is refused.
#ifndef CONFIGSRVC_VALUE_STORE_H
#define CONFIGSRVC_VALUE_STORE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DeviceModel.h"
#include "Records.h"

struct sqlite3;
struct sqlite3_stmt;

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

    // Disk side: writes every change in one transaction and waits until it is on disk (a record
    // changed more than once in the batch is written once, as its last change leaves it). Only
    // one thread at a time may commit. On failure nothing of the batch is stored. A batch with
    // changes is a commit of its own: lastCommit() is one more afterwards; an empty one is not.
    bool commit(const std::vector<const StoredChange*>& changes, std::string* error);

    // The number of the last commit that is durable (0: none yet). Read it on the committing
    // thread, or after commit() returned on another one that synchronised with it.
    uint64_t lastCommit() const { return lastCommit_; }

    // Disk side: carries every committed change from the write-ahead log into the database
    // file itself (which then holds everything on its own); the next commit starts the log over.
    bool checkpoint(std::string* error);

    const std::string& databasePath() const { return path_; }

    static constexpr int kStatementCount = 8;

  private:
    ValueStore() = default;

    bool lockFolder(const std::string& folder, std::string* error);
    bool openCommitFile(std::string* error);
    void recordCommit();
    void preallocateLog();
    bool createDatabase(std::string* error);
    bool openDatabase(std::string* error);
    bool checkExisting(long long* version, std::string* error);
    bool upgradeSchema(long long version, std::string* error);
    bool checkLog(std::string* error);
    bool checkWritable(std::string* error);
    bool loadRows(const char* sql, std::vector<StoredChange>* rows, std::string* error);
    bool load(const DeviceModel& model, Records* records, std::vector<std::string>* warnings,
              std::string* error);
    bool exec(const char* sql, std::string* error);
    // *error as "PREFIX: why", where why is the system's reason when it is one.
    void failWith(const std::string& prefix, std::string* error) const;

    std::string folder_;
    std::string path_;
    std::string commitPath_;
    int lockFd_ = -1;
    int commitFd_ = -1;
    uint64_t lastCommit_ = 0;
    uint64_t acknowledged_ = 0;  // what values.commit said at open
    uint64_t recorded_ = 0;      // what it says now
    sqlite3* db_ = nullptr;
    sqlite3_stmt* statements_[kStatementCount] = {};  // commit()'s, prepared once
    bool step(int statement, std::string* error);
};

// How a list of values is kept in one database column: each value as its byte length in
// decimal, ':' and the bytes ("3:abc1:x"); no values is the empty string.
std::string encodeValues(const std::vector<std::string>& values);
bool decodeValues(const std::string& encoded, std::vector<std::string>* values);

// The checksum each stored row carries: a 64-bit hash of its kind (0 for a value), key and encoded
// values, as SQLite's signed integer. Any change of a single byte changes it.
int64_t rowChecksum(int kind, const std::string& key, const std::string& encoded);
// Makes rowChecksum() callable in SQL on `db` as row_checksum(kind, key, value).
bool registerRowChecksum(sqlite3* db);

}  // namespace configsrvc

#endif  // CONFIGSRVC_VALUE_STORE_H
