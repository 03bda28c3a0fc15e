// Writers that meet on a store file nobody has made yet: each process sets up
// the file on its first store, and none may fail because another is doing
// the same at that moment.
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "store_calls.h"

using namespace qxtest;

namespace {

constexpr int writers = 3;

// Waits until the parent lets every writer go at once, then stores one text
// under its own name; exits 0 when the store succeeded.
[[noreturn]] void first_store(SecurityContext* ctx, int start, int writer) {
    char go = 0;
    if (read(start, &go, 1) != 0)
        _exit(3);
    const std::string name = "writer " + std::to_string(writer);
    QxStoreHandle* handle = nullptr;
    StatusCode status = open_for(ctx, named(name), &handle);
    if (status == 0)
        status = store(ctx, handle, {"text of " + name});
    qxirclose(ctx, &handle);
    _exit(status == 0 ? 0 : 1);
}

class StoreFirstUseTest : public LayerTest {};

} // namespace

TEST_F(StoreFirstUseTest, ConcurrentFirstStoresAllSucceed) {
    int failedRounds = 0;
    for (int round = 0; round < 100; ++round) {
        const TempDir dir;
        const std::string path = (dir / "store.db").string();
        SecurityContext* ctx = make_layer(0, path.c_str());
        int start[2];
        ASSERT_EQ(pipe(start), 0);
        std::vector<pid_t> children;
        for (int writer = 0; writer < writers; ++writer) {
            const pid_t child = fork();
            ASSERT_NE(child, -1);
            if (child == 0) {
                close(start[1]);
                first_store(ctx, start[0], writer);
            }
            children.push_back(child);
        }
        close(start[0]);
        close(start[1]); // every writer starts now
        int failed = 0;
        for (const pid_t child : children) {
            int wstatus = 0;
            ASSERT_EQ(waitpid(child, &wstatus, 0), child);
            failed += !WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0;
        }
        failedRounds += failed != 0;
        if (failed != 0)
            continue;
        for (int writer = 0; writer < writers; ++writer) {
            const std::string name = "writer " + std::to_string(writer);
            EXPECT_EQ(versions(ctx, name), std::vector<std::string>{"text of " + name});
        }
    }
    EXPECT_EQ(failedRounds, 0) << "rounds where a first store failed";
}
