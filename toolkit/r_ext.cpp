// Extension objects: an empty holder that a CRL or an entry fills with a
// copy of one of its extensions.
#include "r_crl_parts.h"

int r_ext_fill(R_EXT* ext, const RExtView& view) {
    if (!ext->der.assign(view.whole.data, view.whole.length))
        return R_ERROR_ALLOC_FAILURE;
    ext->oid = {static_cast<uint32_t>(view.oid.data - view.whole.data),
                static_cast<uint32_t>(view.oid.length)};
    ext->value = {static_cast<uint32_t>(view.value.data - view.whole.data),
                  static_cast<uint32_t>(view.value.length)};
    ext->critical = view.critical;
    ext->filled = true;
    return R_ERROR_NONE;
}

extern "C" int R_EXT_new(R_LIB_CTX* libCtx, uint32_t flags, R_EXT** ext) {
    return r_new_holder(libCtx, flags, ext);
}

extern "C" int R_EXT_get_info(R_EXT* ext, int id, void* value) {
    if (ext == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id != R_EXT_INFO_VALUE && id != R_EXT_INFO_OID && id != R_EXT_INFO_CRITICAL)
        return R_ERROR_FAILED;
    if (!ext->filled)
        return R_ERROR_NOT_PRESENT;
    if (id == R_EXT_INFO_CRITICAL) {
        *static_cast<uint32_t*>(value) = ext->critical ? 1 : 0;
        return R_ERROR_NONE;
    }
    const RCrlSpan& span = id == R_EXT_INFO_OID ? ext->oid : ext->value;
    auto* item = static_cast<R_ITEM*>(value);
    item->len = span.length;
    // R_ITEM is not const, but callers only read bytes owned by the extension.
    item->data = ext->der.data() + span.offset;
    return R_ERROR_NONE;
}

extern "C" int R_EXT_free(R_EXT* ext) {
    r_delete(ext);
    return R_ERROR_NONE;
}
