// Files and commands for tests: a scratch directory, whole-file reads and
// writes, and running the openssl command as a peer.
#ifndef QXCRL_TESTS_SUPPORT_FILES_H
#define QXCRL_TESTS_SUPPORT_FILES_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qxtest {

class TempDir {
  public:
    // A new directory in parent, by default the system's place for them.
    explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path());
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

std::vector<unsigned char> read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const std::vector<unsigned char>& bytes);
void write_text(const std::filesystem::path& path, const std::string& text);

// A FIFO at path, which opening for reading waits on until a writer comes.
void make_fifo(const std::filesystem::path& path);

// A file of size zero bytes at path that takes no room on disk: a hole.
void make_sparse_file(const std::filesystem::path& path, uint64_t size);

// Runs a shell command in dir; its exit status, with output in log.txt there.
int run_in(const std::filesystem::path& dir, const std::string& command);

// What `openssl x509 -noout -<field> -nameopt RFC2253,-esc_msb` prints for
// the PEM certificate at pem (field "issuer" or "subject"), without the
// "<field>=" prefix and the line end; empty with a test failure if it fails.
std::string openssl_name_text(const std::filesystem::path& pem, const std::string& field);

// The content of the first PEM block labelled label in the file at path (a
// bundle may hold several); empty with a test failure if it has none.
std::vector<unsigned char> pem_block(const std::filesystem::path& path, const std::string& label);

// Whether `openssl crl -verify` finds the signature of the CRL in file crl
// (DER or PEM) good under the PEM certificate in file ca, both in dir. Read
// from what it prints: it exits with 0 for a signature that does not verify.
bool openssl_crl_verifies(const std::filesystem::path& dir, const std::string& crl,
                          const std::string& ca);

// The rows of a tab-separated file after its header line, each split into fields.
std::vector<std::vector<std::string>> read_tsv(const std::filesystem::path& path);

// The shared test corpus, or an empty path when this checkout has none.
std::filesystem::path corpus_dir();

} // namespace qxtest

#endif
