// crl_summary CRL: prints a CRL's issuer, dates and number of entries.
// The C API's records are held by RAII owners so that every exit path
// releases them.
#include <cstdint>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <qxcrl.h>

namespace {

struct LayerDeleter {
    void operator()(SecurityContext* ctx) const { qxlayer_destroy(&ctx); }
};
using Layer = std::unique_ptr<SecurityContext, LayerDeleter>;

// A CRL record belongs to the layer instance that made it.
class Crl {
  public:
    Crl(SecurityContext* ctx, const std::string& path) : ctx_(ctx) {
        if (const StatusCode status = qxcrl_Load(ctx_, &crl_, path.c_str()); status != 0) {
            release();
            throw std::runtime_error(path + ": not a CRL (status " + std::to_string(status) + ")");
        }
    }
    Crl(const Crl&) = delete;
    Crl& operator=(const Crl&) = delete;
    ~Crl() { release(); }

    std::string text(CrlDetailItem item) const {
        char value[1025] = {}; // room for the longest text item, the issuer
        check(qxcrl_GetDetails(ctx_, crl_, item, 0, value));
        return value;
    }

    uint32_t word(CrlDetailItem item) const {
        uint32_t value = 0;
        check(qxcrl_GetDetails(ctx_, crl_, item, 0, &value));
        return value;
    }

  private:
    static void check(StatusCode status) {
        if (status != 0)
            throw std::runtime_error("qxcrl_GetDetails: status " + std::to_string(status));
    }
    void release() { qxcrl_Destroy(ctx_, &crl_); }

    SecurityContext* ctx_;
    CrlObject* crl_ = nullptr;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " CRL\n";
        return 2;
    }
    SecurityContext* made = nullptr;
    if (qxlayer_create(nullptr, &made) != 0) {
        std::cerr << "crl_summary: no layer instance\n";
        return 2;
    }
    Layer layer(made);
    try {
        const Crl crl(layer.get(), argv[1]);
        std::cout << "issuer: " << crl.text(QXCRL_DETAIL_ISSUER_NAME) << '\n'
                  << "thisUpdate: " << crl.text(QXCRL_DETAIL_THIS_UPDATE) << '\n'
                  << "nextUpdate: " << crl.text(QXCRL_DETAIL_NEXT_UPDATE) << '\n'
                  << "entries: " << crl.word(QXCRL_DETAIL_ENTRY_COUNT) << '\n';
    } catch (const std::exception& error) {
        std::cerr << "crl_summary: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
