// The PEM CRL blocks of a file, found by the begin markers of every label.
#ifndef QXCRL_CLI_CRL_BLOCKS_H
#define QXCRL_CLI_CRL_BLOCKS_H

#include <string_view>
#include <vector>

namespace qxcli {

// bytes cut at every begin marker of a CRL, whatever its label, NUL bytes
// being bytes like any other: each block runs from its begin marker up to
// the next one or to the end. What comes before the first marker is in no
// block; bytes without a marker give none.
std::vector<std::string_view> crl_pem_blocks(std::string_view bytes);

} // namespace qxcli

#endif
