// A throwaway OpenLDAP directory for tests: Debian's /usr/sbin/slapd with a
// configuration and an mdb database of its own in a temporary directory,
// listening on a free port of 127.0.0.1 only, with anonymous read access.
// Entries are added over the wire with ldapadd as the directory's manager.
//
// Start one per test suite (SetUpTestSuite/TearDownTestSuite): starting
// takes a fraction of a second. The server is stopped by stop() or the
// destructor, and is killed by the kernel if the thread that made it ends
// first, so no slapd outlives the test process. Make it on the main thread.
#ifndef QXCRL_TESTS_SUPPORT_SLAPD_H
#define QXCRL_TESTS_SUPPORT_SLAPD_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qxtest {

class TempDir;

class Slapd {
  public:
    // How the directory carries certificateRevocationList. Binary is the
    // standard schema, which transfers the attribute only as
    // certificateRevocationList;binary. Plain makes it an octet string that
    // travels under the bare name, as some directories send it; ;binary is
    // then refused.
    enum class CrlTransfer { Binary, Plain };

    // The directory's suffix; its entry (dcObject, organization) exists
    // from the start.
    static constexpr char suffix[] = "dc=qxcrl,dc=test";

    // Writes the configuration, starts slapd and waits until it answers.
    // Throws std::runtime_error, with slapd's log, when it cannot.
    explicit Slapd(CrlTransfer transfer = CrlTransfer::Binary);
    // Stops the server and removes its directory.
    ~Slapd();
    Slapd(const Slapd&) = delete;
    Slapd& operator=(const Slapd&) = delete;

    uint16_t port() const { return port_; }

    // Adds the entry dn, whose parent must exist. objectClass is a
    // structural class that has the RDN's attribute (cRLDistributionPoint,
    // organizationalUnit, applicationProcess, ...) or the auxiliary pkiCA,
    // which gets the structural class its RDN needs (cn, ou or o). Each of
    // crls becomes one value of certificateRevocationList, under ;binary
    // when the directory is CrlTransfer::Binary; none makes a plain entry.
    // Throws std::runtime_error, with ldapadd's output, when the directory
    // refuses.
    void add_crl_entry(const std::string& dn, const std::string& objectClass,
                       const std::vector<std::vector<unsigned char>>& crls);

    // An RFC 4516 URL of this directory: the DN (escaped here), then the
    // attribute, scope ("base", "one", "sub") and filter when given.
    std::string url(const std::string& dn, const std::string& attribute = {},
                    const std::string& scope = {}, const std::string& filter = {}) const;

    // SIGSTOP and SIGCONT: while suspended, the kernel still completes
    // connections, but no request is ever answered.
    void suspend();
    void resume();

    // Stops the server (SIGTERM, SIGKILL when it has not ended within five
    // seconds) and waits for it. Harmless when already stopped.
    void stop();
    bool running() const { return pid_ > 0; }

  private:
    void write_configuration(CrlTransfer transfer);
    bool start_on(uint16_t port);
    void ldapadd(const std::string& ldif);
    std::string log() const;

    std::unique_ptr<TempDir> dir_;
    std::filesystem::path config_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
    bool binary_ = true;
};

} // namespace qxtest

#endif
