// The CRL record: DER import, hand-over to a cache owner, release; with the
// trace records each path writes and what each path leaves behind.
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "recording_owner.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

Bytes encode(R_CRL* crl) {
    return toolkit_bytes(crl, R_CRL_to_binary);
}

uint32_t size_of(const Bytes& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

class CrlObjectTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x01}), revoked_serial({0x00, 0x9a, 0xbc})};
        der_ = make_crl(shared_issuer(), recipe);
    }

    // Asserts the one decode-failure record of qxcrl_CreateCtx.
    void expect_decode_record(const char* function, int toolkitStatus) {
        const std::vector<TraceEntry> messages = trace_.messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].context, ctx_);
        EXPECT_EQ(messages[0].function, function);
        EXPECT_EQ(messages[0].level, 1u);
        EXPECT_EQ(messages[0].messageId, "qx0249trc");
        EXPECT_EQ(messages[0].text, catalogue_text(qx0249trc, "R_CRL_from_binary", toolkitStatus));
    }

    Bytes der_;
};

} // namespace

TEST_F(CrlObjectTest, ToolkitModePicksTheLibraryContext) {
    for (uint32_t mode : {0u, 1u, 2u, 7u}) {
        SCOPED_TRACE("toolkitMode " + std::to_string(mode));
        SecurityContext* ctx = make_layer(mode);
        R_LIB_CTX* expected = ctx->layerContext->toolkitContexts[mode == 1 ? 3 : 2];

        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx, &crl, der_.data(), size_of(der_)), 0u);
        EXPECT_EQ(R_CRL_get0_lib_ctx(crl->crl), expected);
        qxcrl_Destroy(ctx, &crl);

        Owner owner(ctx);
        ASSERT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), 0u);
        ASSERT_EQ(Owner::calls.size(), 1u);
        EXPECT_EQ(R_CRL_get0_lib_ctx(Owner::calls[0].first->crl), expected);
        qxcrl_Destroy(ctx, &Owner::calls[0].first);
    }
    // The rule is applied at each creation, not remembered.
    ctx_->layerContext->toolkitMode = 1;
    CrlObject* crl = nullptr;
    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der_.data(), size_of(der_)), 0u);
    EXPECT_EQ(R_CRL_get0_lib_ctx(crl->crl), ctx_->layerContext->toolkitContexts[3]);
    qxcrl_Destroy(ctx_, &crl);
}

TEST_F(CrlObjectTest, CreateCtxDecodesSilentlyAndKeepsTheBytes) {
    for (KeyKind kind : {KeyKind::EcP256, KeyKind::Rsa2048, KeyKind::Ed25519}) {
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x7f}), revoked_serial({0xff, 0x01})};
        const Bytes der = make_crl(shared_issuer(kind), recipe);
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), size_of(der)), 0u);
        ASSERT_NE(crl, nullptr);
        EXPECT_EQ(encode(crl->crl), der);
        EXPECT_EQ(qxcrl_Destroy(ctx_, &crl), 0u);
        EXPECT_EQ(crl, nullptr);
    }
    EXPECT_TRUE(trace_.entries().empty());
}

// A CRL that the openssl command made as a CA (one revoked certificate)
// decodes and encodes back to the same bytes.
TEST_F(CrlObjectTest, ReadsWhatTheOpensslCaWrites) {
    TempDir dir;
    write_text(dir / "ca.cnf", "[ ca ]\ndefault_ca = test_ca\n"
                               "[ test_ca ]\ndir = .\ndatabase = ./index.txt\n"
                               "new_certs_dir = ./newcerts\ncertificate = ./ca.pem\n"
                               "private_key = ./ca.key\nserial = ./serial\n"
                               "crlnumber = ./crlnumber\ndefault_md = sha256\n"
                               "default_crl_days = 7\npolicy = policy_any\n"
                               "[ policy_any ]\ncommonName = supplied\n"
                               "[ crl_ext ]\nauthorityKeyIdentifier = keyid:always\n");
    const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
    ASSERT_EQ(run_in(dir.path(),
                     "mkdir newcerts && touch index.txt && echo 01 > crlnumber && "
                     "echo 1000 > serial && "
                     "openssl req -x509 " +
                         ec +
                         " -keyout ca.key -out ca.pem -days 30 "
                         "-subj '/CN=qxcrl OpenSSL CA/O=qxcrl tests' && "
                         "openssl req -new " +
                         ec +
                         " -keyout leaf.key -out leaf.csr -subj /CN=leaf && "
                         "openssl ca -batch -config ca.cnf -in leaf.csr -out leaf.pem -days 7 && "
                         "openssl ca -config ca.cnf -revoke leaf.pem -crl_reason keyCompromise && "
                         "openssl ca -config ca.cnf -gencrl -crlexts crl_ext -out crl.pem && "
                         "openssl crl -in crl.pem -outform DER -out crl.der"),
              0)
        << "see " << (dir / "log.txt");
    const Bytes der = read_file(dir / "crl.der");
    CrlObject* crl = nullptr;
    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), size_of(der)), 0u);
    EXPECT_EQ(encode(crl->crl), der);
    qxcrl_Destroy(ctx_, &crl);
}

TEST_F(CrlObjectTest, CreateCtxRefusesWhatIsNotACrl) {
    struct Input {
        std::string what;
        Bytes bytes;
        int toolkitStatus;
    };
    std::vector<Input> inputs;
    inputs.push_back({"empty", {}, R_ERROR_DECODE});
    for (size_t length = 1; length < der_.size(); ++length)
        inputs.push_back({"truncated to " + std::to_string(length),
                          Bytes(der_.begin(), der_.begin() + static_cast<long>(length)),
                          R_ERROR_DECODE});
    std::mt19937 random(7);
    for (int round = 0; round < 64; ++round) {
        Bytes noise(1 + random() % 200);
        for (unsigned char& byte : noise)
            byte = static_cast<unsigned char>(random());
        noise[0] = 0x30; // look like a SEQUENCE to get past the first byte
        inputs.push_back({"random " + std::to_string(round), noise, R_ERROR_DECODE});
    }
    inputs.push_back({"a certificate", cert_der(shared_issuer().cert.get()), R_ERROR_DECODE});
    CrlOptions partial;
    partial.extensions = {{"1.2.3.4", true, {0x05, 0x00}}};
    inputs.push_back(
        {"critical unknown extension", make_crl(shared_issuer(), partial), R_ERROR_UNSUPPORTED});

    for (const Input& input : inputs) {
        SCOPED_TRACE(input.what);
        trace_.clear();
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, input.bytes.data(), size_of(input.bytes)),
                  QXERR_CRL_DECODE);
        ASSERT_NE(crl, nullptr);
        EXPECT_EQ(crl->crl, nullptr);
        expect_decode_record("qxcrl_Load", input.toolkitStatus);
        EXPECT_EQ(trace_.entries().size(), 1u);
        EXPECT_EQ(qxcrl_Destroy(ctx_, &crl), 0u);
        EXPECT_EQ(crl, nullptr);
    }
}

TEST_F(CrlObjectTest, CreateCtxArgumentsAndDestroyEdges) {
    CrlObject* crl = nullptr;
    EXPECT_EQ(qxcrl_CreateCtx(nullptr, &crl, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
    SecurityContext bare{};
    EXPECT_EQ(qxcrl_CreateCtx(&bare, &crl, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_CreateCtx(ctx_, nullptr, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
    EXPECT_EQ(crl, nullptr);

    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der_.data(), size_of(der_)), 0u);
    CrlObject* held = crl;
    EXPECT_EQ(qxcrl_Destroy(nullptr, &crl), 0u); // no context: nothing happens
    EXPECT_EQ(crl, held);
    EXPECT_EQ(qxum_live_blocks(layer()), 1u);
    EXPECT_EQ(qxcrl_Destroy(ctx_, nullptr), 0u);
    EXPECT_EQ(qxcrl_Destroy(ctx_, &crl), 0u);
    EXPECT_EQ(crl, nullptr);
    EXPECT_EQ(qxcrl_Destroy(ctx_, &crl), 0u); // second time: already null
    EXPECT_TRUE(trace_.entries().empty());
}

TEST_F(CrlObjectTest, SetDerCrlFailuresLeaveNothingBehind) {
    const Bytes bad(der_.begin(), der_.begin() + 40);
    const auto frame_only = [&] {
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrl_SetDERCrl"), 1u);
        EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrl_SetDERCrl"), 1u);
        EXPECT_EQ(trace_.entries().front().kind, QX_TRACE_ENTRY);
        EXPECT_EQ(trace_.entries().back().kind, QX_TRACE_EXIT);
    };
    {
        SCOPED_TRACE("undecodable bytes");
        Owner owner(ctx_);
        trace_.clear();
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, bad.data(), size_of(bad)), QXERR_CRL_DECODE);
        frame_only();
        expect_decode_record("qxcrl_SetDERCrl", R_ERROR_DECODE);
        EXPECT_TRUE(Owner::calls.empty());
    }
    {
        SCOPED_TRACE("no cache: decoding comes first");
        Owner owner(ctx_);
        owner.owner.crlCache = nullptr;
        trace_.clear();
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, bad.data(), size_of(bad)), QXERR_CRL_DECODE);
        expect_decode_record("qxcrl_SetDERCrl", R_ERROR_DECODE);
        trace_.clear();
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
        frame_only();
        const std::vector<TraceEntry> messages = trace_.messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].function, "qxcrl_SetDERCrl");
        EXPECT_EQ(messages[0].level, 1u);
        EXPECT_EQ(messages[0].messageId, "qx0265trc");
        EXPECT_EQ(messages[0].text, qxu_catalogue_text(qx0265trc));
        EXPECT_TRUE(Owner::calls.empty());
    }
    {
        SCOPED_TRACE("record allocation fails");
        Owner owner(ctx_);
        trace_.clear();
        qxum_fail_nth(layer(), 1);
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), QXL_ERR_OUT_OF_MEMORY);
        frame_only();
        EXPECT_EQ(trace_.entries().size(), 2u);
        EXPECT_TRUE(Owner::calls.empty());
    }
    {
        SCOPED_TRACE("the owner refuses");
        Owner owner(ctx_);
        Owner::answer = QXERR_CACHE_FULL;
        trace_.clear();
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), QXERR_CACHE_FULL);
        frame_only();
        EXPECT_EQ(trace_.entries().size(), 2u);
        ASSERT_EQ(Owner::calls.size(), 1u);
        EXPECT_EQ(Owner::calls[0].second, &owner.cache);
        EXPECT_EQ(qxum_live_blocks(layer()), 0u); // released by qxcrl_SetDERCrl
    }
    {
        SCOPED_TRACE("no owner, no parent, no context");
        Owner owner(ctx_);
        EXPECT_EQ(qxcrl_SetDERCrl(nullptr, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
        owner.parent.securityContext = nullptr;
        trace_.clear();
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
        ASSERT_EQ(trace_.entries().size(), 1u); // exit only, with no context
        EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_EXIT);
        EXPECT_EQ(trace_.entries()[0].context, nullptr);
        owner.owner.parent = nullptr;
        EXPECT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), QXERR_BAD_PARAMETER);
        EXPECT_TRUE(Owner::calls.empty());
    }
}

TEST_F(CrlObjectTest, SetDerCrlHandsTheRecordToTheOwner) {
    Owner owner(ctx_);
    ASSERT_EQ(qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)), 0u);
    ASSERT_EQ(trace_.entries().size(), 2u);
    EXPECT_EQ(trace_.entries()[0].kind, QX_TRACE_ENTRY);
    EXPECT_EQ(trace_.entries()[1].kind, QX_TRACE_EXIT);
    for (const TraceEntry& entry : trace_.entries()) {
        EXPECT_EQ(entry.function, "qxcrl_SetDERCrl");
        EXPECT_EQ(entry.level, 5u);
        EXPECT_EQ(entry.context, ctx_);
    }
    ASSERT_EQ(Owner::calls.size(), 1u);
    EXPECT_EQ(Owner::calls[0].second, &owner.cache);
    CrlObject* taken = Owner::calls[0].first;
    ASSERT_NE(taken->crl, nullptr);
    EXPECT_EQ(encode(taken->crl), der_);
    EXPECT_EQ(qxum_live_blocks(layer()), 1u);
    qxcrl_Destroy(ctx_, &taken);
}

TEST_F(CrlObjectTest, AllocationFailureSweeps) {
    CrlObject* crl = nullptr;
    sweep_allocations([&] { return qxcrl_CreateCtx(ctx_, &crl, der_.data(), size_of(der_)); },
                      [&](StatusCode status, bool injected) {
                          if (injected) {
                              EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                              EXPECT_EQ(crl, nullptr);
                          } else {
                              EXPECT_EQ(status, 0u);
                              ASSERT_NE(crl, nullptr);
                              EXPECT_NE(crl->crl, nullptr);
                          }
                          qxcrl_Destroy(ctx_, &crl);
                      });

    Owner owner(ctx_);
    sweep_allocations([&] { return qxcrl_SetDERCrl(&owner.owner, der_.data(), size_of(der_)); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(Owner::calls.size(), injected ? 0u : 1u);
                          for (auto& [taken, cache] : Owner::calls)
                              qxcrl_Destroy(ctx_, &taken);
                          Owner::calls.clear();
                      });
}
