// tolvik.h - what the files of the command share: the run's context, failures, owned library
// records, passwords, files read and written, and output.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zavkm.h"
#include "zavkm_ext.h"
#include "zavkm.hpp"

namespace tolvik {

using Json = nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

// kJsonVersion - the version of the JSON documents' shape (docs/tolvik.schema.json).
constexpr int kJsonVersion = 1;

// Exit codes beyond 0 (success), 1 (a step failed) and 2 (usage): what `list --expiring` and
// `list --expired` found.
constexpr int kExitExpiring = 3;  // a certificate expires within the window asked for
constexpr int kExitExpired = 4;   // a certificate has expired

// Failure - a step that did not succeed: what was being done, the library's return code, and a
// hint that replaces the code's usual one when not empty. Exit code 1.
struct Failure {
    std::string what;
    ZAVKM_ReturnCode code;  // 0 for a failure that is not the library's
    std::string hint;
    std::shared_ptr<const nlohmann::ordered_json> result = nullptr;  // what a JSON reader still gets
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

// The run: the store chosen, the password sources, the one action the command line chose, and
// what the action leaves for the end of the run (warnings, an exit status other than 0).
struct Context {
    std::string db;             // key database file
    std::string module, token;  // a PKCS#11 token (store type 2)
    std::string provider;       // a platform certificate provider (store type 4)
    uint32_t storeType = KeyDbFile;
    bool json = false;
    bool force = false;  // an existing output file may be replaced
    PasswordSource password, newPassword;  // the key database's
    PasswordSource pin, newPin;            // the token's
    std::string command;                   // "cert selfsign"
    std::function<Json()> action;
    std::vector<std::string> warnings;  // printed on standard error; in JSON, "warnings"
    int status = 0;                     // the exit status of a run whose action returned
    bool printed = false;               // the action wrote its output itself
    mutable bool dataOnStdout = false;  // an output went to standard output: the report goes to
                                        // standard error
    std::shared_ptr<Failure> partial;   // a result printed that is not whole: exit status 1
};

// ---- owned library records -----------------------------------------------------------------

// The owners of zavkm.hpp hold what the library hands out (zavkm::KeyItemPtr, ...); Owned
// holds OpenSSL objects the same way, and out(owner) is the out-parameter that fills one.
using zavkm::Owned;
using zavkm::out;

// Store - an open store, closed when it goes. Opens the context's key database (or token or
// provider) with the password the context's sources give.
class Store {
  public:
    explicit Store(Context& ctx);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ZAVKM_KeyDbHandle handle = 0;
    std::string name;  // the file, token or provider, as given
};

// ---- command registration ------------------------------------------------------------------

// verb - a subcommand of `parent` whose action is `run`, with --json.
CLI::App* verb(CLI::App& parent, const std::string& name, const std::string& about, Context& ctx,
               std::function<Json()> run);
// addStoreOptions - --db and the key database's password sources on `cmd`.
void addStoreOptions(CLI::App* cmd, Context& ctx);
// addPasswordOptions - --NAME-file, --NAME-env and --NAME on `cmd`, filling `source`.
void addPasswordOptions(CLI::App* cmd, PasswordSource& source, const std::string& name,
                        const std::string& what);
// addOutput - -o/--out FILE (`-` standard output) and --force on `cmd`.
CLI::Option* addOutput(CLI::App* cmd, std::string& path, Context& ctx, const std::string& what);
// addLabel - a positional label checked as a label is (1 to 255 bytes, no control character).
CLI::Option* addLabel(CLI::App* cmd, const std::string& name, std::string& label,
                      const std::string& what);

void addKeyDbCommands(CLI::App& app, Context& ctx);
void addListCommand(CLI::App& app, Context& ctx);
void addEntryCommands(CLI::App& app, Context& ctx);
void addCertCommands(CLI::App& app, Context& ctx);
void addFileCommands(CLI::App& app, Context& ctx);
void addTokenCommands(CLI::App& app, Context& ctx);
// addEntryVerbs - `show`, `delete`, `default`, `trust` and `rename` on `noun` (the program for a
// key database; a token's noun may take them too), `storeOptions` as for addKeyPairVerbs.
void addEntryVerbs(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions);
// addReceiveVerb - `receive` on `noun`, storeOptions as for addKeyPairVerbs.
void addReceiveVerb(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions);
// addP12ImportVerb - `p12 import` under `parent`, storeOptions as for addKeyPairVerbs.
void addP12ImportVerb(CLI::App& parent, Context& ctx, const std::function<void(CLI::App*)>& storeOptions);
// addKeyPairVerbs - `selfsign`, `request` and `sign` on `noun`, for the key database or a
// token; `storeOptions` adds the options that name the store and its password to each verb.
void addKeyPairVerbs(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions);
// commandsOf - the subcommands of `cmd` that people see.
std::vector<const CLI::App*> commandsOf(const CLI::App* cmd);
// optionsOf - the options of `cmd`, those of its option groups included, help flags left out.
std::vector<const CLI::Option*> optionsOf(const CLI::App* cmd);
// addManualCommand - the hidden `generate` that prints the manual page and the completions.
void addManualCommand(CLI::App& app, Context& ctx);

// ---- passwords -----------------------------------------------------------------------------

// password - from the source given, else asked on the terminal (twice when `confirm`); a
// UsageError when there is neither.
Secret password(const PasswordSource& source, const std::string& question, bool confirm);
// keyDbPassword - the key database's password: from its source, else empty when a valid stash
// file stands beside the file, else asked on the terminal.
Secret keyDbPassword(const Context& ctx);
// stashed - whether a valid stash file holds the key database's password.
bool stashed(const std::string& db);
// confirmed - whether the person at the terminal answers yes to `question`; false off a terminal.
bool confirmed(const std::string& question);
// installSignalHandlers - Ctrl-C, SIGTERM and SIGHUP restore the terminal, remove the scratch
// directory and end the run with 128 + the signal.
void installSignalHandlers();

// ---- certificates --------------------------------------------------------------------------

// Entry - one entry of a store as a listing shows it. The certificate (or request) DER only
// when the listing asked for it.
struct Entry {
    std::string label;
    int32_t kind = 0;  // ZAVKM_ENTRY_...
    int32_t keyType = 0, keyBits = 0;
    bool isDefault = false, trusted = false;
    int64_t notBefore = 0, notAfter = 0;  // 0 for a request
    Bytes der;
};

// CertFacts - what a certificate (or request) tells a person, read from its DER.
struct CertFacts {
    std::string subject, issuer, serial;
    std::string commonName;  // the subject's first CN, empty without one
    std::vector<std::string> san;
    int64_t notBefore = 0, notAfter = 0;
    std::string sha1, sha256;
    bool isCa = false;
    int pathLength = -1;  // -1: no limit
    bool canSign = true;  // keyUsage absent or with keyCertSign
};

// certFacts - the facts of a DER certificate; nullopt when it does not decode.
std::optional<CertFacts> certFacts(const uint8_t* der, size_t length);
// requestFacts - subject and subject alternative names of a DER or PEM request.
std::optional<CertFacts> requestFacts(const uint8_t* der, size_t length);
// showCert - subject, issuer, serial, validity, key, fingerprints and extensions, for `show`.
Json showCert(const ZAVKM_CertItem& cert);
// subjectOf - the DN record of "CN=a,O=Foo\, Inc.,C=NO,emailAddress=x"; its texts point into
// `parts`, which it fills. A UsageError names the part that does not read.
ZAVKM_DNItem subjectOf(const std::string& subject, std::vector<std::string>& parts);
// ExtensionArg - an extension given with an option: its OpenSSL name (subjectAltName) and
// value as OpenSSL's configuration reads it (DNS:a,IP:1.2.3.4); an empty value adds none.
struct ExtensionArg {
    std::string option, name, value, hint;
};
// extensionsDer - DER Extensions of `args`; empty for none. A UsageError names the option whose
// value does not read.
Bytes extensionsDer(const std::vector<ExtensionArg>& args);
// certificates - every certificate of PEM, DER or PKCS#7 data, in order (the library's reader).
std::vector<Bytes> certificates(const Bytes& data, const std::string& what);
std::string keyType(int32_t algorithm);
std::string keyText(int32_t algorithm, int32_t bits);
Json labelsJson(const ZAVKM_LabelList* list);
std::string isoTime(int64_t seconds);
std::string pem(const char* type, const uint8_t* der, size_t length);
// withProgress - runs a key generation, with a ticking line on a terminal for RSA >= 4096 bits.
ZAVKM_ReturnCode withProgress(int keySize, const std::function<ZAVKM_ReturnCode()>& generate);

// ---- entries -------------------------------------------------------------------------------

// listing - every entry of an open store; `der` asks for each certificate's DER. `damaged` is
// how many rows the library left out (0 for a whole listing).
std::vector<Entry> listing(ZAVKM_KeyDbHandle handle, bool der, uint32_t& damaged);
// damagedRows - "1 damaged row", "2 damaged rows".
std::string damagedRows(uint32_t count);
// reportDamage - a partial listing is said on standard error and ends the run with 1.
void reportDamage(Context& ctx, uint32_t damaged);

// ---- files ---------------------------------------------------------------------------------

// readInput - the bytes of a file, or of standard input for "-", at most 16 MiB. A FIFO
// without a writer reads as empty instead of blocking.
Bytes readInput(const std::string& path);
// writeOutput - data to `path` through the library's writer, or to standard output for "-".
// An existing regular file is replaced only with --force; `secret` makes a new file 0600.
void writeOutput(const Context& ctx, const std::string& path, const uint8_t* data, size_t length,
                 bool secret);
// checkOutput - fails now when writeOutput would refuse `path` for existing without --force,
// so that nothing is changed for an output that cannot be written.
void checkOutput(const Context& ctx, const std::string& path);

// Scratch - a private directory (0700) for files the library reads or writes by name; removed
// with what it holds when it goes (and by the signal handlers).
class Scratch {
  public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    // file - the path of `name` inside the directory.
    std::string file(const std::string& name) const;
    // put - `data` written as `name`; its path.
    std::string put(const std::string& name, const Bytes& data) const;

  private:
    std::string dir_;
};
// removeScratch - removes the scratch directory and what the library may have left in it;
// async-signal-safe.
void removeScratch() noexcept;

// ---- output --------------------------------------------------------------------------------

// document - the JSON document of a run: the shape's version, the command, whether it
// succeeded, its result and its warnings.
Json document(const Context& ctx, const Json& result);
// change - one entry a command changed: its action ("add", "delete", "update", "rename"), its
// label and its kind (null when the command does not know it).
Json change(const std::string& action, const std::string& label, const char* kind);
// file - one file a command wrote: its path and what it holds.
Json file(const std::string& path, const std::string& content);
// changed - the result of every command that changes a store or writes files.
Json changed(Json changes, Json files = Json::array());
// render - the document as aligned text for people (labels and texts escaped).
std::string render(const Json& doc);
// jsonText - the document as JSON text; bytes that are not UTF-8 become U+FFFD.
std::string jsonText(const Json& doc);
// describe - the one line a failure prints: what failed, the code, its name and a hint.
std::string describe(const Failure& failure);
const char* codeName(ZAVKM_ReturnCode code);
// terminalText - `text` safe for a terminal: control characters, bidirectional controls and
// bytes that are not UTF-8 escaped (\n, \x1b, \u202e).
std::string terminalText(std::string_view text);
// width - the columns `text` takes on a terminal once escaped (wide characters count two).
size_t width(std::string_view text);
// padded - `text` escaped and filled with blanks to `columns`.
std::string padded(std::string_view text, size_t columns);
// colour - whether standard output takes colours: a terminal, NO_COLOR unset, TERM not dumb.
bool colour();
// writeOut - the text to standard output at once; a failure to write is a Failure.
void writeOut(std::string_view text);

}  // namespace tolvik
