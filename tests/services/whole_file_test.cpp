// Whole-file reads of the layer (qxfile_read_whole, and the certificate and
// key loaders that read through it) on real special files: a FIFO, devices,
// a directory, sparse files over the size limit and files exactly at it.
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "watchdog.h"

using namespace qxtest;

namespace {

constexpr std::chrono::seconds no_hang(10);

class WholeFileTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        write_text(dir_ / "cert.pem", cert_pem(shared_issuer().cert.get()));
        write_text(dir_ / "key.pem", key_pem(shared_issuer().key.get()));
    }

    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    // Reads path whole with qxfile_read_whole; the bytes read in *content.
    StatusCode read_whole(const std::string& file, Bytes* content = nullptr) {
        unsigned char* bytes = nullptr;
        uint32_t length = 77;
        const StatusCode status = qxfile_read_whole(ctx_, file.c_str(), &bytes, &length);
        EXPECT_EQ(bytes == nullptr, status != 0);
        if (status != 0) {
            EXPECT_EQ(length, 0u);
        } else if (content != nullptr) {
            *content = Bytes(bytes, bytes + length);
        }
        qxumfree(ctx_, &bytes);
        return status;
    }

    // qxfile_read_one_crl on path; the CRL's DER as the library writes it in *written.
    StatusCode read_one_crl(const std::string& file, Bytes* written = nullptr) {
        CrlObject* crl = nullptr;
        const StatusCode status = qxfile_read_one_crl(ctx_, file.c_str(), &crl);
        EXPECT_EQ(crl == nullptr, status != 0);
        if (crl != nullptr && written != nullptr) {
            unsigned char* der = nullptr;
            uint32_t length = 0;
            EXPECT_EQ(qxcrl_GetDER(ctx_, crl, &der, &length), 0u);
            *written = Bytes(der, der + length);
            qxumfree(ctx_, &der);
        }
        qxcrl_Destroy(ctx_, &crl);
        return status;
    }

    // The ways a file reaches the layer whole, each giving its status.
    std::vector<std::pair<std::string, std::function<StatusCode(const std::string&)>>> readers() {
        return {
            {"qxfile_read_whole", [this](const std::string& file) { return read_whole(file); }},
            {"qxcert_from_file",
             [this](const std::string& file) {
                 CertificateRecord* record = nullptr;
                 const StatusCode status = qxcert_from_file(ctx_, file.c_str(), &record);
                 qxcert_free(ctx_, &record);
                 return status;
             }},
            {"qxdk_key_from_file",
             [this](const std::string& file) {
                 QxPrivateKey* key = nullptr;
                 const StatusCode status = qxdk_key_from_file(ctx_, file.c_str(), nullptr, &key);
                 qxdk_key_free(ctx_, &key);
                 return status;
             }},
            {"qxfile_read_one_crl", [this](const std::string& file) { return read_one_crl(file); }},
        };
    }

    TempDir dir_;
};

} // namespace

TEST_F(WholeFileTest, ReadsRegularFilesWhole) {
    Bytes content;
    ASSERT_EQ(read_whole(path("cert.pem"), &content), 0u);
    EXPECT_EQ(content, read_file(dir_ / "cert.pem"));
    write_file(dir_ / "empty", {});
    EXPECT_EQ(read_whole(path("empty"), &content), 0u);
    EXPECT_TRUE(content.empty());
    EXPECT_EQ(read_whole(path("missing")), QXL_ERR_FILE);

    unsigned char* bytes = nullptr;
    uint32_t length = 0;
    SecurityContext bare{};
    EXPECT_EQ(qxfile_read_whole(nullptr, path("cert.pem").c_str(), &bytes, &length),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxfile_read_whole(&bare, path("cert.pem").c_str(), &bytes, &length),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxfile_read_whole(ctx_, nullptr, &bytes, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxfile_read_whole(ctx_, path("cert.pem").c_str(), nullptr, &length),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxfile_read_whole(ctx_, path("cert.pem").c_str(), &bytes, nullptr),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(bytes, nullptr);
}

TEST_F(WholeFileTest, SpecialFilesAreRefusedAtOnce) {
    make_fifo(dir_ / "fifo");
    std::filesystem::create_directory(dir_ / "directory");
    for (auto& [reader, read] : readers()) {
        SCOPED_TRACE(reader);
        // No writer ever comes: a reader that waits for one never returns.
        EXPECT_EQ(result_within(no_hang, [&] { return read(path("fifo")); }), QXL_ERR_FILE);
        for (const std::string& special :
             {std::string("/dev/zero"), std::string("/dev/null"), path("directory")}) {
            SCOPED_TRACE(special);
            const uint64_t allocations = qxum_allocation_count(layer());
            EXPECT_EQ(read(special), QXL_ERR_FILE);
            EXPECT_EQ(qxum_allocation_count(layer()), allocations);
        }
    }
}

TEST_F(WholeFileTest, SizeLimitIsAppliedBeforeAnyAllocation) {
    // Each reader on a file it can read, the limit set to that file's size:
    // the file loads, and a file one byte larger is refused without a byte
    // read or allocated.
    const auto all = readers();
    const std::pair<size_t, const char*> cases[] = {
        {0, "cert.pem"}, {1, "cert.pem"}, {2, "key.pem"}};
    for (const auto& [reader, name] : cases) {
        SCOPED_TRACE(all[reader].first + " on " + name);
        const uint64_t size = read_file(dir_ / name).size();
        layer()->maxFileBytes = static_cast<uint32_t>(size);
        EXPECT_EQ(all[reader].second(path(name)), 0u);
        make_sparse_file(dir_ / "sparse", size + 1);
        const uint64_t allocations = qxum_allocation_count(layer());
        EXPECT_EQ(all[reader].second(path("sparse")), QXL_ERR_FILE);
        EXPECT_EQ(qxum_allocation_count(layer()), allocations);
    }

    // The default: 256 MiB, and one byte more is refused at once.
    EXPECT_EQ(QX_DEFAULT_MAX_FILE_BYTES, 256u * 1024 * 1024);
    layer()->maxFileBytes = QX_DEFAULT_MAX_FILE_BYTES;
    make_sparse_file(dir_ / "sparse", uint64_t{QX_DEFAULT_MAX_FILE_BYTES} + 1);
    const uint64_t allocations = qxum_allocation_count(layer());
    EXPECT_EQ(read_whole(path("sparse")), QXL_ERR_FILE);
    EXPECT_EQ(qxum_allocation_count(layer()), allocations);

    // A limit of 0 admits only empty files.
    layer()->maxFileBytes = 0;
    write_file(dir_ / "empty", {});
    write_file(dir_ / "one", {0x30});
    EXPECT_EQ(read_whole(path("empty")), 0u);
    EXPECT_EQ(read_whole(path("one")), QXL_ERR_FILE);
}

TEST_F(WholeFileTest, AllocationFailureSweep) {
    const Bytes expected = read_file(dir_ / "key.pem");
    Bytes content;
    sweep_allocations([&] { return read_whole(path("key.pem"), &content); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          if (!injected) {
                              EXPECT_EQ(content, expected);
                          }
                      });
}

// A file of one CRL, DER or a single PEM block, becomes a CRL holding exactly
// the CRL's bytes; anything else is left to the readers that split a file
// into blocks and say what is wrong with it.
TEST_F(WholeFileTest, OneCrlFilesAreReadIntoTheCrl) {
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x05}), revoked_serial({0x06})};
    const Bytes der = make_crl(shared_issuer(), recipe);
    const std::string pem = crl_pem(der);
    Bytes trailed = der;
    trailed.insert(trailed.end(), {0x00, 0x01, 0x02});
    std::string crlf;
    for (const char c : pem)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    // The body under another of the labels files carry.
    const size_t bodyStart = pem.find('\n') + 1;
    const std::string body = pem.substr(bodyStart, pem.find("-----END ") - bodyStart);
    const std::string legacy =
        std::string(QX_STR_CRL_HEADER2) + "\n" + body + QX_STR_CRL_FOOTER2 + "\n";
    const std::string certificate = cert_pem(shared_issuer().cert.get());
    // A DER CRL whose extension carries the PEM text is read as that block.
    CrlOptions carrier;
    carrier.extensions = {{"1.2.3.4", false, Bytes(pem.begin(), pem.end())}};
    const Bytes carrierDer = make_crl(shared_issuer(), carrier);

    const std::pair<const char*, std::string> taken[] = {
        {"crl.pem", pem},
        {"crlf.pem", crlf},
        {"legacy.pem", legacy},
        {"text around.pem",
         "Certificate Revocation List (CRL):\n  ...\n" + pem + "trailing words\n"},
        {"after a certificate.pem", certificate + pem},
        {"carrier.der", std::string(carrierDer.begin(), carrierDer.end())},
    };
    write_file(dir_ / "crl.der", der);
    Bytes written;
    EXPECT_EQ(read_one_crl(path("crl.der"), &written), 0u);
    EXPECT_EQ(written, der);
    for (const auto& [name, text] : taken) {
        write_text(dir_ / name, text);
        written.clear();
        EXPECT_EQ(read_one_crl(path(name), &written), 0u) << name;
        EXPECT_EQ(written, der) << name;
    }

    std::string badDigit = pem;
    badDigit[bodyStart + 10] = '*';
    const std::pair<const char*, std::string> left[] = {
        // What follows a CRL may be another (a PEM block, say) that must not be dropped.
        {"trailed.pem", pem_block_of(trailed)},
        {"two blocks.pem", pem + pem},
        {"two labels.pem", pem + legacy},
        {"no end line.pem", pem.substr(0, pem.find("-----END "))},
        {"bad digit.pem", badDigit},
        {"certificate only.pem", certificate},
        {"words.txt", "no CRL here\n"},
        {"empty", ""},
    };
    for (const auto& [name, text] : left) {
        write_text(dir_ / name, text);
        EXPECT_EQ(read_one_crl(path(name)), QXL_ERR_NOT_A_CRL) << name;
    }
    write_file(dir_ / "trailed.der", trailed);
    write_file(dir_ / "sequence", {0x30, 0x03, 0x02, 0x01, 0x01});
    for (const char* other : {"trailed.der", "sequence"}) {
        EXPECT_EQ(read_one_crl(path(other)), QXL_ERR_NOT_A_CRL) << other;
    }
    EXPECT_EQ(read_one_crl(path("missing")), QXL_ERR_FILE);
    layer()->maxFileBytes = static_cast<uint32_t>(pem.size() - 1);
    EXPECT_EQ(read_one_crl(path("crl.pem")), QXL_ERR_FILE);

    CrlObject* crl = reinterpret_cast<CrlObject*>(&written);
    SecurityContext bare{};
    EXPECT_EQ(qxfile_read_one_crl(&bare, path("crl.der").c_str(), &crl), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(crl, nullptr);
    EXPECT_EQ(qxfile_read_one_crl(ctx_, nullptr, &crl), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxfile_read_one_crl(ctx_, path("crl.der").c_str(), nullptr), QXL_ERR_BAD_ARGUMENT);
}

TEST_F(WholeFileTest, OneCrlAllocationFailureSweep) {
    const Bytes der = make_crl(shared_issuer(), CrlOptions{});
    write_file(dir_ / "crl.der", der);
    write_text(dir_ / "crl.pem", crl_pem(der));
    for (const char* name : {"crl.der", "crl.pem"}) {
        SCOPED_TRACE(name);
        sweep_allocations([&] { return read_one_crl(path(name)); },
                          [&](StatusCode status, bool injected) {
                              EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          });
    }
}
