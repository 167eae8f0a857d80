// files.cpp - `tolvik p12 | keyring | epki ...`: keys and certificates moving in and out of the
// key database as PKCS#12, keyring and PKCS#8 files.
#include <openssl/crypto.h>

#include "tolvik.h"

namespace tolvik {
namespace {

struct FileArgs {
    std::string file, in, out;
    std::vector<std::string> labels;
    bool der = false;
    PasswordSource filePassword;
};

// labelList - the library's list of `labels`, in order; null for none.
LabelList labelList(const std::vector<std::string>& labels) {
    LabelList list;
    for (auto it = labels.rbegin(); it != labels.rend(); ++it) {
        auto* node = static_cast<ZAVKM_LabelList*>(ZAVKM_Malloc(sizeof(ZAVKM_LabelList)));
        if (node == nullptr) throw Failure{"list the labels", ZAVKM_ERR_MEMORY_ALLOCATE, ""};
        *node = {ZAVKM_Strdup(it->c_str()), list.release()};
        list.reset(node);
    }
    return list;
}

Json p12Export(Context& ctx, const FileArgs& a) {
    Store store(ctx);
    Secret pw = password(a.filePassword, "Password for " + a.file + ": ", true);
    LabelList labels = labelList(a.labels);
    check(ZAVKM_ExportKeys(store.handle, 1, a.file.c_str(), pw.text.c_str(), labels.get()),
          "export to " + a.file);
    return {{"exported", a.file}, {"labels", a.labels.empty() ? Json("all") : Json(a.labels)}};
}

Json p12Import(Context& ctx, const FileArgs& a) {
    Store store(ctx);
    Secret pw = password(a.filePassword, "Password of " + a.file + ": ", false);
    check(ZAVKM_ImportKeysFromPFXFile(store.handle, a.file.c_str(), pw.text.c_str()),
          "import " + a.file);
    return {{"imported", a.file}};
}

Json keyringExport(Context& ctx, const FileArgs& a) {
    Secret db = keyDbPassword(ctx);
    Secret pw = password(a.filePassword, "Password for " + a.file + ": ", true);
    check(ZAVKM_Kdb2Kyr(ctx.db.c_str(), db.text.c_str(), a.file.c_str(), pw.text.c_str()),
          "convert " + ctx.db + " to the keyring " + a.file);
    return {{"keyring", a.file}, {"from", ctx.db}};
}

Json keyringImport(Context& ctx, const FileArgs& a) {
    Secret pw = password(a.filePassword, "Password of " + a.file + ": ", false);
    Secret db = password(ctx.password, "New password for " + ctx.db + ": ", true);
    check(ZAVKM_Kyr2Kdb(a.file.c_str(), pw.text.c_str(), ctx.db.c_str(), db.text.c_str()),
          "convert the keyring " + a.file + " to " + ctx.db);
    return {{"created", ctx.db}, {"from", a.file}};
}

// writeKey - a key file, PEM unless DER is asked for; the PEM text is wiped too.
void writeKey(const FileArgs& a, const char* type, const uint8_t* der, uint32_t length) {
    if (a.der) return writeFile(a.out, der, length);
    Secret text;
    text.text = pem(type, der, length);
    writeFile(a.out, reinterpret_cast<const uint8_t*>(text.text.data()), text.text.size());
}

Json encrypt(Context&, const FileArgs& a) {
    Bytes key = readFile(a.in);
    Secret pw = password(a.filePassword, "Password for " + a.out + ": ", true);
    EpkiItem epki;
    ZAVKM_ReturnCode rc = ZAVKM_GetEPKIItemFromPrivateKey(
        key.data(), static_cast<uint32_t>(key.size()), pw.text.c_str(), out(epki));
    OPENSSL_cleanse(key.data(), key.size());
    check(rc, "encrypt the key in " + a.in);
    writeKey(a, "ENCRYPTED PRIVATE KEY", epki->der, epki->derLength);
    return {{"encrypted", a.out}};
}

Json decrypt(Context&, const FileArgs& a) {
    Bytes data = readFile(a.in);
    if (data.size() > 10 && std::string(data.begin(), data.begin() + 10) == "-----BEGIN") {
        uint8_t* der = nullptr;
        uint32_t length = 0;
        check(ZAVKM_Base64DecodeFileToBuf(a.in.c_str(), &der, &length), "read " + a.in);
        data.assign(der, der + length);
        ZAVKM_Free(der);
    }
    ZAVKM_EPKIItem epki{data.data(), static_cast<uint32_t>(data.size())};
    Secret pw = password(a.filePassword, "Password of " + a.in + ": ", false);
    PrivKeyInfo key;
    check(ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&epki, pw.text.c_str(), out(key)),
          "decrypt " + a.in);
    writeKey(a, "PRIVATE KEY", key->der, key->derLength);
    return {{"decrypted", a.out}};
}

using Action = Json (*)(Context&, const FileArgs&);

CLI::App* noun(CLI::App& app, const char* name, const char* about, std::shared_ptr<FileArgs> a,
               const char* passwordName, const char* passwordOf) {
    CLI::App* cmd = app.add_subcommand(name, about);
    cmd->require_subcommand(1);
    addPasswordOptions(cmd, a->filePassword, passwordName, passwordOf);
    return cmd;
}

CLI::App* add(CLI::App& noun, Context& ctx, const char* name, const char* about, Action action,
              std::shared_ptr<FileArgs> a) {
    return verb(noun, name, about, ctx, [&ctx, a, action] { return action(ctx, *a); });
}

}  // namespace

void addFileCommands(CLI::App& app, Context& ctx) {
    auto p = std::make_shared<FileArgs>();
    CLI::App* p12 = noun(app, "p12", "export keys to and import them from PKCS#12 files", p,
                         "p12-password", "the PKCS#12 file");
    addStoreOptions(p12, ctx);
    CLI::App* cmd = add(*p12, ctx, "export", "write entries (all without labels) to a PKCS#12 file",
                        p12Export, p);
    cmd->add_option("file", p->file, "the PKCS#12 file")->required();
    cmd->add_option("labels", p->labels, "the entries to export");
    add(*p12, ctx, "import", "add every key and certificate of a PKCS#12 file", p12Import, p)
        ->add_option("file", p->file, "the PKCS#12 file")
        ->required();

    auto k = std::make_shared<FileArgs>();
    CLI::App* keyring = noun(app, "keyring", "convert between a key database and a keyring file", k,
                             "keyring-password", "the keyring file");
    addStoreOptions(keyring, ctx);
    add(*keyring, ctx, "export", "write the whole key database as a keyring file", keyringExport, k)
        ->add_option("file", k->file, "the keyring file")
        ->required();
    add(*keyring, ctx, "import", "make a new key database (--db) from a keyring file",
        keyringImport, k)
        ->add_option("file", k->file, "the keyring file")
        ->required();

    auto e = std::make_shared<FileArgs>();
    CLI::App* epki = noun(app, "epki", "encrypt and decrypt PKCS#8 private key files", e,
                          "key-password", "the encrypted key file");
    for (CLI::App* v :
         {add(*epki, ctx, "encrypt", "encrypt a private key (PKCS#8 PBES2)", encrypt, e),
          add(*epki, ctx, "decrypt", "decrypt an encrypted private key", decrypt, e)}) {
        v->add_option("-i,--in", e->in, "the key file (PEM or DER)")->required();
        v->add_option("-o,--out", e->out, "the file to write (mode 0600)")->required();
        v->add_flag("--der", e->der, "write DER instead of PEM");
    }
}

}  // namespace tolvik
