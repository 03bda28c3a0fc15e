// The persistent store: texts kept by name in an SQLite file. The current
// text of a name lives in `current`; every text it replaced stays in
// `history` with the time it was stored, so an earlier CRL can always be
// recovered. Each store is one transaction, and the file runs in WAL mode
// with full sync, so a process killed mid-store leaves either the old or the
// new state, never a torn one.
#include <cstddef>
#include <cstring>
#include <new>

#include "store_database.h"
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

constexpr char retire_current[] = "INSERT INTO history (name, text, time) "
                                  "SELECT name, text, time FROM current WHERE name = ?1";
constexpr char replace_current[] = "INSERT INTO current (name, text, time) VALUES (?1, ?2, ?3) "
                                   "ON CONFLICT (name) DO UPDATE SET text = excluded.text, "
                                   "time = excluded.time";

// Only the module's one use is served: a CRL written as PEM under a name.
StatusCode check_request(const SecurityContext* ctx, uint32_t storeClass, uint32_t format,
                         uint32_t mode, const QxStoreDescriptor* descriptor) {
    if (storeClass != QX_STORE_CLASS_CRL || format != QX_STORE_FORMAT_PEM ||
        mode != QX_STORE_MODE_WRITE || descriptor->kind != QX_STORE_KIND_NAMED_TEXT ||
        descriptor->format != QX_STORE_FORMAT_PEM || descriptor->name == nullptr)
        return qxl_store_refuse(ctx, "qxiropen",
                                "only a CRL kept as PEM text under a name is stored");
    if (const StatusCode refused =
            qxl_store_check_name_length(ctx, "qxiropen", descriptor->nameLength))
        return refused;
    // A name with a NUL inside could never be read back by qxir_read.
    if (std::memchr(descriptor->name, '\0', descriptor->nameLength) != nullptr)
        return qxl_store_refuse(ctx, "qxiropen", "the name holds a NUL byte");
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
    if (const StatusCode refused = check_request(ctx, storeClass, format, mode, descriptor))
        return refused;
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
    const StatusCode status = qxl_store_open(ctx, "qxiropen", true, &opened->db);
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
    StoreStatement retire;
    StoreStatement replace;
    bool ok = retire.prepare(db, retire_current) && replace.prepare(db, replace_current) &&
              sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (uint32_t index = 0; ok && index < list->count; ++index)
        ok = store_item(retire.get(), replace.get(), handle, list->items[index], now);
    if (ok)
        ok = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (ok)
        return 0;
    const StatusCode status = qxl_store_failed(ctx, "qxirstore", db);
    if (sqlite3_get_autocommit(db) == 0)
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return status;
}

extern "C" void qxirclose(SecurityContext*, QxStoreHandle** handle) {
    if (handle == nullptr || *handle == nullptr)
        return;
    qxl_store_close((*handle)->db);
    delete[](*handle)->name;
    delete *handle;
    *handle = nullptr;
}
