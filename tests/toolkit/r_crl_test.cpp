// The toolkit's CRL objects over OpenSSL: decode, encode, library contexts,
// and the refusal of CRLs that are not complete lists of revocations.
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "files.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

struct LibCtx {
    R_LIB_CTX* ctx = nullptr;
    explicit LibCtx(uint32_t kind) { EXPECT_EQ(R_LIB_CTX_new(kind, &ctx), R_ERROR_NONE); }
    ~LibCtx() { R_LIB_CTX_free(ctx); }
};

// Decodes der; the toolkit status, with the re-encoding in reencoded on success.
int decode(R_LIB_CTX* lib, const Bytes& der, Bytes* reencoded = nullptr,
           uint32_t* consumed = nullptr) {
    R_CRL* crl = nullptr;
    const int status =
        R_CRL_from_binary(lib, 0, static_cast<uint32_t>(der.size()), der.data(), consumed, &crl);
    if (status == R_ERROR_NONE && reencoded != nullptr) {
        *reencoded = toolkit_bytes(crl, R_CRL_to_binary);
    }
    if (status != R_ERROR_NONE) {
        EXPECT_EQ(crl, nullptr);
    }
    R_CRL_free(crl);
    return status;
}

} // namespace

TEST(ToolkitLibraryContext, KindsAndArguments) {
    R_LIB_CTX* ctx = nullptr;
    EXPECT_EQ(R_LIB_CTX_new(7, &ctx), R_ERROR_FAILED);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(R_LIB_CTX_new(R_LIB_CTX_SHARED, nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_LIB_CTX_free(nullptr), R_ERROR_NONE);

    LibCtx isolated(R_LIB_CTX_ISOLATED);
    R_CRL* crl = nullptr;
    ASSERT_EQ(R_CRL_new(isolated.ctx, 0, &crl), R_ERROR_NONE);
    EXPECT_EQ(R_CRL_get0_lib_ctx(crl), isolated.ctx);
    R_CRL_free(crl);
    EXPECT_EQ(R_CRL_new(isolated.ctx, 1, &crl), R_ERROR_FAILED);
    EXPECT_EQ(R_CRL_new(nullptr, 0, &crl), R_ERROR_NULL_ARG);
}

TEST(ToolkitCrl, DecodeAndEncodeAreByteExact) {
    LibCtx lib(R_LIB_CTX_ISOLATED);
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x01}), revoked_serial({0x80, 0x00}),
                      revoked_serial({0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff})};
    const Bytes der = make_crl(shared_issuer(), recipe);

    R_CRL* crl = nullptr;
    uint32_t consumed = 0;
    ASSERT_EQ(R_CRL_from_binary(lib.ctx, 0, static_cast<uint32_t>(der.size()), der.data(),
                                &consumed, &crl),
              R_ERROR_NONE);
    EXPECT_EQ(consumed, der.size());
    EXPECT_EQ(R_CRL_get0_lib_ctx(crl), lib.ctx);

    uint32_t length = 0;
    ASSERT_EQ(R_CRL_to_binary(crl, 0, nullptr, &length), R_ERROR_NONE);
    EXPECT_EQ(length, der.size());
    Bytes small(length - 1);
    EXPECT_EQ(R_CRL_to_binary(crl, length - 1, small.data(), &length), R_ERROR_BUFFER_TOO_SMALL);
    Bytes out(length);
    ASSERT_EQ(R_CRL_to_binary(crl, length, out.data(), &length), R_ERROR_NONE);
    EXPECT_EQ(out, der);
    EXPECT_EQ(R_CRL_to_binary(crl, 4, nullptr, &length), R_ERROR_NULL_ARG);
    R_CRL_free(crl);

    // Bytes after the CRL are left for the caller.
    Bytes padded = der;
    padded.insert(padded.end(), {0x00, 0x30, 0x03});
    Bytes reencoded;
    consumed = 0;
    EXPECT_EQ(decode(lib.ctx, padded, &reencoded, &consumed), R_ERROR_NONE);
    EXPECT_EQ(consumed, der.size());
    EXPECT_EQ(reencoded, der);
}

TEST(ToolkitCrl, RefusesWhatIsNotACrl) {
    LibCtx lib(R_LIB_CTX_SHARED);
    EXPECT_EQ(decode(lib.ctx, {}), R_ERROR_DECODE);
    R_CRL* crl = nullptr;
    EXPECT_EQ(R_CRL_from_binary(lib.ctx, 0, 5, nullptr, nullptr, &crl), R_ERROR_NULL_ARG);
    EXPECT_EQ(decode(lib.ctx, cert_der(shared_issuer().cert.get())), R_ERROR_DECODE);
    std::mt19937 random(2026);
    for (int round = 0; round < 200; ++round) {
        Bytes noise(1 + random() % 300);
        for (unsigned char& byte : noise)
            byte = static_cast<unsigned char>(random());
        EXPECT_NE(decode(lib.ctx, noise), R_ERROR_NONE);
    }
}

TEST(ToolkitCrl, CriticalExtensionsDecideCompleteness) {
    LibCtx lib(R_LIB_CTX_SHARED);
    const Bytes nullValue{0x05, 0x00};
    const Bytes emptySequence{0x30, 0x00};
    const Bytes uriNames{0x30, 0x0a, 0x86, 0x08, 'h', 't', 't', 'p', ':', '/', '/', 'x'};
    const Bytes reasonKeyCompromise{0x0a, 0x01, 0x01};
    struct Case {
        const char* what;
        std::vector<RawExtension> crlExtensions;
        std::vector<RawExtension> entryExtensions;
        int expected;
    };
    const std::vector<Case> cases = {
        {"non-critical unknown CRL extension", {{"1.2.3.4", false, nullValue}}, {}, R_ERROR_NONE},
        {"critical unknown CRL extension", {{"1.2.3.4", true, nullValue}}, {}, R_ERROR_UNSUPPORTED},
        {"critical issuing distribution point",
         {{"2.5.29.28", true, emptySequence}},
         {},
         R_ERROR_UNSUPPORTED},
        {"critical delta CRL indicator",
         {{"2.5.29.27", true, {0x02, 0x01, 0x01}}},
         {},
         R_ERROR_UNSUPPORTED},
        {"critical reason code", {}, {{"2.5.29.21", true, reasonKeyCompromise}}, R_ERROR_NONE},
        {"non-critical unknown entry extension", {}, {{"1.2.3.5", false, nullValue}}, R_ERROR_NONE},
        {"critical unknown entry extension",
         {},
         {{"1.2.3.5", true, nullValue}},
         R_ERROR_UNSUPPORTED},
        {"certificate issuer (indirect CRL)",
         {},
         {{"2.5.29.29", true, uriNames}},
         R_ERROR_UNSUPPORTED},
    };
    for (const Case& c : cases) {
        CrlOptions recipe;
        recipe.extensions = c.crlExtensions;
        recipe.revoked = {{{0x05}, std::time(nullptr) - 60, c.entryExtensions}};
        EXPECT_EQ(decode(lib.ctx, make_crl(shared_issuer(), recipe)), c.expected) << c.what;
    }
}

// Every PKITS CRL decodes unless it is a delta CRL or it or one of its
// entries carries a critical extension other than an Issuing Distribution
// Point, and what decodes encodes back to the same bytes. The facts list
// CRL extensions; entry extensions show in the revocation expectations.
TEST(ToolkitCrl, PkitsCrlsMatchTheirFacts) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    std::set<std::string> criticalEntries;
    for (const auto& row : read_tsv(corpus / "pkits" / "revocation_expectations.tsv")) {
        if (row.at(9) == "unknown-critical-entry-extension")
            criticalEntries.insert(row.at(7));
    }
    ASSERT_EQ(criticalEntries.size(), 1u);
    // An indirect CRL whose entry for another issuer's certificate carries a
    // critical Certificate Issuer, which neither list shows.
    criticalEntries.insert("indirectCRLCA5CRL.crl");

    LibCtx lib(R_LIB_CTX_SHARED);
    int checked = 0;
    for (const auto& row : read_tsv(corpus / "pkits" / "crl_facts.tsv")) {
        const std::string& file = row.at(0);
        const Bytes der = read_file(corpus / "pkits" / "crls" / file);
        bool refused = criticalEntries.count(file) != 0;
        std::istringstream extensions(row.at(6));
        for (std::string extension; std::getline(extensions, extension, ',');) {
            refused = refused || extension.find("deltaCRLIndicator") != std::string::npos ||
                      (extension[0] == '!' && extension != "!issuingDistributionPoint");
        }
        Bytes reencoded;
        const int status = decode(lib.ctx, der, &reencoded);
        EXPECT_EQ(status, refused ? R_ERROR_UNSUPPORTED : R_ERROR_NONE) << file;
        if (status == R_ERROR_NONE) {
            EXPECT_EQ(reencoded, der) << file;
        }
        ++checked;
    }
    EXPECT_GT(checked, 150);
}

// Whatever DER the corpus holds, decoding either fails cleanly or re-encodes
// exactly the bytes it consumed.
TEST(ToolkitCrl, CorpusDerFilesDecodeCleanly) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    LibCtx lib(R_LIB_CTX_SHARED);
    int decoded = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(corpus)) {
        const std::string ext = entry.path().extension().string();
        if (ext != ".crl" && ext != ".der")
            continue;
        const Bytes der = read_file(entry.path());
        Bytes reencoded;
        uint32_t consumed = 0;
        if (decode(lib.ctx, der, &reencoded, &consumed) == R_ERROR_NONE) {
            EXPECT_EQ(reencoded, Bytes(der.begin(), der.begin() + consumed)) << entry.path();
            ++decoded;
        }
    }
    EXPECT_GT(decoded, 150);
}
