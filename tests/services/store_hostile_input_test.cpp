// Store files and names that are not what the store expects: special files,
// files that are not SQLite databases or carry code of their own, names it
// cannot keep, and paths SQLite would take for URIs. Each gives
// QXL_ERR_STORE with a trace that says why; none hangs.
#include <climits>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "store_calls.h"

using namespace qxtest;

namespace {

StatusCode ignore_version(void*, uint32_t, const char*, uint32_t) {
    return 0;
}

// Runs SQL on the SQLite file at path (made when missing), then opens the
// file to all.
void make_database(const std::filesystem::path& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << error;
    sqlite3_free(error);
    sqlite3_close(db);
    chmod(path.c_str(), 0666);
}

class StoreHostileInputTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        // Open to all: the checks run in a child that has given up root.
        std::filesystem::permissions(dir_.path(), std::filesystem::perms::all);
    }

    // In a child without root: storing, reading and walking the history at
    // path all fail with QXL_ERR_STORE and a trace "store PATH: cause".
    // Complaints go to stderr; the child's exit status, 0 when all held.
    int refused_everywhere(const std::filesystem::path& path, const std::string& cause) {
        return run_unprivileged([&] {
            SecurityContext* ctx = make_layer(0, path.c_str());
            int complaints = 0;
            const auto expect = [&](const char* function, StatusCode status) {
                if (status == QXL_ERR_STORE && store_traced(trace_, function, path, cause))
                    return;
                std::fprintf(stderr, "%s on %s: status %u, trace:\n", function, path.c_str(),
                             status);
                for (const TraceEntry& entry : trace_.messages())
                    std::fprintf(stderr, "  %s: %s", entry.function.c_str(), entry.text.c_str());
                ++complaints;
            };
            // A damaged file may open and fail only when the store reaches
            // the damage.
            QxStoreHandle* handle = nullptr;
            const StatusCode opened = open_for(ctx, named("ca"), &handle);
            if (opened == 0)
                expect("qxirstore", store(ctx, handle, {"lost"}));
            else
                expect("qxiropen", opened);
            qxirclose(ctx, &handle);
            char* text = nullptr;
            uint32_t length = 0;
            expect("qxir_read", qxir_read(ctx, "ca", 0, &text, &length));
            expect("qxir_read_history", qxir_read_history(ctx, "ca", ignore_version, nullptr));
            return text == nullptr ? complaints : 100;
        });
    }

    TempDir dir_;
};

} // namespace

TEST_F(StoreHostileInputTest, SpecialFilesAreRefusedWithoutTouchingThem) {
    const std::filesystem::path fifo = dir_ / "fifo.db";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
    const std::filesystem::path zero = dir_ / "zero.db";
    std::filesystem::create_symlink("/dev/zero", zero);
    const std::filesystem::path null = dir_ / "null.db";
    std::filesystem::create_symlink("/dev/null", null);
    const std::filesystem::path directory = dir_ / "directory.db";
    std::filesystem::create_directory(directory);
    const std::filesystem::path loop = dir_ / "loop.db";
    std::filesystem::create_symlink(loop.filename(), loop);

    // A FIFO blocked the first read for good; /dev/zero and /dev/null took
    // every store and kept none.
    EXPECT_EQ(refused_everywhere(fifo, "not a regular file"), 0);
    EXPECT_EQ(refused_everywhere(zero, "not a regular file"), 0);
    EXPECT_EQ(refused_everywhere(null, "not a regular file"), 0);
    EXPECT_EQ(refused_everywhere(directory, "not a regular file"), 0);
    EXPECT_EQ(refused_everywhere(loop, "Too many levels of symbolic links"), 0);
    EXPECT_EQ(std::filesystem::status(fifo).type(), std::filesystem::file_type::fifo);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(StoreHostileInputTest, FilesThatAreNotStoresAreRefused) {
    const std::filesystem::path text = dir_ / "text.db";
    write_text(text, std::string(4096, 'x'));
    chmod(text.c_str(), 0666);
    EXPECT_EQ(refused_everywhere(text, "file is not a database"), 0);

    // A page of an SQLite file overwritten: the header is still sound.
    const std::filesystem::path torn = dir_ / "torn.db";
    make_database(torn, "CREATE TABLE current (name TEXT PRIMARY KEY, text TEXT, time INTEGER);"
                        "INSERT INTO current VALUES ('ca', 'kept', 1)");
    {
        std::vector<unsigned char> bytes = read_file(torn);
        ASSERT_GE(bytes.size(), 8192u);
        std::fill(bytes.begin() + 4096, bytes.end(), 0xEE);
        write_file(torn, bytes);
    }
    EXPECT_EQ(refused_everywhere(torn, "database disk image is malformed"), 0);
}

TEST_F(StoreHostileInputTest, FilesCarryingTheirOwnCodeAreRefused) {
    // SQL of the file's choosing would run on every store or read; these
    // never end.
    const std::string endless =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT max(i) FROM n";
    const std::filesystem::path trigger = dir_ / "trigger.db";
    const std::filesystem::path view = dir_ / "view.db";
    {
        // A store that works, then the code is added behind its back.
        SecurityContext* ctx = make_layer(0, trigger.c_str());
        QxStoreHandle* handle = nullptr;
        ASSERT_EQ(open_for(ctx, named("ca"), &handle), 0u);
        ASSERT_EQ(store(ctx, handle, {"kept"}), 0u);
        qxirclose(ctx, &handle);
    }
    make_database(trigger,
                  "CREATE TRIGGER endless AFTER INSERT ON current BEGIN " + endless + "; END");
    make_database(view, "CREATE VIEW current AS SELECT 'ca' AS name, (" + endless +
                            ") AS text, 0 AS time");
    for (const char* sidecar : {"-wal", "-shm"})
        chmod((trigger.string() + sidecar).c_str(), 0666);
    EXPECT_EQ(refused_everywhere(trigger, "the file holds triggers or views"), 0);
    EXPECT_EQ(refused_everywhere(view, "the file holds triggers or views"), 0);
}

TEST_F(StoreHostileInputTest, NamesTheStoreCannotKeepAreRefused) {
    const std::filesystem::path path = dir_ / "store.db";
    SecurityContext* ctx = make_layer(0, path.c_str());
    QxStoreHandle* handle = nullptr;
    EXPECT_EQ(open_for(ctx, named("c\0a", 3), &handle), QXL_ERR_STORE);
    EXPECT_TRUE(store_traced(trace_, "qxiropen", path, "the name holds a NUL byte"));

    const std::string longest(QX_STORE_MAX_NAME_LENGTH, 'n');
    const std::string tooLong = longest + "n";
    const std::string cause = "the name is longer than 65536 bytes";
    EXPECT_EQ(open_for(ctx, named(tooLong), &handle), QXL_ERR_STORE);
    EXPECT_TRUE(store_traced(trace_, "qxiropen", path, cause));
    trace_.clear();
    // A length far past the name's bytes is refused before they are read.
    EXPECT_EQ(open_for(ctx, named("ca", 1u << 30), &handle), QXL_ERR_STORE);
    EXPECT_TRUE(store_traced(trace_, "qxiropen", path, cause));
    EXPECT_EQ(handle, nullptr);
    EXPECT_FALSE(std::filesystem::exists(path));

    ASSERT_EQ(open_for(ctx, named(longest), &handle), 0u);
    ASSERT_EQ(store(ctx, handle, {"first", "second"}), 0u);
    qxirclose(ctx, &handle);
    EXPECT_EQ(versions(ctx, longest), (std::vector<std::string>{"second", "first"}));
    EXPECT_FALSE(read_back(ctx, tooLong, 0));
    EXPECT_TRUE(store_traced(trace_, "qxir_read", path, cause));
    EXPECT_EQ(qxir_read_history(ctx, tooLong.c_str(), ignore_version, nullptr), QXL_ERR_STORE);
    EXPECT_TRUE(store_traced(trace_, "qxir_read_history", path, cause));
}

TEST_F(StoreHostileInputTest, PathsAreFileNamesOnly) {
    // SQLite reads a name starting with "file:" as a URI, which can name a
    // database in memory or another file.
    const std::vector<std::string> paths = {"file::memory:", "file:store.db?mode=memory",
                                            "file:other.db"};
    const int kept = run_unprivileged([&] {
        if (chdir(dir_.path().c_str()) != 0)
            return 100;
        int lost = 0;
        for (const std::string& path : paths) {
            SecurityContext* ctx = make_layer(0, path.c_str());
            QxStoreHandle* handle = nullptr;
            if (open_for(ctx, named("ca"), &handle) != 0 || store(ctx, handle, {"kept"}) != 0)
                return 101;
            qxirclose(ctx, &handle);
            lost += read_back(ctx, "ca", 0) != "kept";
        }
        return lost;
    });
    EXPECT_EQ(kept, 0);
    for (const std::string& path : paths)
        EXPECT_TRUE(std::filesystem::is_regular_file(dir_ / path)) << path;
    EXPECT_FALSE(std::filesystem::exists(dir_ / "store.db"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "other.db"));

    // No file has a path that long.
    EXPECT_EQ(refused_everywhere(dir_ / std::string(PATH_MAX, 'p'), "the path is too long"), 0);
}
