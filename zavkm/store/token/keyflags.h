// keyflags.h - the default key and the trust marks of a token. PKCS#11 has no default key, and
// CKA_TRUSTED is the security officer's to set; so a token keeps both in one private data object
// of this library (application and label "zav7km key flags"), which pkcs11-tool lists and reads
// after a login and which nobody without the PIN can see or change. Its value is text, one line
// each:
//     zav7km key flags
//     generation N
//     default LABEL
//     trusted LABEL
//     untrusted LABEL
// A change writes a new object with the next generation, then destroys the older ones: stopped
// in between, the token holds both and the higher generation counts.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "store/token/token.h"

namespace zavkm {

// KeyFlags - the default key's label (empty: none) and the trust marks set by label; a label
// without a mark is trusted as the token says.
struct KeyFlags {
    uint64_t generation = 0;
    std::string defaultLabel;
    std::map<std::string, bool> trust;
};

// readKeyFlags - the flags of the highest generation; none (an empty KeyFlags) on a handle that
// did not prove the PIN or a token without a flags object. A flags object that is not ours
// in form gives ZAVKM_ERR_DATABASE_CORRUPTION (pkcs11-tool --delete-object removes it).
Rc readKeyFlags(TokenStore& t, KeyFlags& out);

// writeKeyFlags - flags as the token's flags object, of the next generation: the new object is
// made, then every older one destroyed. ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED without
// the PIN, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT on a read-only token.
Rc writeKeyFlags(TokenStore& t, const KeyFlags& flags);

// trustMark - the mark set for label, if any.
std::optional<bool> trustMark(const KeyFlags& flags, const std::string& label);

// changeKeyFlags - reads the flags, lets change edit them, and writes them when change made a
// difference.
template <class Change>
Rc changeKeyFlags(TokenStore& t, Change&& change) {
    KeyFlags flags;
    if (Rc rc = readKeyFlags(t, flags); rc != ZAVKM_OK) return rc;
    const KeyFlags before = flags;
    change(flags);
    if (flags.defaultLabel == before.defaultLabel && flags.trust == before.trust) return ZAVKM_OK;
    return writeKeyFlags(t, flags);
}

// setTokenDefault - makes the personal key under label the token's default key:
// ZAVKM_ERR_KEY_GET_BY_LABEL without a certificate under label, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL
// when the token holds no private key for it.
Rc setTokenDefault(TokenStore& t, const std::string& label);

// setTokenTrust - marks the certificate under label trusted or not trusted:
// ZAVKM_ERR_KEY_GET_BY_LABEL without a certificate under label.
Rc setTokenTrust(TokenStore& t, const std::string& label, bool trusted);

// markNewEntry - gives the entry just made under label (a label nothing else on the token had)
// the default and trust marks asked for; when that fails, every object under label goes again,
// so the operation that made the entry changes nothing.
Rc markNewEntry(TokenStore& t, const std::string& label, bool makeDefault, bool trusted);

// forgetKeyFlags - drops the default and the trust mark of label (its entry is gone).
Rc forgetKeyFlags(TokenStore& t, const std::string& label);

}  // namespace zavkm
