// tolvik.h - what the files of the command share: the run's context, failures, owned library
// records, passwords and output.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "zavkm.h"

namespace tolvik {

using Json = nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

// Failure - a step that did not succeed: what was being done, the library's return code, and a
// hint that replaces the code's usual one when not empty. Exit code 1.
struct Failure {
    std::string what;
    ZAVKM_ReturnCode code;
    std::string hint;
};

// UsageError - a command line that cannot be carried out as given. Exit code 2.
struct UsageError {
    std::string message;
};

// check - throws Failure{what, rc} unless rc is 0.
void check(ZAVKM_ReturnCode rc, const std::string& what);

// Secret - a password, wiped when it goes (moved-from buffers included).
struct Secret {
    std::string text;
    Secret() = default;
    Secret(Secret&&) = default;
    Secret& operator=(Secret&&) = delete;
    ~Secret();
};

// PasswordSource - where one password comes from: --NAME-file, --NAME-env or --NAME itself.
struct PasswordSource {
    std::string name;  // the options' NAME
    std::string file, env, text;
};

// The run: the store chosen, the password sources and the one action the command line chose.
struct Context {
    std::string db;             // key database file
    std::string module, token;  // a PKCS#11 token (store type 2)
    std::string provider;       // a platform certificate provider (store type 4)
    uint32_t storeType = KeyDbFile;
    bool json = false;
    PasswordSource password, newPassword;  // the key database's
    PasswordSource pin, newPin;            // the token's
    std::function<Json()> action;
};

// ---- owned library records -----------------------------------------------------------------

template <auto Release>
struct Releaser {
    template <class T>
    void operator()(T* p) const noexcept {
        Release(p);
    }
};
template <class T, auto Release>
using Owned = std::unique_ptr<T, Releaser<Release>>;
using LabelList = Owned<ZAVKM_LabelList, ZAVKM_FreeLabelList>;
using KeyItem = Owned<ZAVKM_KeyItem, ZAVKM_FreeKeyItem>;
using ReqKeyItem = Owned<ZAVKM_ReqKeyItem, ZAVKM_FreeReqKeyItem>;
using CertList = Owned<ZAVKM_CertItemList, ZAVKM_FreeCertItemList>;
using EpkiItem = Owned<ZAVKM_EPKIItem, ZAVKM_FreeEPKIItem>;
using PrivKeyInfo = Owned<ZAVKM_PrivKeyInfoItem, ZAVKM_FreePrivKeyInfoItem>;

// out - the address an operation writes a record to; the record lands in `owner` at the end of
// the full expression, also when a failure is thrown.
template <class P>
struct Out {
    P& owner;
    typename P::pointer raw = nullptr;
    ~Out() { owner.reset(raw); }
    operator typename P::pointer *() { return &raw; }
};
template <class P>
Out<P> out(P& owner) {
    return Out<P>{owner};
}

// Store - an open store, closed when it goes. Opens the context's key database (or token or
// provider) with the password the context's sources give.
class Store {
  public:
    explicit Store(Context& ctx);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ZAVKM_KeyDbHandle handle = 0;
};

// ---- command registration ------------------------------------------------------------------

// verb - a subcommand of `parent` whose action is `run`.
CLI::App* verb(CLI::App& parent, const std::string& name, const std::string& about, Context& ctx,
               std::function<Json()> run);
// addStoreOptions - --db and the key database's password sources on `cmd`.
void addStoreOptions(CLI::App* cmd, Context& ctx);
// addPasswordOptions - --NAME-file, --NAME-env and --NAME on `cmd`, filling `source`.
void addPasswordOptions(CLI::App* cmd, PasswordSource& source, const std::string& name,
                        const std::string& what);

void addKeyDbCommands(CLI::App& app, Context& ctx);
void addEntryCommands(CLI::App& app, Context& ctx);
void addCertCommands(CLI::App& app, Context& ctx);
void addFileCommands(CLI::App& app, Context& ctx);
void addTokenCommands(CLI::App& app, Context& ctx);
// addKeyPairVerbs - `selfsign` and `request` on `noun`, for the key database or a token.
void addKeyPairVerbs(CLI::App& noun, Context& ctx);

// ---- passwords -----------------------------------------------------------------------------

// password - from the source given, else asked on the terminal (twice when `confirm`); a
// UsageError when there is neither.
Secret password(const PasswordSource& source, const std::string& question, bool confirm);
// keyDbPassword - the key database's password: from its source, else empty when a valid stash
// file stands beside the file, else asked on the terminal.
Secret keyDbPassword(const Context& ctx);
// stashed - whether a valid stash file holds the key database's password.
bool stashed(const std::string& db);

// ---- entries, certificates and files -------------------------------------------------------

// entries - one row per entry of the open store: label, kind, flags, key, expiry.
Json entries(ZAVKM_KeyDbHandle handle);
// subjectOf - the DN record of "CN=a,O=b,C=NO"; its texts point into `parts`.
ZAVKM_DNItem subjectOf(const std::vector<std::string>& parts);
// extensionsDer - DER Extensions holding a subjectAltName of `san` ("DNS:a,IP:1.2.3.4"); empty
// when `san` is.
Bytes extensionsDer(const std::string& san);
// certFacts - subject, issuer, serial, validity, key, fingerprints and extensions.
Json certFacts(const ZAVKM_CertItem& cert);
std::string dnText(const ZAVKM_DNItem* dn);
std::string keyText(int32_t algorithm, int32_t bits);
Json labelsJson(const ZAVKM_LabelList* list);
std::string isoTime(int64_t seconds);
// columns - the characters of UTF-8 text (its width in a terminal of one column a character).
size_t columns(std::string_view text);
std::string pem(const char* type, const uint8_t* der, uint32_t length);
// withProgress - runs a key generation, with a ticking line on a terminal for RSA >= 4096 bits.
ZAVKM_ReturnCode withProgress(int keySize, const std::function<ZAVKM_ReturnCode()>& generate);

Bytes readFile(const std::string& path);
// writeFile - writes `data` whole or not at all, readable by its owner only.
void writeFile(const std::string& path, const uint8_t* data, size_t length);

// ---- output --------------------------------------------------------------------------------

// print - the document as JSON, or as aligned text for people.
void print(const Json& doc, bool json);
// describe - the one line a failure prints: what failed, the code, its name and a hint.
std::string describe(const Failure& failure);
const char* codeName(ZAVKM_ReturnCode code);

}  // namespace tolvik
