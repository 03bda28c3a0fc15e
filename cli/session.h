// One layer instance for one command, and owning holders for what the
// commands load through the public API.
#ifndef QXCRL_CLI_SESSION_H
#define QXCRL_CLI_SESSION_H

#include <cstdint>
#include <optional>
#include <string>

#include "options.h"
#include "qxcrl.h"

namespace qxcli {

class Session {
  public:
    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { qxlayer_destroy(&ctx_); }

    // Makes the layer instance with --trace and the given store and policy;
    // 0 or the failing status.
    uint32_t open(const Arguments& arguments, const std::string& storePath = "qxstore.db",
                  uint32_t crlPolicy = 0);
    SecurityContext* ctx() const { return ctx_; }

  private:
    SecurityContext* ctx_ = nullptr;
};

struct Crl {
    explicit Crl(SecurityContext* context) : ctx(context) {}
    Crl(const Crl&) = delete;
    Crl& operator=(const Crl&) = delete;
    ~Crl() { qxcrl_Destroy(ctx, &object); }
    SecurityContext* ctx;
    CrlObject* object = nullptr;
};

struct Certificate {
    explicit Certificate(SecurityContext* context) : ctx(context) {}
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() { qxcert_free(ctx, &record); }
    SecurityContext* ctx;
    CertificateRecord* record = nullptr;
};

struct Key {
    explicit Key(SecurityContext* context) : ctx(context) {}
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { qxdk_key_free(ctx, &key); }
    SecurityContext* ctx;
    QxPrivateKey* key = nullptr;
};

// A block of the layer's allocator that the command holds, such as a file read whole.
struct LayerBytes {
    explicit LayerBytes(SecurityContext* context) : ctx(context) {}
    LayerBytes(const LayerBytes&) = delete;
    LayerBytes& operator=(const LayerBytes&) = delete;
    ~LayerBytes() { qxumfree(ctx, &bytes); }
    SecurityContext* ctx;
    unsigned char* bytes = nullptr;
    uint32_t length = 0;
};

// An issuer name object, as qxcrl_FileForIssuer takes it.
struct Name {
    Name() = default;
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;
    ~Name() { qxcrl_FreeName(&name); }
    R_CERT_NAME* name = nullptr;
};

struct CacheOwner {
    CacheOwner() = default;
    CacheOwner(const CacheOwner&) = delete;
    CacheOwner& operator=(const CacheOwner&) = delete;
    ~CacheOwner() { qxcrl_DestroyCacheOwner(&owner); }
    CrlCacheOwner* owner = nullptr;
};

// Capacity of the caches the commands build: room for large CRLs.
constexpr uint32_t cache_capacity = 256u * 1024u * 1024u;

// Loaders that report their own failure ("loading PATH") and return its exit status, or 0.
// (CRLs: see crl_input.h.)
int load_cert(Session& session, const std::string& path, Certificate& cert);
int load_key(Session& session, const std::string& path, const std::optional<std::string>& pass,
             Key& key);

// Writes crl as PEM (or DER) to path atomically; reports and returns the exit status, or 0.
int write_crl(Session& session, CrlObject* crl, const std::string& path, bool der);

// Parses a whole decimal number; nullopt when text is not one.
std::optional<uint32_t> parse_number(const std::string& text);

} // namespace qxcli

#endif
