// The persistent store: texts kept by name in an SQLite file. The current
// text of a name lives in `current`; every text it replaced stays in
// `history` with the time it was stored, so an earlier CRL can always be
// recovered. Each store is one transaction, and the file runs in WAL mode
// with full sync, so a process killed mid-store leaves either the old or the
// new state, never a torn one.
#include <cstddef>
#include <cstring>
#include <new>

#include <sqlite3.h>

#include "toolkit_access.h"

static_assert(offsetof(QxStoreDescriptor, kind) == 0);
static_assert(offsetof(QxStoreDescriptor, name) == 8);
static_assert(offsetof(QxStoreDescriptor, nameLength) == 16);
static_assert(offsetof(QxStoreDescriptor, format) == 80);

struct QxStoreHandle {
    sqlite3* db = nullptr;
    char* name = nullptr; // NUL-terminated copy of the descriptor's name
    uint32_t nameLength = 0;
};

namespace {

// How long a store waits for another process's transaction to end.
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

constexpr char retire_current[] = "INSERT INTO history (name, text, time) "
                                  "SELECT name, text, time FROM current WHERE name = ?1";
constexpr char replace_current[] = "INSERT INTO current (name, text, time) VALUES (?1, ?2, ?3) "
                                   "ON CONFLICT (name) DO UPDATE SET text = excluded.text, "
                                   "time = excluded.time";
constexpr char select_current[] = "SELECT text FROM current WHERE name = ?1";
constexpr char select_earlier[] =
    "SELECT text FROM history WHERE name = ?1 ORDER BY seq DESC LIMIT 1 OFFSET ?2";

class Statement {
  public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(stmt_); }
    bool prepare(sqlite3* db, const char* sql) {
        return sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) == SQLITE_OK;
    }
    sqlite3_stmt* get() const { return stmt_; }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

StatusCode failed(const SecurityContext* ctx, const char* function, sqlite3* db) {
    qxu_print_trace(ctx, function, 5, "store: %s\n",
                    db != nullptr ? sqlite3_errmsg(db) : "cannot open the database");
    return QXL_ERR_STORE;
}

void close_database(sqlite3* db) {
    sqlite3_close(db); // every statement is finalized by then
}

// Opens the layer's store file; create is for writers, which also make sure
// the schema is there. Readers never create a file.
StatusCode open_database(const SecurityContext* ctx, const char* function, bool create,
                         sqlite3** out) {
    // SQLite takes "" and ":memory:" for databases that vanish on close: no
    // place for texts meant to be kept.
    const char* path = ctx->layerContext->storePath;
    if (path == nullptr || path[0] == '\0' || std::strcmp(path, ":memory:") == 0)
        return QXL_ERR_STORE;
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    // SQLite makes a handle even when the open fails; it must still be closed.
    bool ok = sqlite3_open_v2(path, &db, flags, nullptr) == SQLITE_OK &&
              sqlite3_busy_timeout(db, busy_timeout_ms) == SQLITE_OK;
    if (ok && create) {
        // A file only readable is opened read-only without a word; a writer
        // must hear of it now rather than at its first store.
        ok =
            sqlite3_db_readonly(db, "main") == 0 &&
            sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_exec(db, "PRAGMA synchronous = FULL", nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_exec(db, schema, nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    if (!ok) {
        const StatusCode status = failed(ctx, function, db);
        close_database(db);
        return status;
    }
    *out = db;
    return 0;
}

bool store_item(sqlite3_stmt* retire, sqlite3_stmt* replace, const QxStoreHandle* handle,
                const QxStoreItem& item, int64_t now) {
    // A zero-length text must still bind as text, not as NULL.
    const char* text = item.length == 0 ? "" : item.text;
    return sqlite3_bind_text(retire, 1, handle->name, static_cast<int>(handle->nameLength),
                             SQLITE_STATIC) == SQLITE_OK &&
           sqlite3_step(retire) == SQLITE_DONE && sqlite3_reset(retire) == SQLITE_OK &&
           sqlite3_bind_text(replace, 1, handle->name, static_cast<int>(handle->nameLength),
                             SQLITE_STATIC) == SQLITE_OK &&
           sqlite3_bind_text64(replace, 2, text, item.length, SQLITE_STATIC, SQLITE_UTF8) ==
               SQLITE_OK &&
           sqlite3_bind_int64(replace, 3, now) == SQLITE_OK &&
           sqlite3_step(replace) == SQLITE_DONE && sqlite3_reset(replace) == SQLITE_OK;
}

} // namespace

extern "C" StatusCode qxiropen(SecurityContext* ctx, QxStoreHandle** handle, uint32_t storeClass,
                               uint32_t format, uint32_t mode,
                               const QxStoreDescriptor* descriptor) {
    if (handle == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    *handle = nullptr;
    if (ctx == nullptr || ctx->layerContext == nullptr || descriptor == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    // Only the module's one use is served: a CRL written as PEM under a name.
    // A name with a NUL inside could never be read back by qxir_read.
    if (storeClass != QX_STORE_CLASS_CRL || format != QX_STORE_FORMAT_PEM ||
        mode != QX_STORE_MODE_WRITE || descriptor->kind != QX_STORE_KIND_NAMED_TEXT ||
        descriptor->format != QX_STORE_FORMAT_PEM || descriptor->name == nullptr ||
        descriptor->nameLength > INT32_MAX ||
        std::memchr(descriptor->name, '\0', descriptor->nameLength) != nullptr)
        return QXL_ERR_STORE;
    auto* opened = new (std::nothrow) QxStoreHandle;
    if (opened == nullptr)
        return QXL_ERR_OUT_OF_MEMORY;
    opened->name = new (std::nothrow) char[static_cast<size_t>(descriptor->nameLength) + 1];
    if (opened->name == nullptr) {
        delete opened;
        return QXL_ERR_OUT_OF_MEMORY;
    }
    std::memcpy(opened->name, descriptor->name, descriptor->nameLength);
    opened->name[descriptor->nameLength] = '\0';
    opened->nameLength = descriptor->nameLength;
    const StatusCode status = open_database(ctx, "qxiropen", true, &opened->db);
    if (status != 0) {
        qxirclose(ctx, &opened);
        return status;
    }
    *handle = opened;
    return 0;
}

extern "C" StatusCode qxirstore(SecurityContext* ctx, QxStoreHandle* handle,
                                const QxStoreItemList* list) {
    if (handle == nullptr || handle->db == nullptr || list == nullptr ||
        (list->items == nullptr && list->count != 0))
        return QXL_ERR_BAD_ARGUMENT;
    for (uint32_t index = 0; index < list->count; ++index) {
        if (list->items[index].text == nullptr && list->items[index].length != 0)
            return QXL_ERR_BAD_ARGUMENT;
    }
    int64_t now = 0;
    const StatusCode clock = qxl_toolkit_now(ctx, &now);
    if (clock != 0)
        return clock;
    sqlite3* db = handle->db;
    Statement retire;
    Statement replace;
    bool ok = retire.prepare(db, retire_current) && replace.prepare(db, replace_current) &&
              sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (uint32_t index = 0; ok && index < list->count; ++index)
        ok = store_item(retire.get(), replace.get(), handle, list->items[index], now);
    if (ok)
        ok = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (ok)
        return 0;
    const StatusCode status = failed(ctx, "qxirstore", db);
    if (sqlite3_get_autocommit(db) == 0)
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return status;
}

extern "C" void qxirclose(SecurityContext*, QxStoreHandle** handle) {
    if (handle == nullptr || *handle == nullptr)
        return;
    close_database((*handle)->db);
    delete[](*handle)->name;
    delete *handle;
    *handle = nullptr;
}

extern "C" StatusCode qxir_read(SecurityContext* ctx, const char* name, uint32_t version,
                                char** text, uint32_t* length) {
    if (ctx == nullptr || ctx->layerContext == nullptr || name == nullptr || text == nullptr ||
        length == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    sqlite3* db = nullptr;
    StatusCode status = open_database(ctx, "qxir_read", false, &db);
    if (status != 0)
        return status;
    {
        Statement query;
        bool ok =
            query.prepare(db, version == 0 ? select_current : select_earlier) &&
            sqlite3_bind_text(query.get(), 1, name, -1, SQLITE_STATIC) == SQLITE_OK &&
            (version == 0 ||
             sqlite3_bind_int64(query.get(), 2, static_cast<int64_t>(version) - 1) == SQLITE_OK);
        const int step = ok ? sqlite3_step(query.get()) : SQLITE_ERROR;
        const void* stored = step == SQLITE_ROW ? sqlite3_column_blob(query.get(), 0) : nullptr;
        const int size = step == SQLITE_ROW ? sqlite3_column_bytes(query.get(), 0) : 0;
        if (step == SQLITE_ROW && stored == nullptr && size > 0) {
            status = failed(ctx, "qxir_read", db); // SQLite ran out of memory
        } else if (step == SQLITE_ROW) {
            auto* copy =
                static_cast<char*>(qxumalloc(ctx, static_cast<uint32_t>(size) + 1, &status));
            if (copy != nullptr) {
                if (size > 0)
                    std::memcpy(copy, stored, static_cast<size_t>(size));
                copy[size] = '\0';
                *text = copy;
                *length = static_cast<uint32_t>(size);
            }
        } else if (step == SQLITE_DONE) {
            status = QXL_ERR_STORE; // no such name or version
        } else {
            status = failed(ctx, "qxir_read", db);
        }
    }
    close_database(db);
    return status;
}
