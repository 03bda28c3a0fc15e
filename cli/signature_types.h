// The layer's signature types by name, and the one a key signs with by default.
#ifndef QXCRL_CLI_SIGNATURE_TYPES_H
#define QXCRL_CLI_SIGNATURE_TYPES_H

#include <cstdint>
#include <optional>
#include <string>

#include "qxlayer.h"

namespace qxcli {

// The signature algorithm's name for a layer signature type, or "unknown".
const char* signature_algorithm_name(uint32_t signatureType);

// The layer signature type a name or number stands for ("ecdsa-with-SHA384",
// "sha256WithRSAEncryption", "ED25519", "rsassaPss-SHA256", "10"; names
// without regard to case); nullopt for neither.
std::optional<uint32_t> signature_type_named(const std::string& text);

// Every name signature_type_named takes, comma-separated, for help texts.
std::string signature_type_names();

// The signature type a key signs with by default, from its algorithm and,
// for EC keys, its curve: P-256 ECDSA with SHA-256, P-384 with SHA-384,
// P-521 with SHA-512; RSA with SHA-256; RSA-PSS with PSS and SHA-256;
// Ed25519, Ed448. 0 for a key of none of these.
uint32_t default_signature_type(const QxPrivateKey* key);

} // namespace qxcli

#endif
