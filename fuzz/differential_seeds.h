// Seeds that only the differential target can make: CRLs signed by its
// fixed issuer, so that verification is compared on CRLs that verify, and
// CRLs that hold what the corpus lacks (duplicate serials, removeFromCRL,
// repeated or conflicting extensions).
#ifndef QXCRL_FUZZ_DIFFERENTIAL_SEEDS_H
#define QXCRL_FUZZ_DIFFERENTIAL_SEEDS_H

namespace qxfuzz {

// Writes the seeds into the existing directory dir; false on any failure.
bool write_differential_seeds(const char* dir);

} // namespace qxfuzz

#endif
