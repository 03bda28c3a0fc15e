// Private keys in every form the openssl command writes them (PKCS#8 and
// traditional, PEM and DER, encrypted or not) for RSA, EC and Ed25519: the
// layer keeps exactly the PKCS#8 DER the openssl command writes, makes working
// toolkit keys from it, refuses what is no key, and cleans up on every
// allocation failure.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

struct KeyAlgorithm {
    const char* name;
    const char* genpkey;
    bool traditional; // whether OpenSSL has a traditional form for it
};

const KeyAlgorithm algorithms[] = {
    {"rsa", "-algorithm RSA -pkeyopt rsa_keygen_bits:2048", true},
    {"ec", "-algorithm EC -pkeyopt ec_paramgen_curve:P-256", true},
    {"ed25519", "-algorithm ED25519", false},
};

// A form of a key: the file suffix and the passphrase it needs.
struct KeyForm {
    std::string suffix;
    const char* passphrase;
    bool traditional;
};

const std::vector<KeyForm> forms = {
    {".pem", nullptr, false},
    {".pem", "ignored", false}, // a passphrase for a key that needs none
    {".p8.der", nullptr, false},
    {".enc.pem", "correct horse", false},
    {".trad.pem", nullptr, true},
    {".trad.der", nullptr, true},
    {".trad-enc.pem", "correct horse", true},
};

uint32_t size_of(const Bytes& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

Bytes kept(const QxPrivateKey* key) {
    EXPECT_NE(key, nullptr);
    if (key == nullptr)
        return {};
    return Bytes(key->pkcs8, key->pkcs8 + key->length);
}

Bytes toolkit_pkcs8(R_PKEY* pkey) {
    uint32_t length = 0;
    EXPECT_EQ(R_PKEY_to_binary(pkey, 0, nullptr, &length), R_ERROR_NONE);
    Bytes bytes(length);
    EXPECT_EQ(R_PKEY_to_binary(pkey, length, bytes.data(), &length), R_ERROR_NONE);
    bytes.resize(length);
    return bytes;
}

class PrivateKeyTest : public LayerTest {
  protected:
    static void SetUpTestSuite() {
        keys_ = std::make_unique<TempDir>();
        for (const KeyAlgorithm& algorithm : algorithms) {
            const std::string k = algorithm.name;
            const std::string in = " -in " + k + ".pem";
            const std::string pass = " -aes256 -passout 'pass:correct horse'";
            // `openssl pkey -outform DER` writes the traditional form of RSA
            // and EC keys; pkcs8 -topk8 always writes PKCS#8.
            std::string command =
                "openssl genpkey " + std::string(algorithm.genpkey) + " -out " + k + ".pem";
            command +=
                " && openssl pkcs8 -topk8 -nocrypt -outform DER" + in + " -out " + k + ".p8.der";
            command += " && openssl pkey" + in + pass + " -out " + k + ".enc.pem";
            if (algorithm.traditional) {
                command += " && openssl pkey -traditional" + in + " -out " + k + ".trad.pem";
                command +=
                    " && openssl pkey -traditional -outform DER" + in + " -out " + k + ".trad.der";
                command +=
                    " && openssl pkey -traditional" + in + pass + " -out " + k + ".trad-enc.pem";
            }
            ASSERT_EQ(run_in(keys_->path(), command), 0) << "see " << (*keys_ / "log.txt");
        }
    }

    static void TearDownTestSuite() { keys_.reset(); }

    static std::filesystem::path key_file(const std::string& name) { return *keys_ / name; }

    static inline std::unique_ptr<TempDir> keys_;
};

} // namespace

TEST_F(PrivateKeyTest, KeepsEveryFormAsThePkcs8OpensslWrites) {
    SecurityContext* isolated = make_layer(1);
    for (const KeyAlgorithm& algorithm : algorithms) {
        const Bytes expected = read_file(key_file(std::string(algorithm.name) + ".p8.der"));
        for (const KeyForm& form : forms) {
            if (form.traditional && !algorithm.traditional)
                continue;
            const std::string file = algorithm.name + form.suffix;
            SCOPED_TRACE(file + (form.passphrase ? " with a passphrase" : ""));
            const Bytes bytes = read_file(key_file(file));
            for (SecurityContext* ctx : {ctx_, isolated}) {
                QxPrivateKey* key = nullptr;
                ASSERT_EQ(
                    qxdk_key_from_bytes(ctx, bytes.data(), size_of(bytes), form.passphrase, &key),
                    0u);
                EXPECT_EQ(kept(key), expected);
                // The record and its DER are both the layer's blocks.
                EXPECT_EQ(qxum_live_blocks(ctx->layerContext), 2u);
                qxdk_key_free(ctx, &key);
                EXPECT_EQ(key, nullptr);
                EXPECT_EQ(qxum_live_blocks(ctx->layerContext), 0u);
            }
            QxPrivateKey* key = nullptr;
            ASSERT_EQ(qxdk_key_from_file(ctx_, key_file(file).c_str(), form.passphrase, &key), 0u);
            EXPECT_EQ(kept(key), expected);
            qxdk_key_free(ctx_, &key);
        }
    }
    qxdk_key_free(ctx_, nullptr);
    QxPrivateKey* none = nullptr;
    qxdk_key_free(ctx_, &none);
}

TEST_F(PrivateKeyTest, MakesToolkitKeysFromWhatItKeeps) {
    SecurityContext* isolated = make_layer(1);
    for (const KeyAlgorithm& algorithm : algorithms) {
        SCOPED_TRACE(algorithm.name);
        const std::string name = algorithm.name;
        const Bytes expected = read_file(key_file(name + ".p8.der"));
        QxPrivateKey* key = nullptr;
        ASSERT_EQ(
            qxdk_key_from_file(ctx_, key_file(name + ".enc.pem").c_str(), "correct horse", &key),
            0u);
        for (SecurityContext* ctx : {ctx_, isolated}) {
            R_PKEY* object = nullptr;
            ASSERT_EQ(qxdk_pvtkey_to_obj(ctx, key, &object), 0u);
            ASSERT_NE(object, nullptr);
            EXPECT_EQ(toolkit_pkcs8(object), expected);
            R_PKEY_free(object);
        }
        qxdk_key_free(ctx_, &key);
    }

    // A record whose DER is no key, or that holds nothing.
    unsigned char garbage[] = {0x30, 0x03, 0x02, 0x01, 0x00};
    QxPrivateKey broken{garbage, sizeof garbage};
    R_PKEY* object = nullptr;
    EXPECT_EQ(qxdk_pvtkey_to_obj(ctx_, &broken, &object), QXL_ERR_KEY);
    EXPECT_EQ(object, nullptr);
    QxPrivateKey empty{};
    EXPECT_EQ(qxdk_pvtkey_to_obj(ctx_, &empty, &object), QXL_ERR_KEY);
    EXPECT_EQ(object, nullptr);

    SecurityContext bare{};
    EXPECT_EQ(qxdk_pvtkey_to_obj(nullptr, &broken, &object), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_pvtkey_to_obj(&bare, &broken, &object), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_pvtkey_to_obj(ctx_, nullptr, &object), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_pvtkey_to_obj(ctx_, &broken, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(object, nullptr);
}

TEST_F(PrivateKeyTest, RefusesWhatIsNoKeyAndWrongPassphrases) {
    const Bytes encrypted = read_file(key_file("ec.enc.pem"));
    const Bytes traditionalEncrypted = read_file(key_file("rsa.trad-enc.pem"));
    const Bytes der = read_file(key_file("rsa.p8.der"));
    const std::string pem = [&] {
        const Bytes text = read_file(key_file("ec.pem"));
        return std::string(text.begin(), text.end());
    }();
    const std::string cert = cert_pem(shared_issuer().cert.get());
    struct Case {
        std::string what;
        Bytes bytes;
        const char* passphrase;
    };
    const std::vector<Case> refused = {
        {"encrypted, wrong passphrase", encrypted, "correct horsf"},
        {"encrypted, no passphrase", encrypted, nullptr},
        {"encrypted, empty passphrase", encrypted, ""},
        {"traditional encrypted, wrong passphrase", traditionalEncrypted, "x"},
        {"traditional encrypted, no passphrase", traditionalEncrypted, nullptr},
        {"DER cut in half", Bytes(der.begin(), der.begin() + static_cast<long>(der.size() / 2)),
         nullptr},
        {"PEM cut in half", Bytes(pem.begin(), pem.begin() + static_cast<long>(pem.size() / 2)),
         nullptr},
        {"a certificate", Bytes(cert.begin(), cert.end()), nullptr},
        {"text", Bytes{'h', 'e', 'l', 'l', 'o'}, nullptr},
        {"a SEQUENCE of nothing", Bytes{0x30, 0x00}, nullptr},
    };
    for (const Case& item : refused) {
        SCOPED_TRACE(item.what);
        QxPrivateKey* key = nullptr;
        EXPECT_EQ(qxdk_key_from_bytes(ctx_, item.bytes.data(), size_of(item.bytes), item.passphrase,
                                      &key),
                  QXL_ERR_KEY);
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(qxum_live_blocks(layer()), 0u);
    }
    QxPrivateKey* key = nullptr;
    EXPECT_EQ(qxdk_key_from_bytes(ctx_, nullptr, 0, nullptr, &key), QXL_ERR_KEY);

    TempDir dir;
    write_file(dir / "empty.pem", {});
    EXPECT_EQ(qxdk_key_from_file(ctx_, (dir / "empty.pem").c_str(), nullptr, &key), QXL_ERR_KEY);
    EXPECT_EQ(qxdk_key_from_file(ctx_, key_file("ec.enc.pem").c_str(), "wrong", &key), QXL_ERR_KEY);
    EXPECT_EQ(qxdk_key_from_file(ctx_, (dir / "missing.pem").c_str(), nullptr, &key), QXL_ERR_FILE);
    EXPECT_EQ(qxdk_key_from_file(ctx_, dir.path().c_str(), nullptr, &key), QXL_ERR_FILE);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);

    SecurityContext bare{};
    EXPECT_EQ(qxdk_key_from_bytes(nullptr, der.data(), size_of(der), nullptr, &key),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_bytes(&bare, der.data(), size_of(der), nullptr, &key),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_bytes(ctx_, nullptr, 5, nullptr, &key), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_bytes(ctx_, der.data(), size_of(der), nullptr, nullptr),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_file(nullptr, key_file("ec.pem").c_str(), nullptr, &key),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_file(ctx_, nullptr, nullptr, &key), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxdk_key_from_file(ctx_, key_file("ec.pem").c_str(), nullptr, nullptr),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(key, nullptr);
}

TEST_F(PrivateKeyTest, AllocationFailureSweeps) {
    const Bytes pem = read_file(key_file("rsa.pem"));
    const Bytes der = read_file(key_file("ec.trad.der"));
    const Bytes expectedRsa = read_file(key_file("rsa.p8.der"));
    const Bytes expectedEc = read_file(key_file("ec.p8.der"));
    const Bytes expectedEd = read_file(key_file("ed25519.p8.der"));
    QxPrivateKey* key = nullptr;
    const auto check = [&](const Bytes& expected) {
        return [this, &key, want = &expected](StatusCode status, bool injected) {
            if (injected) {
                EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(key, nullptr);
            } else {
                EXPECT_EQ(status, 0u);
                EXPECT_EQ(kept(key), *want);
            }
            qxdk_key_free(ctx_, &key);
        };
    };
    sweep_allocations(
        [&] { return qxdk_key_from_bytes(ctx_, pem.data(), size_of(pem), nullptr, &key); },
        check(expectedRsa));
    sweep_allocations(
        [&] { return qxdk_key_from_bytes(ctx_, der.data(), size_of(der), nullptr, &key); },
        check(expectedEc));
    sweep_allocations(
        [&] {
            return qxdk_key_from_file(ctx_, key_file("ed25519.enc.pem").c_str(), "correct horse",
                                      &key);
        },
        check(expectedEd));
}
