// The SQLite side of the persistent store: opening the layer's store file
// safely, prepared statements, and the trace of a failure.
#ifndef QXCRL_SERVICES_STORE_DATABASE_H
#define QXCRL_SERVICES_STORE_DATABASE_H

#include <cstddef>
#include <cstdint>

#include <sqlite3.h>

#include "qxlayer.h"

class StoreStatement {
  public:
    StoreStatement() = default;
    StoreStatement(const StoreStatement&) = delete;
    StoreStatement& operator=(const StoreStatement&) = delete;
    ~StoreStatement() { sqlite3_finalize(stmt_); }
    bool prepare(sqlite3* db, const char* sql) {
        return sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) == SQLITE_OK;
    }
    sqlite3_stmt* get() const { return stmt_; }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

/* Traces "store PATH: cause" for the layer's store file; QXL_ERR_STORE. */
StatusCode qxl_store_refuse(const SecurityContext* ctx, const char* function, const char* cause);

/* qxl_store_refuse with SQLite's message for the call on db that failed. */
StatusCode qxl_store_failed(const SecurityContext* ctx, const char* function, sqlite3* db);

/*
 * Opens the layer's store file into *db, refusing anything but a regular
 * file. create is for writers: the file is made when missing, must be
 * writable, and is set up (WAL, full sync, the tables) before *db is handed
 * out. A file holding triggers or views is refused, since they would run
 * code of the file's choosing on every read or store.
 */
StatusCode qxl_store_open(const SecurityContext* ctx, const char* function, bool create,
                          sqlite3** db);

void qxl_store_close(sqlite3* db);

/* Refuses (QXL_ERR_STORE with a trace) a name longer than QX_STORE_MAX_NAME_LENGTH. */
StatusCode qxl_store_check_name_length(const SecurityContext* ctx, const char* function,
                                       size_t length);

/*
 * The text in column 0 of the row query is on, NUL-terminated and owned by
 * SQLite until query moves on; false when SQLite ran out of memory making it.
 */
bool qxl_store_row_text(sqlite3_stmt* query, const char** text, uint32_t* length);

#endif
