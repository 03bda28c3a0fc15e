// Keeping a CRL's PEM text in the layer's persistent store under a name.
#include <cstring>

#include "frame.h"

using namespace qxcrl;

namespace {

StatusCode store(SecurityContext* ctx, CrlObject* crl, const char* name) {
    if (ctx == nullptr || ctx->layerContext == nullptr || crl == nullptr || name == nullptr)
        return QXERR_BAD_PARAMETER;
    char* text = nullptr;
    uint32_t length = 0;
    StatusCode result = qxcrl_GetBase64(ctx, crl, &text, &length);
    QxStoreHandle* handle = nullptr;
    QxStoreItem* item = nullptr;
    if (result == 0) {
        QxStoreDescriptor descriptor{};
        descriptor.kind = QX_STORE_KIND_NAMED_TEXT;
        descriptor.name = name;
        descriptor.nameLength = static_cast<uint32_t>(std::strlen(name));
        descriptor.format = QX_STORE_FORMAT_PEM;
        result = qxiropen(ctx, &handle, QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM,
                          QX_STORE_MODE_WRITE, &descriptor);
    }
    if (result == 0) {
        item = static_cast<QxStoreItem*>(qxumalloc(ctx, sizeof(QxStoreItem), &result));
        if (item != nullptr) {
            *item = QxStoreItem{text, length};
            QxStoreItemList list{1, item};
            result = qxirstore(ctx, handle, &list);
        }
    }
    // The store took what it keeps during qxirstore.
    qxumfree(ctx, &text);
    qxumfree(ctx, &item);
    if (handle != nullptr)
        qxirclose(ctx, &handle);
    return result;
}

} // namespace

extern "C" StatusCode qxcrl_Store(SecurityContext* ctx, CrlObject* crl, const char* name) {
    return store(ctx, crl, name);
}

extern "C" StatusCode qxcrlSTC_StoreCRL(SecurityContext* ctx, CrlObject* crl, const char* name) {
    return store(ctx, crl, name);
}
