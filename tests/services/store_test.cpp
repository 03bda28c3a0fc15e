// The persistent store on a real SQLite file: texts read back byte for byte,
// a store that replaces the current text and keeps the earlier ones, the
// refusals, files that cannot be written, and a writer killed in the middle
// of its stores.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files.h"
#include "fixed_clock.h"
#include "layer_fixture.h"
#include "store_calls.h"

using namespace qxtest;

namespace {

class StoreTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        path_ = dir_ / "store.db";
        ctx_ = make_layer(0, path_.c_str());
    }

    TempDir dir_;
    std::filesystem::path path_;
};

} // namespace

TEST_F(StoreTest, ReplacesTheCurrentTextAndKeepsTheEarlierOnes) {
    const std::string name = "cn=Test CA,o=Example";
    QxStoreHandle* handle = nullptr;
    {
        // The handle keeps its own copy of the name.
        std::string transient = name;
        ASSERT_EQ(open_for(ctx_, named(transient), &handle), 0u);
        ASSERT_NE(handle, nullptr);
        transient.assign(transient.size(), 'x');
    }
    EXPECT_FALSE(read_back(ctx_, name, 0)); // nothing stored yet
    {
        const FixedClock clock(1767225600);
        ASSERT_EQ(store(ctx_, handle, {"first"}), 0u);
    }
    EXPECT_EQ(versions(ctx_, name), (std::vector<std::string>{"first"}));
    {
        const FixedClock clock(1767225700);
        ASSERT_EQ(store(ctx_, handle, {"second"}), 0u);
    }
    EXPECT_EQ(versions(ctx_, name), (std::vector<std::string>{"second", "first"}));
    // Several items in one call each replace the one before.
    ASSERT_EQ(store(ctx_, handle, {"third", "fourth"}), 0u);
    qxirclose(ctx_, &handle);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(versions(ctx_, name),
              (std::vector<std::string>{"fourth", "third", "second", "first"}));

    // Each text keeps the time it was stored at when it moves to the history.
    EXPECT_EQ(
        query(path_, "SELECT text, time FROM history WHERE text IN ('first', 'second') "
                     "ORDER BY seq"),
        (std::vector<std::vector<std::string>>{{"first", "1767225600"}, {"second", "1767225700"}}));
    EXPECT_EQ(query(path_, "PRAGMA journal_mode"),
              (std::vector<std::vector<std::string>>{{"wal"}}));

    // Another handle, in another layer, finds the same store.
    SecurityContext* other = make_layer(1, path_.c_str());
    ASSERT_EQ(open_for(other, named(name), &handle), 0u);
    ASSERT_EQ(store(other, handle, {"fifth"}), 0u);
    qxirclose(other, &handle);
    EXPECT_EQ(read_back(ctx_, name, 0), "fifth");
    EXPECT_EQ(read_back(ctx_, name, 4), "first");
    EXPECT_FALSE(read_back(ctx_, name, 5));
    EXPECT_FALSE(read_back(ctx_, name, UINT32_MAX));
    EXPECT_FALSE(read_back(ctx_, "cn=Other CA", 0));
    qxirclose(ctx_, &handle);
    qxirclose(ctx_, nullptr);
}

TEST_F(StoreTest, KeepsTextsAndNamesByteForByte) {
    std::string large(1 << 20, '\0');
    std::mt19937 generator(7);
    std::generate(large.begin(), large.end(), [&] { return static_cast<char>(generator()); });
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "stored under the empty name"},
        {"empty text", ""},
        {"bytes", std::string("line\r\nNUL\0inside \xC3\xA9\xFF", 20)},
        {"large", large},
        {"-----BEGIN X509 CRL-----", "a name that looks like text"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE("name \"" + name + "\"");
        QxStoreHandle* handle = nullptr;
        ASSERT_EQ(open_for(ctx_, named(name), &handle), 0u);
        EXPECT_EQ(store(ctx_, handle, {text}), 0u);
        qxirclose(ctx_, &handle);
        const std::optional<std::string> back = read_back(ctx_, name, 0);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == text) << back->size() << " bytes back of " << text.size();
    }
    // The name is its counted bytes, whatever follows them.
    QxStoreHandle* handle = nullptr;
    ASSERT_EQ(open_for(ctx_, named("abcdef", 3), &handle), 0u);
    ASSERT_EQ(store(ctx_, handle, {"under abc"}), 0u);
    qxirclose(ctx_, &handle);
    EXPECT_EQ(read_back(ctx_, "abc", 0), "under abc");
    EXPECT_FALSE(read_back(ctx_, "abcdef", 0));
    // An empty list stores nothing and is no error.
    ASSERT_EQ(open_for(ctx_, named("abc"), &handle), 0u);
    ASSERT_EQ(store(ctx_, handle, {}), 0u);
    qxirclose(ctx_, &handle);
    EXPECT_EQ(versions(ctx_, "abc"), (std::vector<std::string>{"under abc"}));
}

TEST_F(StoreTest, OpensOnlyACrlStoreForWriting) {
    QxStoreHandle* handle = nullptr;
    const QxStoreDescriptor good = named("ca");
    QxStoreDescriptor wrongKind = good;
    wrongKind.kind = 22;
    QxStoreDescriptor wrongFormat = good;
    wrongFormat.format = 32;
    QxStoreDescriptor noName = good;
    noName.name = nullptr;
    noName.nameLength = 0;
    const QxStoreDescriptor innerNul = named("c\0a", 3);
    struct Case {
        const char* what;
        uint32_t storeClass, format, mode;
        const QxStoreDescriptor* descriptor;
    };
    const Case refused[] = {
        {"class", 16, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE, &good},
        {"format", QX_STORE_CLASS_CRL, 32, QX_STORE_MODE_WRITE, &good},
        {"mode", QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, 0, &good},
        {"descriptor kind", QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
         &wrongKind},
        {"descriptor format", QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
         &wrongFormat},
        {"no name", QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE, &noName},
        {"NUL in the name", QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
         &innerNul},
    };
    for (const Case& item : refused) {
        SCOPED_TRACE(item.what);
        handle = reinterpret_cast<QxStoreHandle*>(&handle); // must be cleared
        EXPECT_EQ(qxiropen(ctx_, &handle, item.storeClass, item.format, item.mode, item.descriptor),
                  QXL_ERR_STORE);
        EXPECT_EQ(handle, nullptr);
    }
    EXPECT_FALSE(std::filesystem::exists(path_)); // refused before the file is touched

    EXPECT_EQ(qxiropen(ctx_, nullptr, QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
                       &good),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(open_for(nullptr, good, &handle), QXL_ERR_BAD_ARGUMENT);
    SecurityContext bare{};
    EXPECT_EQ(open_for(&bare, good, &handle), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxiropen(ctx_, &handle, QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM, QX_STORE_MODE_WRITE,
                       nullptr),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(handle, nullptr);

    ASSERT_EQ(open_for(ctx_, good, &handle), 0u);
    const QxStoreItemList noItems{2, nullptr};
    EXPECT_EQ(qxirstore(ctx_, handle, &noItems), QXL_ERR_BAD_ARGUMENT);
    QxStoreItem items[] = {{"fine", 4}, {nullptr, 3}};
    const QxStoreItemList halfBroken{2, items};
    EXPECT_EQ(qxirstore(ctx_, handle, &halfBroken), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxirstore(ctx_, handle, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxirstore(ctx_, nullptr, &halfBroken), QXL_ERR_BAD_ARGUMENT);
    qxirclose(ctx_, &handle);
    EXPECT_FALSE(read_back(ctx_, "ca", 0)); // nothing of a refused list was stored

    char* text = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(qxir_read(nullptr, "ca", 0, &text, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read(&bare, "ca", 0, &text, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read(ctx_, nullptr, 0, &text, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read(ctx_, "ca", 0, nullptr, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read(ctx_, "ca", 0, &text, nullptr), QXL_ERR_BAD_ARGUMENT);
}

TEST_F(StoreTest, FilesThatCannotBeWrittenGiveTheStoreStatus) {
    write_text(dir_ / "plain.txt", "not a database, and long enough to be read as one\n");
    std::filesystem::create_directory(dir_ / "directory");
    const std::vector<std::filesystem::path> paths = {
        dir_ / "missing" / "store.db",
        dir_ / "plain.txt" / "store.db",
        dir_ / "directory",
        dir_ / "plain.txt",
        "",         // SQLite's temporary database
        ":memory:", // and its database in memory
    };
    for (const std::filesystem::path& path : paths) {
        SCOPED_TRACE(path.string());
        SecurityContext* ctx = make_layer(0, path.c_str());
        QxStoreHandle* handle = nullptr;
        EXPECT_EQ(open_for(ctx, named("ca"), &handle), QXL_ERR_STORE);
        EXPECT_EQ(handle, nullptr);
        EXPECT_FALSE(read_back(ctx, "ca", 0));
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "missing"));
    // Reading never makes a store.
    EXPECT_FALSE(read_back(ctx_, "ca", 0));
    EXPECT_FALSE(std::filesystem::exists(path_));

    // A store file only readable: opening it for writing is refused. Root
    // writes whatever the mode says, so the check runs in a child that has
    // given up root.
    QxStoreHandle* handle = nullptr;
    ASSERT_EQ(open_for(ctx_, named("ca"), &handle), 0u);
    ASSERT_EQ(store(ctx_, handle, {"kept"}), 0u);
    qxirclose(ctx_, &handle);
    std::filesystem::permissions(path_, std::filesystem::perms::owner_read |
                                            std::filesystem::perms::group_read |
                                            std::filesystem::perms::others_read);
    // The directory is open to all, so that only the file's own mode stands
    // in the way.
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::others_all,
                                 std::filesystem::perm_options::add);
    trace_.clear();
    const int refused = run_unprivileged([&] {
        QxStoreHandle* readOnly = nullptr;
        if (open_for(ctx_, named("ca"), &readOnly) != QXL_ERR_STORE || readOnly != nullptr)
            return 1;
        // The trace names the cause, not the last SQLite call that went well.
        return store_traced(trace_, "qxiropen", path_, "the file is read-only") ? 0 : 2;
    });
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(read_back(ctx_, "ca", 0), "kept");
}

TEST_F(StoreTest, DefaultPathAndCopiedPath) {
    QxLayerConfig config;
    qxlayer_default_config(&config);
    EXPECT_STREQ(config.storePath, "qxstore.db");
    config.storePath = nullptr;
    SecurityContext* ctx = nullptr;
    ASSERT_EQ(qxlayer_create(&config, &ctx), 0u);
    EXPECT_STREQ(ctx->layerContext->storePath, "qxstore.db");
    qxlayer_destroy(&ctx);

    std::string path = (dir_ / "copied.db").string();
    config.storePath = path.c_str();
    ASSERT_EQ(qxlayer_create(&config, &ctx), 0u);
    path.assign(path.size(), 'x');
    EXPECT_EQ(std::string(ctx->layerContext->storePath), (dir_ / "copied.db").string());
    qxlayer_destroy(&ctx);
}

TEST_F(StoreTest, ReadAllocationFailureSweep) {
    QxStoreHandle* handle = nullptr;
    ASSERT_EQ(open_for(ctx_, named("ca"), &handle), 0u);
    ASSERT_EQ(store(ctx_, handle, {"older", "newer"}), 0u);
    qxirclose(ctx_, &handle);
    char* text = nullptr;
    uint32_t length = 0;
    sweep_allocations([&] { return qxir_read(ctx_, "ca", 1, &text, &length); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          if (injected) {
                              EXPECT_EQ(text, nullptr);
                          } else {
                              ASSERT_NE(text, nullptr);
                              EXPECT_EQ(std::string(text, length), "older");
                          }
                          qxumfree(ctx_, &text);
                      });
}

// ------------------------------------------------ a writer killed mid-store

namespace {

uint64_t fnv1a(const std::string& bytes) {
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char byte : bytes)
        hash = (hash ^ byte) * 1099511628211ull;
    return hash;
}

// A text that says what it is: its round, store, part, body length and the
// body's hash, then a body of varying size (up to several pages).
std::string checked_text(int round, uint64_t store, int part) {
    const size_t size = (store * 7919 + static_cast<uint64_t>(part) * 104729) % 30000 + 1;
    std::string body(size, ' ');
    uint64_t state = store * 2 + static_cast<uint64_t>(part) + 1;
    for (char& c : body) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        c = static_cast<char>('A' + (state >> 59));
    }
    return "QXT " + std::to_string(round) + " " + std::to_string(store) + " " +
           std::to_string(part) + " " + std::to_string(size) + " " + std::to_string(fnv1a(body)) +
           "\n" + body;
}

struct CheckedText {
    int round;
    uint64_t store;
    int part;
};

// The header of a stored text when its body is whole, else nothing.
std::optional<CheckedText> check_text(const std::string& text) {
    CheckedText parsed{};
    size_t size = 0;
    unsigned long long hash = 0;
    int consumed = 0;
    unsigned long long store = 0;
    if (std::sscanf(text.c_str(), "QXT %d %llu %d %zu %llu\n%n", &parsed.round, &store,
                    &parsed.part, &size, &hash, &consumed) != 5 ||
        consumed <= 0)
        return std::nullopt;
    parsed.store = store;
    const std::string body = text.substr(static_cast<size_t>(consumed));
    if (body.size() != size || fnv1a(body) != hash ||
        text != checked_text(parsed.round, parsed.store, parsed.part))
        return std::nullopt;
    return parsed;
}

// Stores pairs of texts, one pair per transaction, telling the parent after
// each commit; never returns.
[[noreturn]] void keep_storing(SecurityContext* ctx, int round, int acknowledge) {
    QxStoreHandle* handle = nullptr;
    if (open_for(ctx, named("round " + std::to_string(round)), &handle) != 0)
        _exit(3);
    for (uint64_t next = 0;; ++next) {
        if (store(ctx, handle, {checked_text(round, next, 0), checked_text(round, next, 1)}) != 0)
            _exit(4);
        const char done = 1;
        if (write(acknowledge, &done, 1) != 1)
            _exit(5);
    }
}

// Kills and reaps the writer however the test leaves its round.
class Writer {
  public:
    explicit Writer(pid_t pid) : pid_(pid) {}
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    ~Writer() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // Kills the writer now; its wait status.
    int kill_now() {
        int wstatus = 0;
        if (kill(pid_, SIGKILL) != 0 || waitpid(pid_, &wstatus, 0) != pid_)
            wstatus = -1;
        pid_ = -1;
        return wstatus;
    }

  private:
    pid_t pid_;
};

} // namespace

TEST_F(StoreTest, KilledWriterLeavesOnlyCompleteTexts) {
    std::mt19937 generator(2026);
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int pipeEnds[2];
        ASSERT_EQ(pipe(pipeEnds), 0);
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            close(pipeEnds[0]);
            keep_storing(ctx_, round, pipeEnds[1]);
        }
        Writer writer(child);
        close(pipeEnds[1]);
        // Let it commit a few stores, then kill it at some point of the next.
        const uint64_t before = 2 + static_cast<uint64_t>(round) * 3;
        uint64_t acknowledged = 0;
        char buffer[64];
        while (acknowledged < before) {
            const ssize_t got = read(pipeEnds[0], buffer, sizeof buffer);
            if (got < 0 && errno == EINTR)
                continue;
            ASSERT_GT(got, 0) << "the writer stopped early";
            acknowledged += static_cast<uint64_t>(got);
        }
        usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(generator));
        const int wstatus = writer.kill_now();
        ASSERT_NE(wstatus, -1);
        EXPECT_TRUE(WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGKILL);
        for (ssize_t got; (got = read(pipeEnds[0], buffer, sizeof buffer)) != 0;) {
            if (got < 0 && errno == EINTR)
                continue;
            ASSERT_GT(got, 0);
            acknowledged += static_cast<uint64_t>(got);
        }
        close(pipeEnds[0]);

        // The file opens, is sound, and every text in it is whole.
        QxStoreHandle* handle = nullptr;
        ASSERT_EQ(open_for(ctx_, named("after " + std::to_string(round)), &handle), 0u);
        EXPECT_EQ(store(ctx_, handle, {"the store still works"}), 0u);
        qxirclose(ctx_, &handle);
        EXPECT_EQ(query(path_, "PRAGMA integrity_check"),
                  (std::vector<std::vector<std::string>>{{"ok"}}));
        const std::string name = "round " + std::to_string(round);
        const auto rows = query(path_, "SELECT name, text FROM current UNION ALL "
                                       "SELECT name, text FROM history");
        uint64_t texts = 0;
        for (const auto& row : rows) {
            if (row[0] != name)
                continue;
            ++texts;
            const std::optional<CheckedText> parsed = check_text(row[1]);
            ASSERT_TRUE(parsed) << "a torn text of " << row[1].size() << " bytes";
            EXPECT_EQ(parsed->round, round);
        }
        // Every acknowledged store is there, and at most one more; no store
        // is there by half.
        EXPECT_EQ(texts % 2, 0u);
        EXPECT_GE(texts / 2, acknowledged);
        EXPECT_LE(texts / 2, acknowledged + 1);
        const std::vector<std::string> kept = versions(ctx_, name);
        ASSERT_EQ(kept.size(), texts);
        for (size_t version = 0; version < kept.size(); ++version) {
            const std::optional<CheckedText> parsed = check_text(kept[version]);
            ASSERT_TRUE(parsed);
            const uint64_t order = texts - 1 - version; // oldest first
            EXPECT_EQ(parsed->store, order / 2);
            EXPECT_EQ(parsed->part, static_cast<int>(order % 2));
        }
    }
}
