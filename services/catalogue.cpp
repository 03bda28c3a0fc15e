// The layer's message catalogue: numbered messages that callers name where a
// trace format stands, so the texts can change without touching callers.
#include <cstring>

#include "qxlayer.h"

extern "C" {
const char qx0229trc[] = "qx0229trc";
const char qx0232trc[] = "qx0232trc";
const char qx0249trc[] = "qx0249trc";
const char qx0264trc[] = "qx0264trc";
const char qx0265trc[] = "qx0265trc";
const char qx0266trc[] = "qx0266trc";
}

namespace {

struct CatalogueEntry {
    const char* id;
    const char* text;
};

constexpr CatalogueEntry catalogue[] = {
    {qx0229trc, "CRL signature or date check failed, toolkit status %d\n"},
    {qx0232trc, "CRL entry lookup for the certificate ended with toolkit status %d\n"},
    {qx0249trc, "%s could not decode the CRL, toolkit status %d\n"},
    {qx0264trc, "no PEM CRL begin and end markers in the text\n"},
    {qx0265trc, "the cache owner has no CRL cache to take the CRL\n"},
    {qx0266trc, "no CRL could be loaded from the file %s\n"},
};

} // namespace

extern "C" const char* qxu_catalogue_text(const char* messageId) {
    if (messageId == nullptr)
        return nullptr;
    for (const CatalogueEntry& entry : catalogue) {
        if (messageId == entry.id || std::strcmp(messageId, entry.id) == 0)
            return entry.text;
    }
    return nullptr;
}
