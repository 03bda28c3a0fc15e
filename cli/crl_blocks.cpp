#include "crl_blocks.h"

#include <algorithm>

#include "qxlayer.h"

namespace qxcli {

std::vector<std::string_view> crl_pem_blocks(std::string_view bytes) {
    std::vector<size_t> starts;
    for (const std::string_view marker :
         {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2, QX_STR_CRL_HEADER3}) {
        for (size_t at = bytes.find(marker); at != std::string_view::npos;
             at = bytes.find(marker, at + 1))
            starts.push_back(at);
    }
    // No two labels' markers can begin at the same byte, so every start is
    // a block of its own.
    std::sort(starts.begin(), starts.end());
    std::vector<std::string_view> blocks;
    for (size_t i = 0; i < starts.size(); ++i) {
        const size_t end = i + 1 < starts.size() ? starts[i + 1] : bytes.size();
        blocks.push_back(bytes.substr(starts[i], end - starts[i]));
    }
    return blocks;
}

} // namespace qxcli
