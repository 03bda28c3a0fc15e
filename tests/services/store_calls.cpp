#include "store_calls.h"

#include <cstring>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace qxtest {

QxStoreDescriptor named(const char* name, uint32_t length) {
    QxStoreDescriptor descriptor;
    std::memset(&descriptor, 0xA5, sizeof descriptor); // the module sets nothing else
    descriptor.kind = QX_STORE_KIND_NAMED_TEXT;
    descriptor.name = name;
    descriptor.nameLength = length;
    descriptor.format = QX_STORE_FORMAT_PEM;
    return descriptor;
}

QxStoreDescriptor named(const std::string& name) {
    return named(name.c_str(), static_cast<uint32_t>(name.size()));
}

QxStoreDescriptor named(const char* name) {
    return named(name, static_cast<uint32_t>(std::strlen(name)));
}

StatusCode open_for(SecurityContext* ctx, const QxStoreDescriptor& descriptor,
                    QxStoreHandle** handle) {
    return qxiropen(ctx, handle, QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
                    &descriptor);
}

StatusCode store(SecurityContext* ctx, QxStoreHandle* handle,
                 const std::vector<std::string>& texts) {
    std::vector<QxStoreItem> items;
    for (const std::string& text : texts)
        items.push_back({text.data(), static_cast<uint32_t>(text.size())});
    const QxStoreItemList list{static_cast<uint32_t>(items.size()), items.data()};
    return qxirstore(ctx, handle, &list);
}

std::optional<std::string> read_back(SecurityContext* ctx, const std::string& name,
                                     uint32_t version) {
    char* text = nullptr;
    uint32_t length = 0;
    const StatusCode status = qxir_read(ctx, name.c_str(), version, &text, &length);
    if (status != 0) {
        EXPECT_EQ(status, QXL_ERR_STORE);
        EXPECT_EQ(text, nullptr);
        return std::nullopt;
    }
    EXPECT_EQ(text[length], '\0');
    std::string copy(text, length);
    qxumfree(ctx, &text);
    return copy;
}

std::vector<std::string> versions(SecurityContext* ctx, const std::string& name) {
    std::vector<std::string> found;
    for (uint32_t version = 0;; ++version) {
        std::optional<std::string> text = read_back(ctx, name, version);
        if (!text)
            return found;
        found.push_back(*text);
    }
}

std::vector<std::vector<std::string>> query(const std::filesystem::path& path,
                                            const std::string& sql) {
    std::vector<std::vector<std::string>> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db);
        sqlite3_close(db);
        return rows;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
    } else {
        int step = 0;
        while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int column = 0; column < sqlite3_column_count(stmt); ++column) {
                const auto* bytes = static_cast<const char*>(sqlite3_column_blob(stmt, column));
                row.emplace_back(bytes == nullptr ? "" : bytes,
                                 static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
            }
            rows.push_back(row);
        }
        EXPECT_EQ(step, SQLITE_DONE) << sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

bool store_traced(const TraceLog& log, const std::string& function,
                  const std::filesystem::path& path, const std::string& cause) {
    const std::string expected = "store " + path.string() + ": " + cause + "\n";
    for (const TraceEntry& entry : log.messages()) {
        if (entry.function == function && entry.text == expected)
            return true;
    }
    return false;
}

int run_unprivileged(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == -1)
        return -1;
    if (child == 0) {
        alarm(20);
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(125);
        _exit(body());
    }
    int wstatus = 0;
    if (waitpid(child, &wstatus, 0) != child || !WIFEXITED(wstatus))
        return -1;
    return WEXITSTATUS(wstatus);
}

} // namespace qxtest
