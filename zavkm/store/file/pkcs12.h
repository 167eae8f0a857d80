// pkcs12.h - PKCS#12 files: export, import, keyring files, and the WEBDB password probe.
//
// Written files use PBES2 (PBKDF2-HMAC-SHA256, AES-256-CBC) for the shrouded keys and the
// certificate safe, and an HMAC-SHA256 MAC, each with kPkcs12Iterations iterations. A
// personal key is a shrouded key bag and a certificate bag sharing a localKeyID, both named by
// the key's label (friendlyName), followed by the certificates of its chain; its default and
// trust flags are attributes of ours on the key bag. A signer certificate is a certificate bag
// named by its label, marked, when trusted, with the attribute 2.16.840.1.113894.746875.1.1 =
// anyExtendedKeyUsage, which Java's keytool lists as a trustedCertEntry. A request key (keyring
// files only) is a shrouded key bag named by its label, carrying its request in an attribute of
// ours.
#pragma once

#include <string>
#include <vector>

#include "store/file/keydb.h"

namespace zavkm {

inline constexpr int kPkcs12Iterations = 100000;
// The key-derivation work one import may ask for, summed over the MAC, the encrypted safes and
// the shrouded keys before any of them is derived (a shrouded key inside an encrypted safe is
// counted as soon as its safe is open): about 0.9 s of PBKDF2 here. Exports lower the
// iterations of each key when they hold more than 38 keys, so that the library reads back
// every file it writes.
inline constexpr long kPkcs12IterationBudget = 4000000;

// pkcs12NeedsPassword - whether the PKCS#12 file fileName needs a password: it carries a MAC,
// encrypted content or a shrouded key. ZAVKM_ERR_KEYDB_NOT_EXIST when the file does not exist,
// ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT when it is not PKCS#12.
Rc pkcs12NeedsPassword(const char* fileName, bool& needed);

// exportPkcs12 - writes the entries named by labels (empty: every personal key and signer
// certificate; with withRequests, every request key too) to fileName (mode 0600, through
// writeFile). ZAVKM_ERR_KEY_GET_BY_LABEL for a label that is not there;
// ZAVKM_ERR_DATABASE_KEY_INTEGRITY when a row to write is damaged (never a file without it).
Rc exportPkcs12(KeyDb& kdb, const std::vector<std::string>& labels, const char* fileName,
                const char* password, bool withRequests);

// importPkcs12 - adds every key (with its certificate), request key and further certificate of
// the PKCS#12 file to the open database in one transaction: all or nothing. Labels are the
// friendlyNames (a key's: its key bag's, else its certificate bag's); a certificate without one
// is labelled by its subject's common name, made unique with " (2)", ... . Certificates are
// trusted only when the file marks them (the JDK's trusted-certificate attribute; ours on a key
// bag); the default flag comes from our attribute. A certificate the database holds already is
// not added again, nor one the file repeats under the same name. The file is read and every
// row prepared before the database is locked. A clashing label gives
// ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, a friendlyName that is no label ZAVKM_ERR_PARAMETER, a
// wrong password or failed MAC ZAVKM_ERR_PKCS12_PWD_CORRUPTION, data that is not PKCS#12
// ZAVKM_ERR_INVALID_PKCS12_DATA, more iterations than kPkcs12IterationBudget or an algorithm
// refused in FIPS mode ZAVKM_ERR_PBE_ALG_UNSUPPORT.
Rc importPkcs12(KeyDb& kdb, const char* fileName, const char* password);

// unloadLegacyAlgorithms - releases the providers loaded for legacy PKCS#12 files
// (ZAVKM_CleanAll); the next import loads them again.
void unloadLegacyAlgorithms() noexcept;

}  // namespace zavkm
