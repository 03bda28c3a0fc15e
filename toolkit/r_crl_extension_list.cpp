// The extensions of a CRL and of its entries, by number, in the order received.
#include "r_crl_parts.h"

namespace {

uint32_t count_in(RDer list) {
    uint32_t count = 0;
    RExtView view;
    while (r_ext_next(&list, &view))
        ++count;
    return count;
}

int fill_from(RDer list, uint32_t index, R_EXT* ext) {
    RExtView view;
    for (uint32_t number = 0; r_ext_next(&list, &view); ++number) {
        if (number == index)
            return r_ext_fill(ext, view);
    }
    return R_ERROR_NOT_PRESENT;
}

} // namespace

extern "C" int R_CRL_get_extension_count(R_CRL* crl, uint32_t* count) {
    if (crl == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    *count = count_in(r_crl_view(crl, crl->index.extensionList));
    return R_ERROR_NONE;
}

extern "C" int R_CRL_get_extension(R_CRL* crl, uint32_t index, R_EXT* ext) {
    if (crl == nullptr || ext == nullptr)
        return R_ERROR_NULL_ARG;
    return fill_from(r_crl_view(crl, crl->index.extensionList), index, ext);
}

extern "C" int R_CRL_ENTRY_get_extension_count(R_CRL_ENTRY* entry, uint32_t* count) {
    if (entry == nullptr || count == nullptr)
        return R_ERROR_NULL_ARG;
    *count = count_in(r_crl_entry_extensions(entry));
    return R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_get_extension(R_CRL_ENTRY* entry, uint32_t index, R_EXT* ext) {
    if (entry == nullptr || ext == nullptr)
        return R_ERROR_NULL_ARG;
    return fill_from(r_crl_entry_extensions(entry), index, ext);
}
