#include "files.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace qxtest {

TempDir::TempDir(const std::filesystem::path& parent) {
    std::string pattern = (parent / "qxcrl-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<unsigned char> read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::filesystem::path& path, const std::vector<unsigned char>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

void write_text(const std::filesystem::path& path, const std::string& text) {
    write_file(path, std::vector<unsigned char>(text.begin(), text.end()));
}

void make_fifo(const std::filesystem::path& path) {
    if (mkfifo(path.c_str(), 0600) != 0)
        throw std::runtime_error("cannot make the FIFO " + path.string());
}

void make_sparse_file(const std::filesystem::path& path, uint64_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool made = fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0;
    if (fd >= 0)
        close(fd);
    if (!made)
        throw std::runtime_error("cannot make the sparse file " + path.string());
}

int run_in(const std::filesystem::path& dir, const std::string& command) {
    const std::string line = "cd '" + dir.string() + "' && (" + command + ") >>log.txt 2>&1";
    const int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string openssl_name_text(const std::filesystem::path& pem, const std::string& field) {
    const std::filesystem::path out = pem.string() + "." + field + ".txt";
    if (run_in(pem.parent_path(), "openssl x509 -in '" + pem.filename().string() + "' -noout -" +
                                      field + " -nameopt RFC2253,-esc_msb > '" +
                                      out.filename().string() + "'") != 0) {
        ADD_FAILURE() << "openssl x509 failed; see " << (pem.parent_path() / "log.txt");
        return {};
    }
    const std::vector<unsigned char> bytes = read_file(out);
    std::string text(bytes.begin(), bytes.end());
    const std::string prefix = field + "=";
    if (text.rfind(prefix, 0) != 0 || text.empty() || text.back() != '\n') {
        ADD_FAILURE() << "unexpected openssl output: " << text;
        return {};
    }
    return text.substr(prefix.size(), text.size() - prefix.size() - 1);
}

std::vector<unsigned char> pem_block(const std::filesystem::path& path, const std::string& label) {
    std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_file(path.c_str(), "r"), BIO_free);
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    std::vector<unsigned char> block;
    while (in != nullptr && block.empty() &&
           PEM_read_bio(in.get(), &name, &header, &data, &length) == 1) {
        if (label == name)
            block.assign(data, data + length);
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    ERR_clear_error();
    if (block.empty())
        ADD_FAILURE() << "no " << label << " block in " << path;
    return block;
}

bool openssl_crl_verifies(const std::filesystem::path& dir, const std::string& crl,
                          const std::string& ca) {
    const std::filesystem::path verdict = dir / (crl + ".verdict.txt");
    if (run_in(dir, "openssl crl -in '" + crl + "' -CAfile '" + ca + "' -verify -noout 2> '" +
                        verdict.filename().string() + "'") != 0)
        return false;
    const std::vector<unsigned char> bytes = read_file(verdict);
    return std::string(bytes.begin(), bytes.end()) == "verify OK\n";
}

std::vector<std::vector<std::string>> read_tsv(const std::filesystem::path& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line); // the header
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, '\t');)
            fields.push_back(field);
        rows.push_back(fields);
    }
    return rows;
}

std::filesystem::path corpus_dir() {
    const char* configured = std::getenv("QXCRL_CORPUS");
    std::filesystem::path dir = configured ? configured : QXCRL_DEFAULT_CORPUS;
    if (std::filesystem::is_directory(dir))
        return dir;
    // CI always has the corpus; elsewhere the tests that need it are skipped.
    if (std::getenv("QXCRL_REQUIRE_CORPUS") != nullptr)
        ADD_FAILURE() << "no test corpus at " << dir;
    return {};
}

} // namespace qxtest
