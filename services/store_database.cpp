// Opening the layer's store file. Writers that meet on a file nobody has set
// up yet must all succeed: SQLite does not wait for a lock where waiting
// could deadlock, and two connections turning a fresh file to WAL mode is
// such a place, so a writer's set-up is retried until the busy timeout ends.
#include "store_database.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <sys/stat.h>

namespace {

// How long an opener waits for another process's transaction to end.
constexpr int busy_timeout_ms = 10000;

constexpr char schema[] = "CREATE TABLE IF NOT EXISTS current ("
                          "  name TEXT PRIMARY KEY NOT NULL,"
                          "  text TEXT NOT NULL,"
                          "  time INTEGER NOT NULL);"
                          "CREATE TABLE IF NOT EXISTS history ("
                          "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
                          "  name TEXT NOT NULL,"
                          "  text TEXT NOT NULL,"
                          "  time INTEGER NOT NULL);"
                          "CREATE INDEX IF NOT EXISTS history_by_name ON history (name, seq);";

constexpr char uri_scheme[] = "file:";

constexpr char select_foreign_code[] =
    "SELECT 1 FROM sqlite_schema WHERE type IN ('trigger', 'view') LIMIT 1";

const char* store_path(const SecurityContext* ctx) {
    const char* path =
        ctx != nullptr && ctx->layerContext != nullptr ? ctx->layerContext->storePath : nullptr;
    return path != nullptr ? path : "";
}

// A FIFO would block the first read for good, and a device such as
// /dev/zero takes every write and keeps none; a missing file is made later.
StatusCode refuse_special_file(const SecurityContext* ctx, const char* function, const char* path) {
    struct stat found {};
    if (stat(path, &found) != 0) {
        if (errno == ENOENT)
            return 0;
        char buffer[128];
        return qxl_store_refuse(ctx, function, strerror_r(errno, buffer, sizeof buffer));
    }
    return S_ISREG(found.st_mode) ? 0 : qxl_store_refuse(ctx, function, "not a regular file");
}

// path as SQLite is to open it: a path starting with "file:" would be read as
// a URI, which may name a database in memory or another file, so "./" keeps
// it the file it says. false when it does not fit, nor would it open.
bool plain_path(const char* path, char (&openable)[PATH_MAX]) {
    const bool uri = std::strncmp(path, uri_scheme, sizeof uri_scheme - 1) == 0;
    const int written = std::snprintf(openable, sizeof openable, "%s%s", uri ? "./" : "", path);
    return written >= 0 && static_cast<size_t>(written) < sizeof openable;
}

// One attempt; each step is harmless when another writer has done it. The
// journal mode is kept in the file, so the first writer's change holds for
// every later one. Taking the write lock before the tables are checked and
// made leaves no room for another writer in between.
int set_up_once(sqlite3* db) {
    for (const char* sql : {"PRAGMA journal_mode = WAL", "PRAGMA synchronous = FULL",
                            "BEGIN IMMEDIATE", schema, "COMMIT"}) {
        if (const int failed = sqlite3_exec(db, sql, nullptr, nullptr, nullptr))
            return failed;
    }
    return SQLITE_OK;
}

StatusCode set_up(const SecurityContext* ctx, const char* function, sqlite3* db) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(busy_timeout_ms);
    for (int pauseMs = 1;; pauseMs = std::min(pauseMs * 2, 50)) {
        const int rc = set_up_once(db);
        if (rc == SQLITE_OK)
            return 0;
        if ((rc & 0xFF) != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline)
            return qxl_store_failed(ctx, function, db);
        if (sqlite3_get_autocommit(db) == 0)
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_sleep(pauseMs);
    }
}

StatusCode refuse_foreign_code(const SecurityContext* ctx, const char* function, sqlite3* db) {
    StoreStatement query;
    const int step =
        query.prepare(db, select_foreign_code) ? sqlite3_step(query.get()) : sqlite3_errcode(db);
    if (step == SQLITE_DONE)
        return 0;
    if (step == SQLITE_ROW)
        return qxl_store_refuse(ctx, function, "the file holds triggers or views");
    return qxl_store_failed(ctx, function, db);
}

} // namespace

StatusCode qxl_store_refuse(const SecurityContext* ctx, const char* function, const char* cause) {
    qxu_print_trace(ctx, function, 5, "store %s: %s\n", store_path(ctx), cause);
    return QXL_ERR_STORE;
}

StatusCode qxl_store_failed(const SecurityContext* ctx, const char* function, sqlite3* db) {
    // SQLite gives no handle at all only when it cannot allocate one.
    return qxl_store_refuse(ctx, function, db != nullptr ? sqlite3_errmsg(db) : "out of memory");
}

StatusCode qxl_store_open(const SecurityContext* ctx, const char* function, bool create,
                          sqlite3** out) {
    // SQLite takes "" and ":memory:" for databases that vanish on close: no
    // place for texts meant to be kept.
    const char* path = store_path(ctx);
    if (path[0] == '\0' || std::strcmp(path, ":memory:") == 0)
        return qxl_store_refuse(ctx, function, "not a file that keeps what is stored");
    char openable[PATH_MAX];
    if (!plain_path(path, openable))
        return qxl_store_refuse(ctx, function, "the path is too long");
    if (const StatusCode refused = refuse_special_file(ctx, function, openable))
        return refused;
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    // SQLite makes a handle even when the open fails; it must still be closed.
    StatusCode status = 0;
    if (sqlite3_open_v2(openable, &db, flags, nullptr) != SQLITE_OK ||
        sqlite3_busy_timeout(db, busy_timeout_ms) != SQLITE_OK)
        status = qxl_store_failed(ctx, function, db);
    // A file only readable is opened read-only without a word; a writer
    // must hear of it now rather than at its first store.
    else if (create && sqlite3_db_readonly(db, "main") != 0)
        status = qxl_store_refuse(ctx, function, "the file is read-only");
    else if (create)
        status = set_up(ctx, function, db);
    if (status == 0)
        status = refuse_foreign_code(ctx, function, db);
    if (status != 0) {
        qxl_store_close(db);
        return status;
    }
    *out = db;
    return 0;
}

StatusCode qxl_store_check_name_length(const SecurityContext* ctx, const char* function,
                                       size_t length) {
    if (length <= QX_STORE_MAX_NAME_LENGTH)
        return 0;
    char cause[64];
    std::snprintf(cause, sizeof cause, "the name is longer than %u bytes",
                  QX_STORE_MAX_NAME_LENGTH);
    return qxl_store_refuse(ctx, function, cause);
}

void qxl_store_close(sqlite3* db) {
    sqlite3_close(db); // every statement is finalized by then
}

bool qxl_store_row_text(sqlite3_stmt* query, const char** text, uint32_t* length) {
    const auto* stored = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    const int size = sqlite3_column_bytes(query, 0);
    if (stored == nullptr && size > 0)
        return false;
    *text = stored != nullptr ? stored : "";
    *length = static_cast<uint32_t>(size);
    return true;
}
