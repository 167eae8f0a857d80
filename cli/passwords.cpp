// passwords.cpp - where passwords come from (a file, an environment variable, the stash file, a
// prompt without echo on the terminal, or the command line when the user insists), and opening
// a store with one.
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "tolvik.h"

namespace tolvik {

Secret::~Secret() { zavkm::wipe(text.data(), text.capacity()); }

void addPasswordOptions(CLI::App* cmd, PasswordSource& source, const std::string& name,
                        const std::string& what) {
    source.name = name;
    auto* group = cmd->add_option_group("password of " + what);
    group->add_option("--" + name + "-file", source.file, "read it from the first line of a file");
    group->add_option("--" + name + "-env", source.env, "read it from an environment variable");
    group->add_option("--" + name, source.text, "give it here (visible to other users; warns)");
    group->require_option(0, 1);
}

namespace {

bool given(const PasswordSource& s) { return !s.file.empty() || !s.env.empty() || !s.text.empty(); }

Secret fromSource(const PasswordSource& s) {
    Secret secret;
    if (!s.file.empty()) {
        Bytes data = readInput(s.file);  // a FIFO without a writer does not block
        const auto end = std::find(data.begin(), data.end(), '\n');
        secret.text.assign(data.begin(), end);
        zavkm::wipe(data.data(), data.size());
        if (!secret.text.empty() && secret.text.back() == '\r') secret.text.pop_back();
    } else if (!s.env.empty()) {
        const char* value = std::getenv(s.env.c_str());
        if (value == nullptr) throw UsageError{"--" + s.name + "-env: " + s.env + " is not set"};
        secret.text = value;
    } else {
        std::cerr << "tolvik: warning: a password in the arguments can be read by other users; "
                     "prefer --"
                  << s.name << "-file or --" << s.name << "-env\n";
        secret.text = s.text;
    }
    return secret;
}

// The terminal's settings while a prompt has echo off, for the signal handler to put back.
termios savedTerminal{};
volatile sig_atomic_t echoOff = 0;

void onSignal(int signal) {
    if (echoOff) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &savedTerminal);
        const char newline = '\n';
        (void)!write(STDERR_FILENO, &newline, 1);
    }
    removeScratch();
    _exit(128 + signal);
}

// ask - one answer read from the terminal with echo off (and echo back on however it ends).
Secret ask(const std::string& question) {
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    savedTerminal = old;
    echoOff = 1;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::cerr << question << std::flush;
    Secret answer;
    answer.text.reserve(1024);
    char c = 0;
    while (read(STDIN_FILENO, &c, 1) == 1 && c != '\n') answer.text.push_back(c);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &old);
    echoOff = 0;
    std::cerr << '\n';
    return answer;
}

}  // namespace

Secret password(const PasswordSource& source, const std::string& question, bool confirm) {
    if (given(source)) return fromSource(source);
    if (!isatty(STDIN_FILENO)) {
        throw UsageError{"no password: give --" + source.name + "-file or --" + source.name +
                         "-env, or run on a terminal"};
    }
    Secret first = ask(question);
    if (confirm && ask("Again: ").text != first.text) {
        throw UsageError{"the two passwords differ"};
    }
    return first;
}

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(signal, &action, nullptr);
}

bool confirmed(const std::string& question) {
    if (!isatty(STDIN_FILENO)) return false;
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    char c = 0;
    while (read(STDIN_FILENO, &c, 1) == 1 && c != '\n') answer.push_back(c);
    return answer == "y" || answer == "Y" || answer == "yes";
}

bool stashed(const std::string& db) {
    KeyStoreDescriptor store{};
    store.storeType = KeyDbFile;
    store.keyDbFileName = db.c_str();
    uint8_t required = 1;
    check(ZAVKM_IsPasswordRequired(&store, &required), "open key database " + db);
    return required == 0;
}

Secret keyDbPassword(const Context& ctx) {
    if (ctx.db.empty()) throw UsageError{"name the key database with --db FILE"};
    if (given(ctx.password) || !stashed(ctx.db)) {
        return password(ctx.password, "Password for " + ctx.db + ": ", false);
    }
    return Secret{};  // empty: the library reads the stash file
}

Store::Store(Context& ctx) {
    if (ctx.storeType == KeyDbFile) {
        name = ctx.db;
        Secret pw = keyDbPassword(ctx);
        const ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDb(ctx.db.c_str(), pw.text.c_str(), &handle);
        if (rc == ZAVKM_ERR_DATABASE_INVALID_PASSWORD && pw.text.empty())
            throw Failure{"open key database " + name, rc,
                          "the stash file holds another password; tolvik keydb stash"};
        check(rc, "open key database " + name);
        return;
    }
    name = ctx.storeType == CryptoToken ? ctx.token : ctx.provider;
    if (ctx.storeType == CryptoToken && (ctx.module.empty() || ctx.token.empty()))
        throw UsageError{"name the token with -m MODULE and -t LABEL"};
    KeyStoreDescriptor store{};
    store.storeType = ctx.storeType;
    store.cryptoModuleName = ctx.module.c_str();
    store.tokenLabel = name.c_str();
    bool asked = given(ctx.pin) || isatty(STDIN_FILENO);  // else the store needs no PIN
    Secret pin = asked ? password(ctx.pin, "PIN for " + name + ": ", false) : Secret{};
    store.password = asked ? pin.text.c_str() : nullptr;
    const ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDbX(&store, &handle);
    if (rc == ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED && !asked)
        throw UsageError{"the store " + name + " needs a PIN: give --pin-file or --pin-env, or "
                         "run on a terminal"};
    if (rc == ZAVKM_ERR_DATABASE_INVALID_PASSWORD)
        throw Failure{"open store " + name, rc, "wrong PIN"};
    check(rc, "open store " + name);
}

Store::~Store() {
    if (handle != 0) ZAVKM_CloseKeyDb(handle);
}

}  // namespace tolvik
