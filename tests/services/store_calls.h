// Calls on the persistent store shared by its tests: descriptors for a name,
// stores and reads that check what they get, queries on the store file, and
// a child process that runs without root.
#ifndef QXCRL_TESTS_SERVICES_STORE_CALLS_H
#define QXCRL_TESTS_SERVICES_STORE_CALLS_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "layer_fixture.h"
#include "qxcrl.h"

namespace qxtest {

// The descriptor borrows the name: it must outlive the descriptor's use.
QxStoreDescriptor named(const char* name, uint32_t length);
QxStoreDescriptor named(const std::string& name);
QxStoreDescriptor named(const char* name);

StatusCode open_for(SecurityContext* ctx, const QxStoreDescriptor& descriptor,
                    QxStoreHandle** handle);

StatusCode store(SecurityContext* ctx, QxStoreHandle* handle,
                 const std::vector<std::string>& texts);

// The text of a version, or nothing when the store has none.
std::optional<std::string> read_back(SecurityContext* ctx, const std::string& name,
                                     uint32_t version);

// Every version of name, current first, read one by one.
std::vector<std::string> versions(SecurityContext* ctx, const std::string& name);

// Rows of a query on the store file, each column as text.
std::vector<std::vector<std::string>> query(const std::filesystem::path& path,
                                            const std::string& sql);

// Whether log holds the store's trace "store PATH: cause" under function.
bool store_traced(const TraceLog& log, const std::string& function,
                  const std::filesystem::path& path, const std::string& cause);

// Runs body in a child process that has given up root (root writes whatever
// a file's mode says, and may write into /dev); the child's exit status, or
// -1 when it did not exit. The child is killed after 20 s, so that a hang
// fails the test instead of stopping it.
int run_unprivileged(const std::function<int()>& body);

} // namespace qxtest

#endif
