#include "ValueStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_set>

#include "Overrides.h"

namespace configsrvc {

namespace {

// Marks the database as ours in its header ("CSVC"), so a foreign file is never taken over.
constexpr int kApplicationId = 0x43535643;
// Format 1 held values only; format 2 added the table of overrides; format 3 a check on every
// row and the number of the last commit.
constexpr int kFormatVersion = 3;
constexpr char kDatabaseName[] = "values.db";
constexpr char kNewDatabaseName[] = "values.db.new";
constexpr char kLockName[] = "values.lock";
constexpr char kCommitName[] = "values.commit";
// values.commit holds the number in decimal, padded so every write has the same length.
constexpr int kCommitDigits = 20;

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

// Whether the last failure on `db` says the file's content is bad, rather than that the system
// would not let us read or write it.
bool failedOnContent(sqlite3* db) {
    const int code = sqlite3_extended_errcode(db) & 0xff;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_FORMAT;
}

// Why the last call on `db` failed, in the system's words when the system refused it.
std::string reasonOf(sqlite3* db) {
    const int code = sqlite3_extended_errcode(db) & 0xff;
    const int systemError = sqlite3_system_errno(db);
    if (code == SQLITE_FULL || systemError == ENOSPC || systemError == EDQUOT) {
        return std::string("no space left on the disk (") + sqlite3_errmsg(db) + ")";
    }
    if (systemError == EACCES || systemError == EPERM || systemError == EROFS) {
        return std::string(std::strerror(systemError)) + " (" + sqlite3_errmsg(db) + ")";
    }
    if (code == SQLITE_READONLY) {
        return std::string("no permission to write (") + sqlite3_errmsg(db) + ")";
    }
    return sqlite3_errmsg(db);
}

// First problem PRAGMA quick_check reports (and whether it is the content's), or "" when the
// file is sound.
std::string quickCheck(sqlite3* db, bool* content) {
    *content = true;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &statement, nullptr) != SQLITE_OK) {
        *content = failedOnContent(db);
        return reasonOf(db);
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
        *content = failedOnContent(db);
        problem = reasonOf(db);
    }
    sqlite3_finalize(statement);
    return problem;
}

std::string columnText(sqlite3_stmt* statement, int column) {
    const void* data = sqlite3_column_blob(statement, column);
    int bytes = sqlite3_column_bytes(statement, column);
    return data ? std::string(static_cast<const char*>(data), bytes) : std::string();
}

// Who owns `path` and who we are, for a file this process may not write.
std::string ownerOf(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        return std::strerror(errno);
    }
    char text[96];
    std::snprintf(text, sizeof text, "owner uid %u, mode %04o; this service runs as uid %u",
                  static_cast<unsigned>(info.st_uid), static_cast<unsigned>(info.st_mode & 07777),
                  static_cast<unsigned>(geteuid()));
    return text;
}

bool syncPath(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool synced = fsync(fd) == 0;
    close(fd);
    return synced;
}

void rowChecksumFunction(sqlite3_context* context, int, sqlite3_value** argv) {
    const auto text = [&](int i) {
        const void* data = sqlite3_value_blob(argv[i]);
        return data ? std::string(static_cast<const char*>(data), sqlite3_value_bytes(argv[i]))
                    : std::string();
    };
    sqlite3_result_int64(context, rowChecksum(sqlite3_value_int(argv[0]), text(1), text(2)));
}

}  // namespace

int64_t rowChecksum(int kind, const std::string& key, const std::string& encoded) {
    // FNV-1a: each step is a bijection of the state for a given byte, so two inputs of the same
    // length that differ in one byte never give the same result; the lengths are hashed too.
    uint64_t hash = 0xcbf29ce484222325ULL;
    const auto add = [&hash](const void* data, size_t bytes) {
        const auto* byte = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < bytes; ++i) {
            hash = (hash ^ byte[i]) * 0x100000001b3ULL;
        }
    };
    const uint64_t lengths[2] = {key.size(), encoded.size()};
    add(&kind, sizeof kind);
    add(lengths, sizeof lengths);
    add(key.data(), key.size());
    add(encoded.data(), encoded.size());
    return static_cast<int64_t>(hash);
}

bool registerRowChecksum(sqlite3* db) {
    return sqlite3_create_function(db, "row_checksum", 3, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                   nullptr, rowChecksumFunction, nullptr, nullptr) == SQLITE_OK;
}

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

namespace {

bool run(sqlite3* db, const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        *error = message ? message : sqlite3_errmsg(db);
        sqlite3_free(message);
        return false;
    }
    return true;
}

// The tables of format 3. The checksum columns take a default only so that an older format can
// gain them; every row the service writes carries its own.
constexpr char kSettingTable[] =
    "CREATE TABLE setting(key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL,"
    " checksum INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;";
constexpr char kOverrideTable[] =
    "CREATE TABLE override(kind INTEGER NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,"
    " checksum INTEGER NOT NULL DEFAULT 0, PRIMARY KEY(kind, key)) WITHOUT ROWID;";
// Pages of 1 KiB: a commit appends each page it changed to the log, and the log is synced before
// the commit is answered, so the fewer bytes a small change writes, the sooner it is durable.
constexpr char kPageSize[] = "PRAGMA page_size=1024;";
// What the log takes before the database carries it over (every 1000 pages, SQLite's default),
// each page with its frame header, and the log's own header; a little more for the commit that
// crosses the line.
constexpr off_t kLogBytes = 32 + 1100 * (1024 + 24);
constexpr char kCommitsTable[] =
    "CREATE TABLE commits(last INTEGER NOT NULL); INSERT INTO commits VALUES(0);";

// Statements of commit(), by slot; the transaction's own too, so that no commit parses SQL.
enum Statement {
    kSetValue,
    kResetValue,
    kSetOverride,
    kResetOverride,
    kCountCommit,
    kBegin,
    kCommit,
    kRollback
};
constexpr const char* kStatementSql[ValueStore::kStatementCount] = {
    "INSERT OR REPLACE INTO setting(key, value, checksum) VALUES(?2, ?3, ?4)",
    "DELETE FROM setting WHERE key = ?2",
    "INSERT OR REPLACE INTO override(kind, key, value, checksum) VALUES(?1, ?2, ?3, ?4)",
    "DELETE FROM override WHERE kind = ?1 AND key = ?2",
    "UPDATE commits SET last = ?1",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

}  // namespace

ValueStore::~ValueStore() {
    for (sqlite3_stmt* statement : statements_) {
        sqlite3_finalize(statement);
    }
    if (db_ != nullptr) {
        sqlite3_close(db_);
    }
    if (commitFd_ >= 0) {
        close(commitFd_);
    }
    if (lockFd_ >= 0) {
        close(lockFd_);
    }
}

bool ValueStore::open(const std::string& folder, const DeviceModel& model,
                      std::unique_ptr<ValueStore>* store, Records* records,
                      std::vector<std::string>* warnings, std::string* error) {
    std::unique_ptr<ValueStore> opened(new ValueStore());
    opened->folder_ = folder;
    opened->path_ = folder + "/" + kDatabaseName;
    opened->commitPath_ = folder + "/" + kCommitName;
    if (!opened->lockFolder(folder, error) || !opened->openCommitFile(error) ||
        !opened->openDatabase(error) || !opened->load(model, records, warnings, error) ||
        !opened->checkWritable(error)) {
        return false;
    }
    // Everything was checked: from now on closing may carry the log into the database again.
    sqlite3_db_config(opened->db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    opened->recordCommit();
    opened->preallocateLog();
    *store = std::move(opened);
    return true;
}

bool ValueStore::lockFolder(const std::string& folder, std::string* error) {
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create the state folder " + folder + ": " + std::strerror(errno);
        return false;
    }
    std::string lockPath = folder + "/" + kLockName;
    lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
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

bool ValueStore::openCommitFile(std::string* error) {
    commitFd_ = ::open(commitPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (commitFd_ < 0) {
        *error = "cannot open " + commitPath_ + ": " + std::strerror(errno);
        return false;
    }
    char text[kCommitDigits + 2] = {};
    const ssize_t bytes = pread(commitFd_, text, sizeof text, 0);
    if (bytes < 0) {
        *error = "cannot read " + commitPath_ + ": " + std::strerror(errno);
        return false;
    }
    if (bytes == 0) {
        return true;  // no commit acknowledged yet by a service that kept count
    }
    bool wellFormed = bytes == kCommitDigits + 1 && text[kCommitDigits] == '\n';
    for (int i = 0; wellFormed && i < kCommitDigits; ++i) {
        wellFormed = text[i] >= '0' && text[i] <= '9';
    }
    if (!wellFormed) {
        *error = commitPath_ + " is damaged (it holds no commit number); it was left as it is";
        return false;
    }
    acknowledged_ = std::strtoull(text, nullptr, 10);
    recorded_ = acknowledged_;
    return true;
}

void ValueStore::recordCommit() {
    if (lastCommit_ == recorded_) {
        return;
    }
    char text[kCommitDigits + 2];
    std::snprintf(text, sizeof text, "%0*" PRIu64 "\n", kCommitDigits, lastCommit_);
    // Best effort: the commit itself is durable already, and a number that lags behind only
    // makes the check at the next start less strict.
    if (pwrite(commitFd_, text, kCommitDigits + 1, 0) == kCommitDigits + 1) {
        recorded_ = lastCommit_;
    }
}

// Gives the log its full size at once, in blocks of zeros that are on disk; the database starts
// it over from its beginning once it carried it over, and never shrinks it while it is open. A
// commit then overwrites blocks the file already has, and its sync carries the commit's bytes
// alone, not also the file's new size and blocks. Zeros after the log's last commit read as its
// end. Best effort: a log that could not be grown grows commit by commit, as it would anyway.
void ValueStore::preallocateLog() {
    const std::string log = path_ + "-wal";
    int fd = ::open(log.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    static const char kZeros[64 * 1024] = {};
    bool written = true;
    off_t size = info.st_size;
    while (written && size < kLogBytes) {
        const size_t chunk = static_cast<size_t>(std::min<off_t>(sizeof kZeros, kLogBytes - size));
        written = pwrite(fd, kZeros, chunk, size) == static_cast<ssize_t>(chunk);
        size += static_cast<off_t>(chunk);
    }
    if (size > info.st_size) {
        fdatasync(fd);
    }
    close(fd);
}

bool ValueStore::exec(const char* sql, std::string* error) {
    return run(db_, sql, error);
}

void ValueStore::failWith(const std::string& prefix, std::string* error) const {
    *error = prefix + ": " + reasonOf(db_);
}

// Builds a new database under another name and renames it into place once it is whole and on
// disk, so that values.db never exists half made: an empty one is always something else's doing.
bool ValueStore::createDatabase(std::string* error) {
    const std::string fresh = folder_ + "/" + kNewDatabaseName;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        unlink((fresh + suffix).c_str());  // what a crash while creating left
    }
    sqlite3* db = nullptr;
    std::string sql = std::string(kPageSize) + "BEGIN;" + kSettingTable + kOverrideTable +
                      kCommitsTable + "PRAGMA application_id=" + std::to_string(kApplicationId) +
                      ";PRAGMA user_version=" + std::to_string(kFormatVersion) + ";COMMIT;";
    bool made = sqlite3_open_v2(fresh.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                nullptr) == SQLITE_OK &&
                run(db, sql.c_str(), error) && run(db, "PRAGMA journal_mode=WAL", error);
    if (!made && db != nullptr) {
        *error = reasonOf(db);
    } else if (db == nullptr) {
        *error = "out of memory";
    }
    sqlite3_close(db);  // carries everything into the file and removes its log
    if (made && (!syncPath(fresh, O_RDONLY) || rename(fresh.c_str(), path_.c_str()) != 0 ||
                 !syncPath(folder_, O_RDONLY | O_DIRECTORY))) {
        made = false;
        *error = std::strerror(errno);
    }
    if (!made) {
        *error = "cannot create " + path_ + ": " + *error;
    }
    return made;
}

bool ValueStore::checkExisting(long long* version, std::string* error) {
    bool content = true;
    std::string problem = quickCheck(db_, &content);
    if (!problem.empty() && !content &&
        faccessat(AT_FDCWD, folder_.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        // The log and its index live beside the database: a folder we may not write is why.
        problem = "the state folder " + folder_ + " cannot be written: " + std::strerror(errno);
    }
    if (!problem.empty()) {
        *error = content ? path_ + " is damaged (" + problem + "); it was left as it is"
                         : "cannot examine " + path_ + ": " + problem +
                               "; the database itself may well be sound, and was left as it is";
        return false;
    }
    long long applicationId = 0;
    long long objects = 0;
    if (!queryInteger(db_, "PRAGMA application_id", &applicationId) ||
        !queryInteger(db_, "PRAGMA user_version", version) ||
        !queryInteger(db_, "SELECT count(*) FROM sqlite_schema", &objects)) {
        failWith(path_ + " cannot be read", error);
        return false;
    }
    if (applicationId != kApplicationId) {
        *error = path_ + " is not a database of this service" +
                 (applicationId == 0 && objects == 0 ? " (it holds no tables)" : "") +
                 "; it was left as it is";
        return false;
    }
    if (*version < 1 || *version > kFormatVersion) {
        *error = path_ + " has format " + std::to_string(*version) + ", this service reads 1 to " +
                 std::to_string(kFormatVersion) + "; it was left as it is";
        return false;
    }
    return true;
}

// Adds what a database of an older format lacks, in one transaction: a crash leaves either
// format, never a mix. Rows of before get their checksums from what they hold now.
bool ValueStore::upgradeSchema(long long version, std::string* error) {
    std::string sql = "BEGIN;";
    sql += version < 2 ? kOverrideTable
                       : "ALTER TABLE override ADD COLUMN checksum INTEGER NOT NULL DEFAULT 0;";
    sql += "ALTER TABLE setting ADD COLUMN checksum INTEGER NOT NULL DEFAULT 0;";
    sql += kCommitsTable;
    sql +=
        "UPDATE setting SET checksum = row_checksum(0, key, value);"
        "UPDATE override SET checksum = row_checksum(kind, key, value);"
        "PRAGMA user_version=" +
        std::to_string(kFormatVersion) + ";COMMIT;";
    if (!exec(sql.c_str(), error)) {
        failWith("cannot update the format of " + path_, error);
        std::string ignored;
        exec("ROLLBACK", &ignored);
        return false;
    }
    return true;
}

// Compares the commits the database holds with those values.commit says were acknowledged.
bool ValueStore::checkLog(std::string* error) {
    long long last = 0;
    if (!queryInteger(db_, "SELECT last FROM commits", &last) || last < 0) {
        *error = path_ + " is damaged (it holds no commit number); it was left as it is";
        return false;
    }
    lastCommit_ = static_cast<uint64_t>(last);
    if (lastCommit_ >= acknowledged_) {
        return true;
    }
    *error = path_ + " lost acknowledged changes: it holds commits up to " +
             std::to_string(lastCommit_) + ", but " + std::to_string(acknowledged_) +
             " were acknowledged (" + commitPath_ + "), so its write-ahead log " + path_ +
             "-wal is damaged or missing. Every file was left as it is: keep them to examine; "
             "to serve what the database holds, remove " +
             commitPath_;
    return false;
}

bool ValueStore::openDatabase(std::string* error) {
    struct stat info;
    if (lstat(path_.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            *error = "cannot examine " + path_ + ": " + std::strerror(errno);
            return false;
        }
        if (lstat((path_ + "-wal").c_str(), &info) == 0) {
            *error = path_ + " is missing but its write-ahead log " + path_ +
                     "-wal is there; it was left as it is";
            return false;
        }
        if (!createDatabase(error)) {
            return false;
        }
        acknowledged_ = 0;  // a new database: what an earlier one acknowledged is gone with it
    } else if (!S_ISREG(info.st_mode)) {
        *error = path_ + " is not a regular file; it was left as it is";
        return false;
    } else if (info.st_size == 0) {
        *error = path_ +
                 " is empty where a database of this service should be (its values "
                 "are lost or were never there); it was left as it is";
        return false;
    }
    if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW,
                        nullptr) != SQLITE_OK) {
        *error = "cannot open " + path_ + ": " + (db_ ? reasonOf(db_) : "out of memory");
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    // Until every check passed, closing must not carry the log into the database and remove it:
    // a log that lost commits is the evidence.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    registerRowChecksum(db_);
    long long version = 0;
    if (!checkExisting(&version, error)) {
        return false;
    }
    if (sqlite3_db_readonly(db_, "main") == 1) {
        *error = "cannot write " + path_ + " (" + ownerOf(path_) + "); it was left as it is";
        return false;
    }
    // WAL with FULL sync: a commit is one append and one fsync of the log, and is durable
    // once its COMMIT returns. The folder's lock makes this process the database's only user, so
    // SQLite's own locks are taken once and kept: a commit makes no lock calls.
    if (!exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA locking_mode=EXCLUSIVE;",
              error)) {
        failWith("cannot configure " + path_, error);
        return false;
    }
    if (version < kFormatVersion && !upgradeSchema(version, error)) {
        return false;
    }
    for (int i = 0; i < ValueStore::kStatementCount; ++i) {
        if (sqlite3_prepare_v3(db_, kStatementSql[i], -1, SQLITE_PREPARE_PERSISTENT,
                               &statements_[i], nullptr) != SQLITE_OK) {
            failWith(path_ + " cannot be used", error);
            return false;
        }
    }
    return checkLog(error);
}

// A write that changes nothing, so that a database, log or folder this process may not write,
// or a full disk, is found at start rather than at the first client's write. It needs no sync:
// losing it loses nothing.
bool ValueStore::checkWritable(std::string* error) {
    const bool written = exec(
        "PRAGMA synchronous=OFF; BEGIN IMMEDIATE; UPDATE commits SET last = last; COMMIT;", error);
    if (!written) {
        failWith("cannot write " + path_, error);
        std::string ignored;
        exec("ROLLBACK", &ignored);
    }
    std::string ignored;
    return exec("PRAGMA synchronous=FULL", written ? error : &ignored) && written;
}

// Reads rows of (kind, key, encoded values, checksum) into *rows.
bool ValueStore::loadRows(const char* sql, std::vector<StoredChange>* rows, std::string* error) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) {
        failWith(path_ + " cannot be read", error);
        return false;
    }
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        StoredChange row;
        const int kind = sqlite3_column_int(statement, 0);
        row.kind = static_cast<RecordKind>(kind);
        row.key = columnText(statement, 1);
        const std::string encoded = columnText(statement, 2);
        const char* damage = nullptr;
        if (rowChecksum(kind, row.key, encoded) != sqlite3_column_int64(statement, 3)) {
            damage = "' fails its checksum";
        } else if (!decodeValues(encoded, &row.values)) {
            damage = "' does not decode";
        }
        if (damage != nullptr) {
            *error = path_ + " is damaged (the " + (kind == 0 ? "value" : "record") + " of '" +
                     row.key + damage + "); it was left as it is";
            sqlite3_finalize(statement);
            return false;
        }
        rows->push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) {
        if (failedOnContent(db_)) {
            *error = path_ + " is damaged (" + sqlite3_errmsg(db_) + "); it was left as it is";
        } else {
            failWith(path_ + " cannot be read", error);
        }
        return false;
    }
    return true;
}

bool ValueStore::load(const DeviceModel& model, Records* records,
                      std::vector<std::string>* warnings, std::string* error) {
    // Attributes first, then the overrides of instances, then values: each is checked against
    // what the ones before it made of the model.
    std::vector<StoredChange> rows;
    if (!loadRows("SELECT kind, key, value, checksum FROM override ORDER BY kind = 3 DESC, kind",
                  &rows, error) ||
        !loadRows("SELECT 0, key, value, checksum FROM setting", &rows, error)) {
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
    // RESTART, not TRUNCATE: the log keeps its blocks (see preallocateLog()).
    if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr) !=
        SQLITE_OK) {
        *error = std::string("checkpoint: ") + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

bool ValueStore::step(int statement, std::string* error) {
    sqlite3_stmt* prepared = statements_[statement];
    const bool done = sqlite3_step(prepared) == SQLITE_DONE;
    if (!done && error != nullptr) {
        *error = sqlite3_errmsg(db_);
    }
    sqlite3_reset(prepared);  // lets go of the bound buffers before they change
    return done;
}

namespace {

// The changes of a batch that decide what it stores: the last one of each record. An earlier
// change of the same record would be overwritten within the same transaction, seen by no one,
// so writing it only costs time on the commit path that every writer of the batch waits for.
// In batch order.
std::vector<const StoredChange*> lastOfEachRecord(const std::vector<const StoredChange*>& changes) {
    std::array<std::unordered_set<std::string_view>, kRecordKinds> seen;
    std::vector<const StoredChange*> last;
    last.reserve(changes.size());
    for (auto it = changes.rbegin(); it != changes.rend(); ++it) {
        if (seen[static_cast<int>((*it)->kind)].insert((*it)->key).second) {
            last.push_back(*it);
        }
    }
    std::reverse(last.begin(), last.end());
    return last;
}

}  // namespace

bool ValueStore::commit(const std::vector<const StoredChange*>& changes, std::string* error) {
    if (changes.empty()) {
        return true;
    }
    if (!step(kBegin, error)) {
        return false;
    }
    bool ok = true;
    std::string encoded;
    const std::vector<const StoredChange*> written = lastOfEachRecord(changes);
    for (size_t i = 0; ok && i < written.size(); ++i) {
        const StoredChange& change = *written[i];
        const bool isValue = change.kind == RecordKind::kValue;
        const Statement statement = isValue ? (change.reset ? kResetValue : kSetValue)
                                            : (change.reset ? kResetOverride : kSetOverride);
        sqlite3_stmt* prepared = statements_[statement];
        if (!isValue) {
            sqlite3_bind_int(prepared, 1, static_cast<int>(change.kind));
        }
        sqlite3_bind_text(prepared, 2, change.key.data(), static_cast<int>(change.key.size()),
                          SQLITE_STATIC);
        if (!change.reset) {
            encoded = encodeValues(change.values);
            sqlite3_bind_blob(prepared, 3, encoded.data(), static_cast<int>(encoded.size()),
                              SQLITE_STATIC);
            sqlite3_bind_int64(prepared, 4,
                               rowChecksum(static_cast<int>(change.kind), change.key, encoded));
        }
        ok = step(statement, error);
    }
    if (ok) {
        sqlite3_bind_int64(statements_[kCountCommit], 1,
                           static_cast<sqlite3_int64>(lastCommit_ + 1));
        ok = step(kCountCommit, error);
    }
    // A failed commit is rolled back, which leaves no transaction open for the next batch.
    if (!ok || !step(kCommit, error)) {
        step(kRollback, nullptr);
        return false;
    }
    ++lastCommit_;
    recordCommit();
    return true;
}

}  // namespace configsrvc
