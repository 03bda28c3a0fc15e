// Walking every version of a name in one pass: the versions in order, newest
// first, from one snapshot of the store, with work that grows with the
// number of versions and not with its square.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "store_calls.h"

using namespace qxtest;

namespace {

struct Version {
    uint32_t number;
    std::string text;
    bool operator==(const Version&) const = default;
};

// What a walk saw; it ends the walk with stopStatus at version stopAt.
struct Walk {
    std::vector<Version> seen;
    uint32_t stopAt = UINT32_MAX;
    StatusCode stopStatus = 0;
    bool terminated = true;

    static StatusCode visit(void* arg, uint32_t version, const char* text, uint32_t length) {
        auto* walk = static_cast<Walk*>(arg);
        walk->terminated = walk->terminated && text[length] == '\0';
        walk->seen.push_back({version, std::string(text, length)});
        return version == walk->stopAt ? walk->stopStatus : 0;
    }
};

std::vector<Version> numbered(const std::vector<std::string>& texts) {
    std::vector<Version> expected;
    for (const std::string& text : texts)
        expected.push_back({static_cast<uint32_t>(expected.size()), text});
    return expected;
}

// Counts the connections SQLite opens while it lives and the virtual-machine
// instructions they run, through an extension SQLite loads into each.
class SqliteWork {
  public:
    SqliteWork() {
        current_ = this;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(&attach));
    }
    ~SqliteWork() {
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&attach));
        current_ = nullptr;
    }
    SqliteWork(const SqliteWork&) = delete;
    SqliteWork& operator=(const SqliteWork&) = delete;

    uint64_t connections = 0;
    uint64_t instructions = 0;

  private:
    static int attach(sqlite3* db, char**, const sqlite3_api_routines*) {
        ++current_->connections;
        sqlite3_progress_handler(db, 1, &count, current_);
        return SQLITE_OK;
    }
    static int count(void* work) {
        ++static_cast<SqliteWork*>(work)->instructions;
        return 0;
    }
    static inline SqliteWork* current_ = nullptr;
};

class StoreHistoryTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ctx_ = make_layer(0, path_.c_str());
    }

    void store_all(const std::string& name, const std::vector<std::string>& texts) {
        QxStoreHandle* handle = nullptr;
        ASSERT_EQ(open_for(ctx_, named(name), &handle), 0u);
        ASSERT_EQ(store(ctx_, handle, texts), 0u);
        qxirclose(ctx_, &handle);
    }

    Walk walk(const std::string& name, StatusCode expected) {
        Walk walk;
        EXPECT_EQ(qxir_read_history(ctx_, name.c_str(), &Walk::visit, &walk), expected);
        EXPECT_TRUE(walk.terminated);
        return walk;
    }

    TempDir dir_;
    std::filesystem::path path_ = dir_ / "store.db";
};

} // namespace

TEST_F(StoreHistoryTest, WalksEveryVersionNewestFirst) {
    // Nothing stored yet: no file, then no such name.
    EXPECT_TRUE(walk("ca", QXL_ERR_STORE).seen.empty());
    const std::string binary("NUL\0inside \xC3\xA9\xFF", 14);
    store_all("ca", {"first", "", binary});
    store_all("other", {"not ca"});
    store_all("ca", {"last"});
    const std::vector<std::string> texts = {"last", binary, "", "first"};
    EXPECT_EQ(walk("ca", 0).seen, numbered(texts));
    // The same versions qxir_read gives one by one.
    EXPECT_EQ(versions(ctx_, "ca"), texts);
    EXPECT_EQ(walk("other", 0).seen, numbered({"not ca"}));
    EXPECT_TRUE(walk("c", QXL_ERR_STORE).seen.empty());

    // The visitor's status ends the walk and comes back.
    Walk stopped;
    stopped.stopAt = 1;
    stopped.stopStatus = 4242;
    EXPECT_EQ(qxir_read_history(ctx_, "ca", &Walk::visit, &stopped), 4242u);
    EXPECT_EQ(stopped.seen, numbered({"last", binary}));

    Walk unused;
    EXPECT_EQ(qxir_read_history(nullptr, "ca", &Walk::visit, &unused), QXL_ERR_BAD_ARGUMENT);
    SecurityContext bare{};
    EXPECT_EQ(qxir_read_history(&bare, "ca", &Walk::visit, &unused), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read_history(ctx_, nullptr, &Walk::visit, &unused), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxir_read_history(ctx_, "ca", nullptr, &unused), QXL_ERR_BAD_ARGUMENT);
    EXPECT_TRUE(unused.seen.empty());
}

TEST_F(StoreHistoryTest, StoresDuringTheWalkAreNotSeen) {
    store_all("ca", {"first", "second"});
    QxStoreHandle* writer = nullptr;
    ASSERT_EQ(open_for(ctx_, named("ca"), &writer), 0u);
    struct During {
        SecurityContext* ctx;
        QxStoreHandle* writer;
        std::vector<std::string> seen;
    } during{ctx_, writer, {}};
    // Each version seen stores a new one, which moves the current text into
    // the history while the walk is under way.
    const auto storeAndKeep = [](void* arg, uint32_t, const char* text, uint32_t length) {
        auto* state = static_cast<During*>(arg);
        state->seen.emplace_back(text, length);
        return store(state->ctx, state->writer, {"during " + std::to_string(state->seen.size())});
    };
    EXPECT_EQ(qxir_read_history(ctx_, "ca", storeAndKeep, &during), 0u);
    qxirclose(ctx_, &writer);
    EXPECT_EQ(during.seen, (std::vector<std::string>{"second", "first"}));
    EXPECT_EQ(versions(ctx_, "ca"),
              (std::vector<std::string>{"during 2", "during 1", "second", "first"}));
}

TEST_F(StoreHistoryTest, WorkGrowsWithTheVersionsNotTheirSquare) {
    // Reading version k by skipping the k before it costs about n * n / 2
    // steps for n versions: four times the versions, sixteen times the work.
    constexpr uint32_t few = 500;
    const auto texts = [](uint32_t count) {
        std::vector<std::string> made;
        for (uint32_t index = 0; index < count; ++index)
            made.push_back("version " + std::to_string(index));
        return made;
    };
    store_all("few", texts(few));
    store_all("many", texts(4 * few));
    const auto work = [&](const std::string& name, uint32_t count) {
        const SqliteWork counted;
        EXPECT_EQ(walk(name, 0).seen.size(), count);
        EXPECT_EQ(counted.connections, 1u) << name;
        return counted.instructions;
    };
    const uint64_t fewWork = work("few", few);
    const uint64_t manyWork = work("many", 4 * few);
    EXPECT_GT(fewWork, few); // at least one instruction per version
    EXPECT_LT(manyWork, 6 * fewWork) << few << " versions took " << fewWork << " instructions";
}
