#include "ValueStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Overrides.h"

namespace configsrvc {

namespace {

// Marks the database as ours in its header ("CSVC"), so a foreign file is never taken over.
constexpr int kApplicationId = 0x43535643;
// Format 1 held values only; format 2 added the table of overrides.
constexpr int kFormatVersion = 2;
constexpr char kDatabaseName[] = "values.db";
constexpr char kLockName[] = "values.lock";

// Runs a statement that returns one integer, e.g. "PRAGMA user_version".
bool queryInteger(sqlite3* db, const char* sql, long long* value) {
    sqlite3_stmt* statement = nullptr;
    bool ok = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK &&
              sqlite3_step(statement) == SQLITE_ROW;
    if (ok) {
        *value = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
    return ok;
}

// First problem PRAGMA quick_check reports, or "" when the file is sound.
std::string quickCheck(sqlite3* db) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &statement, nullptr) != SQLITE_OK) {
        return sqlite3_errmsg(db);
    }
    std::string problem;
    int step = sqlite3_step(statement);
    if (step == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        std::string first = text ? reinterpret_cast<const char*>(text) : "";
        if (first != "ok") {
            problem = first;
        }
    } else {
        problem = sqlite3_errmsg(db);
    }
    sqlite3_finalize(statement);
    return problem;
}

std::string columnText(sqlite3_stmt* statement, int column) {
    const void* data = sqlite3_column_blob(statement, column);
    int bytes = sqlite3_column_bytes(statement, column);
    return data ? std::string(static_cast<const char*>(data), bytes) : std::string();
}

}  // namespace

std::string encodeValues(const std::vector<std::string>& values) {
    std::string encoded;
    for (const std::string& value : values) {
        encoded += std::to_string(value.size());
        encoded += ':';
        encoded += value;
    }
    return encoded;
}

bool decodeValues(const std::string& encoded, std::vector<std::string>* values) {
    values->clear();
    size_t pos = 0;
    while (pos < encoded.size()) {
        size_t colon = encoded.find(':', pos);
        // Lengths are written in plain decimal; a form we never write ("00:") is damage.
        const bool leadingZero = colon - pos > 1 && encoded[pos] == '0';
        if (colon == std::string::npos || colon == pos || colon - pos > 7 || leadingZero) {
            return false;
        }
        size_t length = 0;
        for (size_t i = pos; i < colon; ++i) {
            if (encoded[i] < '0' || encoded[i] > '9') {
                return false;
            }
            length = length * 10 + static_cast<size_t>(encoded[i] - '0');
        }
        if (length > encoded.size() - colon - 1) {
            return false;
        }
        values->push_back(encoded.substr(colon + 1, length));
        pos = colon + 1 + length;
    }
    return true;
}

ValueStore::~ValueStore() {
    if (db_ != nullptr) {
        sqlite3_close(db_);
    }
    if (lockFd_ >= 0) {
        close(lockFd_);
    }
}

bool ValueStore::open(const std::string& folder, const DeviceModel& model,
                      std::unique_ptr<ValueStore>* store, Records* records,
                      std::vector<std::string>* warnings, std::string* error) {
    std::unique_ptr<ValueStore> opened(new ValueStore());
    opened->path_ = folder + "/" + kDatabaseName;
    if (!opened->lockFolder(folder, error) || !opened->openDatabase(error) ||
        !opened->load(model, records, warnings, error)) {
        return false;
    }
    *store = std::move(opened);
    return true;
}

bool ValueStore::lockFolder(const std::string& folder, std::string* error) {
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create the state folder " + folder + ": " + std::strerror(errno);
        return false;
    }
    std::string lockPath = folder + "/" + kLockName;
    lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd_ < 0) {
        *error = "cannot open " + lockPath + ": " + std::strerror(errno);
        return false;
    }
    if (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        *error = "the state folder " + folder + " is in use by another running service";
        return false;
    }
    return true;
}

bool ValueStore::exec(const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        *error = message ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool ValueStore::checkExisting(bool* isEmpty, long long* version, std::string* error) {
    std::string problem = quickCheck(db_);
    if (!problem.empty()) {
        *error = path_ + " is damaged (" + problem + "); it was left as it is";
        return false;
    }
    long long applicationId = 0;
    long long objects = 0;
    if (!queryInteger(db_, "PRAGMA application_id", &applicationId) ||
        !queryInteger(db_, "PRAGMA user_version", version) ||
        !queryInteger(db_, "SELECT count(*) FROM sqlite_schema", &objects)) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    *isEmpty = applicationId == 0 && *version == 0 && objects == 0;
    if (*isEmpty) {
        return true;
    }
    if (applicationId != kApplicationId) {
        *error = path_ + " is not a database of this service; it was left as it is";
        return false;
    }
    if (*version < 1 || *version > kFormatVersion) {
        *error = path_ + " has format " + std::to_string(*version) + ", this service reads 1 to " +
                 std::to_string(kFormatVersion) + "; it was left as it is";
        return false;
    }
    return true;
}

// Creates the tables of an empty database, or adds what a database of an older format lacks,
// in one transaction: a crash leaves either format, never a mix.
bool ValueStore::createSchema(bool isEmpty, std::string* error) {
    std::string sql = "BEGIN;";
    if (isEmpty) {
        sql +=
            "CREATE TABLE setting(key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL)"
            " WITHOUT ROWID;"
            "PRAGMA application_id=" +
            std::to_string(kApplicationId) + ";";
    }
    sql +=
        "CREATE TABLE override(kind INTEGER NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,"
        " PRIMARY KEY(kind, key)) WITHOUT ROWID;"
        "PRAGMA user_version=" +
        std::to_string(kFormatVersion) + ";COMMIT;";
    if (!exec(sql.c_str(), error)) {
        *error = "cannot " + std::string(isEmpty ? "create " : "update the format of ") + path_ +
                 ": " + *error;
        std::string ignored;
        exec("ROLLBACK", &ignored);
        return false;
    }
    return true;
}

bool ValueStore::openDatabase(std::string* error) {
    struct stat info;
    bool exists = stat(path_.c_str(), &info) == 0;
    int flags = SQLITE_OPEN_READWRITE | (exists ? 0 : SQLITE_OPEN_CREATE);
    if (sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        *error = "cannot open " + path_ + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    bool isEmpty = true;
    long long version = 0;
    if (exists && !checkExisting(&isEmpty, &version, error)) {
        return false;
    }
    if ((isEmpty || version < kFormatVersion) && !createSchema(isEmpty, error)) {
        return false;
    }
    // WAL with FULL sync: a commit is one append and one fsync of the log, and is durable
    // once sqlite3_exec("COMMIT") returns.
    if (!exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", error)) {
        *error = "cannot configure " + path_ + ": " + *error;
        return false;
    }
    return true;
}

// Reads rows of (kind, key, encoded values) into *rows.
bool ValueStore::loadRows(const char* sql, std::vector<StoredChange>* rows, std::string* error) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        StoredChange row;
        row.kind = static_cast<RecordKind>(sqlite3_column_int(statement, 0));
        row.key = columnText(statement, 1);
        if (!decodeValues(columnText(statement, 2), &row.values)) {
            *error = path_ + " is damaged (the value of '" + row.key +
                     "' does not decode); it was left as it is";
            sqlite3_finalize(statement);
            return false;
        }
        rows->push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

bool ValueStore::load(const DeviceModel& model, Records* records,
                      std::vector<std::string>* warnings, std::string* error) {
    // Attributes first, then the overrides of instances, then values: each is checked against
    // what the ones before it made of the model.
    std::vector<StoredChange> rows;
    if (!loadRows("SELECT kind, key, value FROM override ORDER BY kind = 3 DESC, kind", &rows,
                  error) ||
        !loadRows("SELECT 0, key, value FROM setting", &rows, error)) {
        return false;
    }
    static const char* const kWhat[kRecordKinds] = {"value", "options", "levels", "attributes",
                                                    "component state"};
    for (StoredChange& row : rows) {
        const int kind = static_cast<int>(row.kind);
        std::string reason = "it is of an unknown kind";
        if (kind >= 0 && kind < kRecordKinds && checkRecord(model, *records, &row, &reason)) {
            records->apply(row);
            continue;
        }
        warnings->push_back(std::string("stored ") +
                            (kind >= 0 && kind < kRecordKinds ? kWhat[kind] : "record") + " of '" +
                            row.key + "' is ignored: " + reason);
    }
    return true;
}

bool ValueStore::checkpoint(std::string* error) {
    if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) !=
        SQLITE_OK) {
        *error = std::string("checkpoint: ") + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

bool ValueStore::commit(const std::vector<const StoredChange*>& changes, std::string* error) {
    if (!exec("BEGIN IMMEDIATE", error)) {
        return false;
    }
    // Statements by [is an override][is a reset]; values have no kind column.
    static const char* const kSql[2][2] = {
        {"INSERT OR REPLACE INTO setting(key, value) VALUES(?2, ?3)",
         "DELETE FROM setting WHERE key = ?2"},
        {"INSERT OR REPLACE INTO override(kind, key, value) VALUES(?1, ?2, ?3)",
         "DELETE FROM override WHERE kind = ?1 AND key = ?2"}};
    sqlite3_stmt* statements[2][2] = {};
    bool ok = true;
    for (int i = 0; i < 4; ++i) {
        ok = ok && sqlite3_prepare_v2(db_, kSql[i / 2][i % 2], -1, &statements[i / 2][i % 2],
                                      nullptr) == SQLITE_OK;
    }
    for (size_t i = 0; ok && i < changes.size(); ++i) {
        const StoredChange& change = *changes[i];
        sqlite3_stmt* statement = statements[change.kind != RecordKind::kValue][change.reset];
        std::string encoded = encodeValues(change.values);
        sqlite3_reset(statement);
        if (change.kind != RecordKind::kValue) {
            sqlite3_bind_int(statement, 1, static_cast<int>(change.kind));
        }
        sqlite3_bind_text(statement, 2, change.key.data(), static_cast<int>(change.key.size()),
                          SQLITE_STATIC);
        if (!change.reset) {
            sqlite3_bind_blob(statement, 3, encoded.data(), static_cast<int>(encoded.size()),
                              SQLITE_STATIC);
        }
        ok = sqlite3_step(statement) == SQLITE_DONE;
    }
    if (!ok) {
        *error = sqlite3_errmsg(db_);
    }
    for (int i = 0; i < 4; ++i) {
        sqlite3_finalize(statements[i / 2][i % 2]);
    }
    if (!ok) {
        std::string ignored;
        exec("ROLLBACK", &ignored);
        return false;
    }
    if (!exec("COMMIT", error)) {
        std::string ignored;
        exec("ROLLBACK", &ignored);  // leaves no transaction open for the next batch
        return false;
    }
    return true;
}

}  // namespace configsrvc
