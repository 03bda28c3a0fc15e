// Reading CRL files, DER or PEM under any label the library knows, and
// handing their CRLs to the module, saying why when it refuses one.
#ifndef QXCRL_CLI_CRL_INPUT_H
#define QXCRL_CLI_CRL_INPUT_H

#include <string>
#include <vector>

#include "session.h"

namespace qxcli {

// What is said of bytes that are no CRL, and of a CRL the module refuses
// for no reason the display reader names.
extern const char not_a_crl[];
extern const char refused_unnamed[];

// One CRL of a file: its DER and how to name it in messages ("crl.pem", or
// "CRL 2 of crl.pem" when the file holds several).
struct CrlBytes {
    std::string name;
    std::vector<unsigned char> der;
};

// The CRLs of path: one per PEM block, whatever its label, or the whole file
// as one DER CRL when it has no begin marker. Reports a failure (naming the
// file and the block) and returns its exit status, or 0.
int read_crl_file(Session& session, const std::string& path, std::vector<CrlBytes>& crls);

// Decodes one CRL into crl. A CRL the module refuses is reported with the
// reason the display reader finds and gives refused_exit; bytes that are no
// CRL give failure_exit.
int decode_crl(Session& session, const CrlBytes& bytes, Crl& crl);

// The first CRL of the file at path, decoded.
int load_crl(Session& session, const std::string& path, Crl& crl);

} // namespace qxcli

#endif
