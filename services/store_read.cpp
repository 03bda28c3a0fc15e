// Reading the persistent store back: one version of a name, or all of them
// in a single pass, newest first.
#include <cstring>
#include <initializer_list>

#include "store_database.h"

namespace {

constexpr char select_current[] = "SELECT text FROM current WHERE name = ?1";
constexpr char select_earlier[] =
    "SELECT text FROM history WHERE name = ?1 ORDER BY seq DESC LIMIT 1 OFFSET ?2";
constexpr char select_history[] = "SELECT text FROM history WHERE name = ?1 ORDER BY seq DESC";

StatusCode open_reader(const SecurityContext* ctx, const char* function, const char* name,
                       sqlite3** db) {
    if (const StatusCode refused =
            qxl_store_check_name_length(ctx, function, strnlen(name, QX_STORE_MAX_NAME_LENGTH + 1)))
        return refused;
    // Readers never create a file.
    return qxl_store_open(ctx, function, false, db);
}

bool prepare_for(sqlite3* db, StoreStatement& statement, const char* sql, const char* name) {
    return statement.prepare(db, sql) &&
           sqlite3_bind_text(statement.get(), 1, name, -1, SQLITE_STATIC) == SQLITE_OK;
}

StatusCode read_version(SecurityContext* ctx, sqlite3* db, const char* name, uint32_t version,
                        char** text, uint32_t* length) {
    StoreStatement query;
    const bool ok =
        prepare_for(db, query, version == 0 ? select_current : select_earlier, name) &&
        (version == 0 ||
         sqlite3_bind_int64(query.get(), 2, static_cast<int64_t>(version) - 1) == SQLITE_OK);
    const int step = ok ? sqlite3_step(query.get()) : SQLITE_ERROR;
    if (step == SQLITE_DONE)
        return QXL_ERR_STORE; // no such name or version
    const char* stored = nullptr;
    uint32_t size = 0;
    if (step != SQLITE_ROW || !qxl_store_row_text(query.get(), &stored, &size))
        return qxl_store_failed(ctx, "qxir_read", db);
    StatusCode status = 0;
    auto* copy = static_cast<char*>(qxumalloc(ctx, size + 1, &status));
    if (copy == nullptr)
        return status;
    std::memcpy(copy, stored, static_cast<size_t>(size) + 1);
    *text = copy;
    *length = size;
    return 0;
}

StatusCode visit_versions(const SecurityContext* ctx, sqlite3* db, const char* name,
                          QxStoredTextVisitor visit, void* arg) {
    // Both queries read one snapshot: a store made between them would move
    // the current text into the history, where it would be seen twice.
    StoreStatement current;
    StoreStatement earlier;
    if (sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK ||
        !prepare_for(db, current, select_current, name) ||
        !prepare_for(db, earlier, select_history, name))
        return qxl_store_failed(ctx, "qxir_read_history", db);
    uint32_t version = 0;
    for (sqlite3_stmt* query : {current.get(), earlier.get()}) {
        int step = 0;
        while ((step = sqlite3_step(query)) == SQLITE_ROW) {
            const char* text = nullptr;
            uint32_t length = 0;
            if (!qxl_store_row_text(query, &text, &length))
                return qxl_store_failed(ctx, "qxir_read_history", db);
            if (const StatusCode stop = visit(arg, version, text, length))
                return stop;
            ++version;
        }
        if (step != SQLITE_DONE)
            return qxl_store_failed(ctx, "qxir_read_history", db);
        if (version == 0)
            return QXL_ERR_STORE; // no such name
    }
    return 0; // closing the connection ends the read transaction
}

} // namespace

extern "C" StatusCode qxir_read(SecurityContext* ctx, const char* name, uint32_t version,
                                char** text, uint32_t* length) {
    if (ctx == nullptr || ctx->layerContext == nullptr || name == nullptr || text == nullptr ||
        length == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    sqlite3* db = nullptr;
    StatusCode status = open_reader(ctx, "qxir_read", name, &db);
    if (status != 0)
        return status;
    status = read_version(ctx, db, name, version, text, length);
    qxl_store_close(db);
    return status;
}

extern "C" StatusCode qxir_read_history(SecurityContext* ctx, const char* name,
                                        QxStoredTextVisitor visit, void* arg) {
    if (ctx == nullptr || ctx->layerContext == nullptr || name == nullptr || visit == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    sqlite3* db = nullptr;
    StatusCode status = open_reader(ctx, "qxir_read_history", name, &db);
    if (status != 0)
        return status;
    status = visit_versions(ctx, db, name, visit, arg);
    qxl_store_close(db);
    return status;
}
