// files.cpp - `tolvik p12 | keyring | epki | pem ...`: keys and certificates moving in and out of
// the key database as PKCS#12, keyring, PKCS#8 and PEM files. The library reads and writes
// PKCS#12 and keyring files by name: it reads a private copy of the input and writes into the
// scratch directory, and the bytes reach their output through the one writer.
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <map>
#include <set>

#include "tolvik.h"

namespace tolvik {
namespace {

struct FileArgs {
    std::string file, in, out;
    std::vector<std::string> labels;
    bool der = false;
    PasswordSource filePassword;
    // pem export
    std::string cert, chain, fullchain, key, bundle;
    bool noEncrypt = false, withRoot = false;
};

// secretInput - the bytes of a file (as readInput reads them) that may hold a private key, in a
// buffer that wipes them; the buffer they were read into is wiped at once.
zavkm::SecretBytes secretInput(const std::string& path) {
    Bytes data = readInput(path);
    zavkm::SecretBytes secret(data.data(), data.size());
    zavkm::wipe(data.data(), data.size());
    return secret;
}

// labelList - the library's list of `labels`, in order; null for none.
zavkm::LabelListPtr labelList(const std::vector<std::string>& labels) {
    zavkm::LabelListPtr list;
    for (auto it = labels.rbegin(); it != labels.rend(); ++it) {
        auto* node = static_cast<ZAVKM_LabelList*>(ZAVKM_Malloc(sizeof(ZAVKM_LabelList)));
        if (node == nullptr) throw Failure{"list the labels", ZAVKM_ERR_MEMORY_ALLOCATE, ""};
        *node = {ZAVKM_Strdup(it->c_str()), list.release()};
        list.reset(node);
    }
    return list;
}

const char* kindOf(int32_t kind) {
    return kind == ZAVKM_ENTRY_PERSONAL ? "personal" : kind == ZAVKM_ENTRY_SIGNER ? "signer" : "request";
}

// kinds - label to kind of every entry of an open store.
std::map<std::string, int32_t> kinds(ZAVKM_KeyDbHandle handle) {
    uint32_t damaged = 0;
    std::map<std::string, int32_t> all;
    for (const Entry& e : listing(handle, false, damaged)) all.emplace(e.label, e.kind);
    return all;
}

// added - the entries of `after` that `before` lacks.
Json added(const std::map<std::string, int32_t>& before, const std::map<std::string, int32_t>& after) {
    Json rows = Json::array();
    for (const auto& [label, kind] : after)
        if (!before.count(label)) rows.push_back(change("add", label, kindOf(kind)));
    return rows;
}

Json p12Export(Context& ctx, const FileArgs& a) {
    checkOutput(ctx, a.file);
    Store store(ctx);
    const std::map<std::string, int32_t> all = kinds(store.handle);
    const std::string what = "export to " + a.file;
    std::vector<std::string> leftOut;
    for (const std::string& label : a.labels) {
        auto it = all.find(label);
        if (it == all.end()) throw Failure{what, ZAVKM_ERR_KEY_GET_BY_LABEL, "no entry " + label};
        if (it->second == ZAVKM_ENTRY_REQUEST)
            throw Failure{what, ZAVKM_ERR_KEY_GET_BY_LABEL,
                          label + " is a request key, which a PKCS#12 file cannot carry"};
    }
    for (const auto& [label, kind] : all)
        if (a.labels.empty() && kind == ZAVKM_ENTRY_REQUEST) leftOut.push_back(label);
    Secret pw = password(a.filePassword, "Password for " + a.file + ": ", true);
    zavkm::LabelListPtr labels = labelList(a.labels);
    Scratch scratch;
    const std::string made = scratch.file("export.p12");
    check(ZAVKM_ExportKeys(store.handle, 1, made.c_str(), pw.text.c_str(), labels.get()), what);
    Bytes p12 = readInput(made);
    writeOutput(ctx, a.file, p12.data(), p12.size(), true);
    for (const std::string& label : leftOut)
        ctx.warnings.push_back("request key " + label + " left out of " + a.file +
                               ": a PKCS#12 file cannot carry it (tolvik keyring export can)");
    Json result = changed(Json::array(), Json::array({file(a.file, "pkcs12")}));
    result["left_out"] = leftOut;
    return result;
}

using P12Ptr = std::unique_ptr<PKCS12, zavkm::Deleter<PKCS12_free>>;

// friendlyNames - the labels a PKCS#12 file brings, in order (a key's and its certificate's
// once); empty when the file does not open with `password` here.
std::vector<std::string> friendlyNames(const Bytes& data, const std::string& password) {
    std::vector<std::string> names;
    const unsigned char* p = data.data();
    P12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(data.size())));
    STACK_OF(PKCS7)* safes = p12 ? PKCS12_unpack_authsafes(p12.get()) : nullptr;
    std::set<std::string> keyIds;
    for (int i = 0; safes && i < sk_PKCS7_num(safes); ++i) {
        PKCS7* safe = sk_PKCS7_value(safes, i);
        const int type = OBJ_obj2nid(safe->type);
        STACK_OF(PKCS12_SAFEBAG)* bags =
            type == NID_pkcs7_data ? PKCS12_unpack_p7data(safe)
            : type == NID_pkcs7_encrypted
                ? PKCS12_unpack_p7encdata(safe, password.c_str(), static_cast<int>(password.size()))
                : nullptr;
        for (int j = 0; bags && j < sk_PKCS12_SAFEBAG_num(bags); ++j) {
            const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, j);
            char* name = PKCS12_get_friendlyname(const_cast<PKCS12_SAFEBAG*>(bag));
            const ASN1_TYPE* attr = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
            const ASN1_OCTET_STRING* id =
                attr && attr->type == V_ASN1_OCTET_STRING ? attr->value.octet_string : nullptr;
            const std::string key = id ? std::string(reinterpret_cast<const char*>(id->data), static_cast<size_t>(id->length)) : "";
            if (name && (key.empty() || keyIds.insert(key).second)) names.push_back(name);
            OPENSSL_free(name);
        }
        sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    }
    sk_PKCS7_pop_free(safes, PKCS7_free);
    ERR_clear_error();
    return names;
}

// clash - why an import answered 23: the label that is taken, or named twice in the file.
std::string clash(const Bytes& data, const std::string& password, const std::map<std::string, int32_t>& held) {
    std::set<std::string> seen;
    for (const std::string& name : friendlyNames(data, password)) {
        if (held.count(name)) return "the label " + name + " is taken";
        if (!seen.insert(name).second) return "the file names " + name + " twice";
    }
    return "";
}

Json p12Import(Context& ctx, const FileArgs& a) {
    Bytes data = readInput(a.file);
    Store store(ctx);
    const std::map<std::string, int32_t> before = kinds(store.handle);
    Secret pw = password(a.filePassword, "Password of " + a.file + ": ", false);
    Scratch scratch;
    const std::string copy = scratch.put("import.p12", data);
    const ZAVKM_ReturnCode rc = ZAVKM_ImportKeysFromPFXFile(store.handle, copy.c_str(), pw.text.c_str());
    if (rc == ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL)
        throw Failure{"import " + a.file, rc, clash(data, pw.text, before)};
    check(rc, "import " + a.file);
    return changed(added(before, kinds(store.handle)));
}

Json keyringExport(Context& ctx, const FileArgs& a) {
    checkOutput(ctx, a.file);
    Secret db = keyDbPassword(ctx);
    Secret pw = password(a.filePassword, "Password for " + a.file + ": ", true);
    Scratch scratch;
    const std::string made = scratch.file("export.kyr");
    check(ZAVKM_Kdb2Kyr(ctx.db.c_str(), db.text.c_str(), made.c_str(), pw.text.c_str()),
          "convert " + ctx.db + " to the keyring " + a.file);
    Bytes ring = readInput(made);
    writeOutput(ctx, a.file, ring.data(), ring.size(), true);
    return changed(Json::array(), Json::array({file(a.file, "keyring")}));
}

Json keyringImport(Context& ctx, const FileArgs& a) {
    if (ctx.db.empty()) throw UsageError{"name the new key database with --db FILE"};
    Bytes data = readInput(a.file);
    Secret pw = password(a.filePassword, "Password of " + a.file + ": ", false);
    Secret db = password(ctx.password, "New password for " + ctx.db + ": ", true);
    Scratch scratch;
    const std::string copy = scratch.put("import.kyr", data);
    check(ZAVKM_Kyr2Kdb(copy.c_str(), pw.text.c_str(), ctx.db.c_str(), db.text.c_str()),
          "convert the keyring " + a.file + " to " + ctx.db);
    ZAVKM_KeyDbHandle handle = 0;
    Json rows = Json::array();
    if (ZAVKM_OpenKeyDb(ctx.db.c_str(), db.text.c_str(), &handle) == ZAVKM_OK) {
        rows = added({}, kinds(handle));
        ZAVKM_CloseKeyDb(handle);
    }
    return changed(rows, Json::array({file(ctx.db, "key database")}));
}

// writeKey - a key file, PEM unless DER is asked for, mode 0600; the PEM text is wiped too.
void writeKey(const Context& ctx, const std::string& path, bool der, const char* type,
              const uint8_t* bytes, uint32_t length) {
    if (der) return writeOutput(ctx, path, bytes, length, true);
    Secret text;
    text.text = pem(type, bytes, length);
    writeOutput(ctx, path, reinterpret_cast<const uint8_t*>(text.text.data()), text.text.size(), true);
}

// pemBody - the DER of the first PEM block of `data`, or `data` itself when it is not PEM.
void pemBody(zavkm::SecretBytes& data) {
    using BioPtr = std::unique_ptr<BIO, zavkm::Deleter<BIO_free_all>>;
    BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* der = nullptr;
    long length = 0;
    if (bio && PEM_read_bio(bio.get(), &name, &header, &der, &length) == 1) {
        data.assign(der, static_cast<size_t>(length));
        OPENSSL_clear_free(der, static_cast<size_t>(length));
    }
    OPENSSL_free(name);
    OPENSSL_free(header);
    ERR_clear_error();
}

Json encrypt(Context& ctx, const FileArgs& a) {
    checkOutput(ctx, a.out);
    const zavkm::SecretBytes key = secretInput(a.in);
    Secret pw = password(a.filePassword, "Password for " + a.out + ": ", true);
    zavkm::EPKIPtr epki;
    check(ZAVKM_GetEPKIItemFromPrivateKey(key.data(), static_cast<uint32_t>(key.size()),
                                          pw.text.c_str(), out(epki)),
          "encrypt the key in " + a.in);
    writeKey(ctx, a.out, a.der, "ENCRYPTED PRIVATE KEY", epki->der, epki->derLength);
    return changed(Json::array(), Json::array({file(a.out, "encrypted private key")}));
}

Json decrypt(Context& ctx, const FileArgs& a) {
    checkOutput(ctx, a.out);
    zavkm::SecretBytes data = secretInput(a.in);
    pemBody(data);
    ZAVKM_EPKIItem epki{data.data(), static_cast<uint32_t>(data.size())};
    Secret pw = password(a.filePassword, "Password of " + a.in + ": ", false);
    zavkm::PrivKeyInfoPtr key;
    check(ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&epki, pw.text.c_str(), out(key)), "decrypt " + a.in);
    writeKey(ctx, a.out, a.der, "PRIVATE KEY", key->der, key->derLength);
    return changed(Json::array(), Json::array({file(a.out, "private key")}));
}

// privateKey - the PKCS#8 DER of a personal key's private key: exported by the library in a
// PKCS#12 file under a random password in the scratch directory, and read back from it.
zavkm::SecretBytes privateKey(ZAVKM_KeyDbHandle handle, const std::string& label) {
    unsigned char random[24];
    if (RAND_bytes(random, sizeof random) != 1) throw Failure{"make a password", ZAVKM_ERR_CRYPTO, ""};
    Secret pw;
    for (unsigned char b : random) pw.text += "0123456789abcdef"[b & 15];
    zavkm::wipe(random, sizeof random);
    Scratch scratch;
    const std::string made = scratch.file("key.p12");
    zavkm::LabelListPtr labels = labelList({label});
    check(ZAVKM_ExportKeys(handle, 1, made.c_str(), pw.text.c_str(), labels.get()),
          "read the private key of " + label);
    Bytes p12 = readInput(made);
    const unsigned char* p = p12.data();
    P12Ptr parsed(d2i_PKCS12(nullptr, &p, static_cast<long>(p12.size())));
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    STACK_OF(X509)* chain = nullptr;
    const bool ok = parsed && PKCS12_parse(parsed.get(), pw.text.c_str(), &key, &cert, &chain) == 1 && key;
    X509_free(cert);
    sk_X509_pop_free(chain, X509_free);
    PKCS8_PRIV_KEY_INFO* info = ok ? EVP_PKEY2PKCS8(key) : nullptr;
    EVP_PKEY_free(key);
    unsigned char* bytes = nullptr;
    const int n = info ? i2d_PKCS8_PRIV_KEY_INFO(info, &bytes) : -1;
    PKCS8_PRIV_KEY_INFO_free(info);
    ERR_clear_error();
    if (n <= 0) throw Failure{"read the private key of " + label, ZAVKM_ERR_INVALID_PKCS12_DATA, ""};
    zavkm::SecretBytes der;
    try {
        der.assign(bytes, static_cast<size_t>(n));
    } catch (...) {
        OPENSSL_clear_free(bytes, static_cast<size_t>(n));
        throw;
    }
    OPENSSL_clear_free(bytes, static_cast<size_t>(n));
    return der;
}

// pemExport - the files a TLS server takes: the certificate, its chain (intermediates; the root
// with --with-root), both together, the private key (encrypted unless --no-encrypt), or all in
// one file.
Json pemExport(Context& ctx, const FileArgs& a) {
    const std::vector<std::pair<std::string, std::string>> outputs{
        {a.cert, "certificate"}, {a.chain, "chain"}, {a.fullchain, "fullchain"}, {a.key, "private key"}, {a.bundle, "bundle"}};
    bool any = false;
    for (const auto& [path, what] : outputs) {
        any = any || !path.empty();
        checkOutput(ctx, path);
    }
    if (!any) throw UsageError{"say what to write: --cert, --chain, --fullchain, --key or --bundle FILE"};
    const std::string label = a.labels.front();
    Store store(ctx);
    zavkm::KeyItemPtr item;
    check(ZAVKM_GetKeyItemByLabel(store.handle, label.c_str(), out(item)), "read entry " + label);
    std::string leaf, chain;
    for (const ZAVKM_CertItemList* node = item->certList; node && node->cert; node = node->next) {
        const ZAVKM_CertItem& c = *node->cert;
        const bool root = node != item->certList && c.subject && c.issuer &&
                          Bytes(c.subject->der, c.subject->der + c.subject->derLength) ==
                              Bytes(c.issuer->der, c.issuer->der + c.issuer->derLength);
        std::string text = pem("CERTIFICATE", c.der, c.derLength);
        if (node == item->certList) leaf = text;
        else if (!root || a.withRoot) chain += text;
    }
    if (leaf.empty()) throw Failure{"read the certificate of " + label, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, ""};
    Secret key;
    if (!a.key.empty() || !a.bundle.empty()) {
        if (!item->hasPrivateKey)
            throw Failure{"export the key of " + label, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL, ""};
        const zavkm::SecretBytes der = privateKey(store.handle, label);
        if (a.noEncrypt) {
            key.text = pem("PRIVATE KEY", der.data(), der.size());
        } else {
            Secret pw = password(a.filePassword, "Password for the key of " + label + ": ", true);
            zavkm::EPKIPtr epki;
            check(ZAVKM_GetEPKIItemFromPrivateKey(der.data(), static_cast<uint32_t>(der.size()),
                                                  pw.text.c_str(), out(epki)),
                  "encrypt the key of " + label);
            key.text = pem("ENCRYPTED PRIVATE KEY", epki->der, epki->derLength);
        }
    }
    Json files = Json::array();
    auto write = [&](const std::string& path, const std::string& text, bool secret, const char* what) {
        if (path.empty()) return;
        writeOutput(ctx, path, reinterpret_cast<const uint8_t*>(text.data()), text.size(), secret);
        files.push_back(file(path, what));
    };
    write(a.cert, leaf, false, "certificate");
    write(a.chain, chain, false, "chain");
    write(a.fullchain, leaf + chain, false, "fullchain");
    write(a.key, key.text, true, a.noEncrypt ? "private key" : "encrypted private key");
    if (!a.bundle.empty()) {
        Secret all;
        all.text = leaf + chain + key.text;
        write(a.bundle, all.text, true, "bundle");
    }
    return changed(Json::array(), files);
}

using Action = Json (*)(Context&, const FileArgs&);

CLI::App* noun(CLI::App& app, const char* name, const char* about) {
    CLI::App* cmd = app.add_subcommand(name, about);
    cmd->require_subcommand(1);
    return cmd;
}

// add - a verb of `noun` that takes the file's password options (and the store's, `store`).
CLI::App* add(CLI::App& noun, Context& ctx, const char* name, const char* about, Action action,
              std::shared_ptr<FileArgs> a, const char* passwordName, const char* passwordOf, bool store) {
    CLI::App* cmd = verb(noun, name, about, ctx, [&ctx, a, action] { return action(ctx, *a); });
    if (passwordName) addPasswordOptions(cmd, a->filePassword, passwordName, passwordOf);
    if (store) addStoreOptions(cmd, ctx);
    return cmd;
}

}  // namespace

void addP12ImportVerb(CLI::App& parent, Context& ctx, const std::function<void(CLI::App*)>& storeOptions) {
    auto p = std::make_shared<FileArgs>();
    CLI::App* p12 = noun(parent, "p12", "import keys from PKCS#12 files");
    storeOptions(p12);
    addPasswordOptions(p12, p->filePassword, "p12-password", "the PKCS#12 file");
    CLI::App* cmd = add(*p12, ctx, "import", "add every key and certificate of a PKCS#12 file",
                        p12Import, p, "p12-password", "the PKCS#12 file", false);
    cmd->add_option("file", p->file, "the PKCS#12 file (- for standard input)")->required();
    storeOptions(cmd);
}

void addFileCommands(CLI::App& app, Context& ctx) {
    auto p = std::make_shared<FileArgs>();
    CLI::App* p12 = noun(app, "p12", "export keys to and import them from PKCS#12 files");
    addStoreOptions(p12, ctx);
    addPasswordOptions(p12, p->filePassword, "p12-password", "the PKCS#12 file");
    CLI::App* cmd = add(*p12, ctx, "export",
                        "write entries (all without labels) to a PKCS#12 file; request keys cannot travel",
                        p12Export, p, "p12-password", "the PKCS#12 file", true);
    cmd->add_option("file", p->file, "the PKCS#12 file (- for standard output)")->required();
    cmd->add_option("labels", p->labels, "the entries to export");
    cmd->add_flag("--force", ctx.force, "replace an existing file");
    add(*p12, ctx, "import", "add every key and certificate of a PKCS#12 file", p12Import, p,
        "p12-password", "the PKCS#12 file", true)
        ->add_option("file", p->file, "the PKCS#12 file (- for standard input)")
        ->required();

    auto k = std::make_shared<FileArgs>();
    CLI::App* keyring = noun(app, "keyring", "convert between a key database and a keyring file");
    addStoreOptions(keyring, ctx);
    addPasswordOptions(keyring, k->filePassword, "keyring-password", "the keyring file");
    cmd = add(*keyring, ctx, "export", "write the whole key database as a keyring file", keyringExport,
              k, "keyring-password", "the keyring file", true);
    cmd->add_option("file", k->file, "the keyring file (- for standard output)")->required();
    cmd->add_flag("--force", ctx.force, "replace an existing file");
    add(*keyring, ctx, "import", "make a new key database (--db) from a keyring file", keyringImport,
        k, "keyring-password", "the keyring file", true)
        ->add_option("file", k->file, "the keyring file (- for standard input)")
        ->required();

    auto e = std::make_shared<FileArgs>();
    CLI::App* epki = noun(app, "epki", "encrypt and decrypt PKCS#8 private key files");
    addPasswordOptions(epki, e->filePassword, "key-password", "the encrypted key file");
    for (CLI::App* v :
         {add(*epki, ctx, "encrypt", "encrypt a private key (PKCS#8 PBES2)", encrypt, e, "key-password",
              "the encrypted key file", false),
          add(*epki, ctx, "decrypt", "decrypt an encrypted private key", decrypt, e, "key-password",
              "the encrypted key file", false)}) {
        v->add_option("-i,--in", e->in, "the key file, PEM or DER (- for standard input)")->required();
        addOutput(v, e->out, ctx, "the file to write (mode 0600)")->required();
        v->add_flag("--der", e->der, "write DER instead of PEM");
    }

    auto m = std::make_shared<FileArgs>();
    CLI::App* pemNoun = noun(app, "pem", "PEM files for TLS servers: certificate, chain and key");
    addStoreOptions(pemNoun, ctx);
    cmd = add(*pemNoun, ctx, "export",
              "write a personal key's certificate, chain and private key as the files servers "
              "take (nginx: --fullchain and --key; Apache: --fullchain and --key; HAProxy: "
              "--bundle)",
              pemExport, m, "key-password", "the private key file", true);
    m->labels.resize(1);
    addLabel(cmd, "label", m->labels.front(), "the personal key's label")->required();
    cmd->add_option("--cert", m->cert, "the certificate alone");
    cmd->add_option("--chain", m->chain, "the issuers' certificates (without the root)");
    cmd->add_option("--fullchain", m->fullchain, "the certificate followed by its issuers'");
    cmd->add_option("--key", m->key, "the private key, PKCS#8 (mode 0600)");
    cmd->add_option("--bundle", m->bundle, "certificate, issuers and private key in one file (mode 0600)");
    cmd->add_flag("--with-root", m->withRoot, "put the self-signed root in the chain too");
    cmd->add_flag("--no-encrypt", m->noEncrypt, "write the private key without a password");
    cmd->add_flag("--force", ctx.force, "replace existing files");
}

}  // namespace tolvik
