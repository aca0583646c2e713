#include "ValueStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ValueCheck.h"

namespace configsrvc {

namespace {

// Marks the database as ours in its header ("CSVC"), so a foreign file is never taken over.
constexpr int kApplicationId = 0x43535643;
constexpr int kFormatVersion = 1;
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
                      std::unique_ptr<ValueStore>* store, std::vector<std::string>* warnings,
                      std::string* error) {
    std::unique_ptr<ValueStore> opened(new ValueStore());
    opened->path_ = folder + "/" + kDatabaseName;
    if (!opened->lockFolder(folder, error) || !opened->openDatabase(error) ||
        !opened->loadValues(model, warnings, error)) {
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

bool ValueStore::checkExisting(bool* isEmpty, std::string* error) {
    std::string problem = quickCheck(db_);
    if (!problem.empty()) {
        *error = path_ + " is damaged (" + problem + "); it was left as it is";
        return false;
    }
    long long applicationId = 0;
    long long version = 0;
    long long objects = 0;
    if (!queryInteger(db_, "PRAGMA application_id", &applicationId) ||
        !queryInteger(db_, "PRAGMA user_version", &version) ||
        !queryInteger(db_, "SELECT count(*) FROM sqlite_schema", &objects)) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    *isEmpty = applicationId == 0 && version == 0 && objects == 0;
    if (*isEmpty) {
        return true;
    }
    if (applicationId != kApplicationId) {
        *error = path_ + " is not a database of this service; it was left as it is";
        return false;
    }
    if (version != kFormatVersion) {
        *error = path_ + " has format " + std::to_string(version) + ", this service reads " +
                 std::to_string(kFormatVersion) + "; it was left as it is";
        return false;
    }
    return true;
}

bool ValueStore::createSchema(std::string* error) {
    std::string sql =
        "BEGIN;"
        "CREATE TABLE setting(key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL)"
        " WITHOUT ROWID;"
        "PRAGMA application_id=" +
        std::to_string(kApplicationId) +
        ";"
        "PRAGMA user_version=" +
        std::to_string(kFormatVersion) + ";COMMIT;";
    if (!exec(sql.c_str(), error)) {
        *error = "cannot create " + path_ + ": " + *error;
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
    if (exists && !checkExisting(&isEmpty, error)) {
        return false;
    }
    if (isEmpty && !createSchema(error)) {
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

bool ValueStore::loadValues(const DeviceModel& model, std::vector<std::string>* warnings,
                            std::string* error) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT key, value FROM setting", -1, &statement, nullptr) !=
        SQLITE_OK) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        std::string key = columnText(statement, 0);
        std::vector<std::string> stored;
        if (!decodeValues(columnText(statement, 1), &stored)) {
            *error = path_ + " is damaged (the value of '" + key +
                     "' does not decode); it was left as it is";
            sqlite3_finalize(statement);
            return false;
        }
        ResolvedVariable found;
        std::vector<std::string> canonical;
        std::string reason;
        if (!model.resolveKey(key, &found)) {
            warnings->push_back("stored value of '" + key +
                                "' is ignored: the model has no such variable");
        } else if (!checkValues(*found.variable, stored, &canonical, &reason)) {
            warnings->push_back("stored value of '" + key + "' is ignored: " + reason);
        } else {
            values_[key] = std::move(canonical);
        }
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) {
        *error = path_ + " cannot be read: " + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

const std::vector<std::string>* ValueStore::find(const std::string& key) const {
    auto it = values_.find(key);
    return it == values_.end() ? nullptr : &it->second;
}

void ValueStore::apply(const StoredChange& change) {
    if (change.reset) {
        values_.erase(change.key);
    } else {
        values_[change.key] = change.values;
    }
}

bool ValueStore::commit(const std::vector<const StoredChange*>& changes, std::string* error) {
    if (!exec("BEGIN IMMEDIATE", error)) {
        return false;
    }
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* remove = nullptr;
    bool ok = sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO setting(key, value) VALUES(?, ?)", -1,
                                 &upsert, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db_, "DELETE FROM setting WHERE key = ?", -1, &remove, nullptr) ==
                  SQLITE_OK;
    for (size_t i = 0; ok && i < changes.size(); ++i) {
        const StoredChange& change = *changes[i];
        sqlite3_stmt* statement = change.reset ? remove : upsert;
        std::string encoded = encodeValues(change.values);
        sqlite3_reset(statement);
        sqlite3_bind_text(statement, 1, change.key.data(), static_cast<int>(change.key.size()),
                          SQLITE_STATIC);
        if (!change.reset) {
            sqlite3_bind_blob(statement, 2, encoded.data(), static_cast<int>(encoded.size()),
                              SQLITE_STATIC);
        }
        ok = sqlite3_step(statement) == SQLITE_DONE;
    }
    if (!ok) {
        *error = sqlite3_errmsg(db_);
    }
    sqlite3_finalize(upsert);
    sqlite3_finalize(remove);
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
