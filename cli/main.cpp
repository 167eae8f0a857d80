// main.cpp - tolvik: the command line of the key-management library. Parses `tolvik <noun>
// <verb>`, starts the library, runs the one action chosen, prints its result and stops the
// library. Exit codes: 0 success, 1 a step failed (one line on standard error), 2 usage.
#include <cstdlib>
#include <iostream>

#include "tolvik.h"

namespace tolvik {

void check(ZAVKM_ReturnCode rc, const std::string& what) {
    if (rc != ZAVKM_OK) throw Failure{what, rc, ""};
}

CLI::App* verb(CLI::App& parent, const std::string& name, const std::string& about, Context& ctx,
               std::function<Json()> run) {
    CLI::App* cmd = parent.add_subcommand(name, about);
    cmd->callback([&ctx, run = std::move(run)] { ctx.action = run; });
    cmd->add_flag("--json", ctx.json, "print one JSON document");
    return cmd;
}

void addStoreOptions(CLI::App* cmd, Context& ctx) {
    cmd->add_option("-d,--db", ctx.db, "the key database file (default: $TOLVIK_DB)");
    addPasswordOptions(cmd, ctx.password, "password", "the key database");
}

namespace {

// Library - the library started for the run and cleaned up after it.
struct Library {
    Library() { check(ZAVKM_Init(), "start the key-management library"); }
    ~Library() { ZAVKM_CleanAll(); }
};

int run(Context& ctx) {
    try {
        Library library;
        Json result = ctx.action();
        if (!result.is_null()) print(result, ctx.json);
        return 0;
    } catch (const Failure& failure) {
        std::cerr << "tolvik: " << describe(failure) << '\n';
        return 1;
    } catch (const UsageError& usage) {
        std::cerr << "tolvik: " << usage.message << '\n';
        return 2;
    }
}

}  // namespace
}  // namespace tolvik

int main(int argc, char** argv) {
    using namespace tolvik;
    Context ctx;
    CLI::App app{"tolvik - manage key databases, certificates, PKCS#12 files and tokens", "tolvik"};
    app.fallthrough();
    app.set_help_all_flag("--help-all", "print the help of every command and exit");
    app.require_subcommand(1);
    app.add_flag("--json", ctx.json, "print one JSON document");
    addKeyDbCommands(app, ctx);
    addEntryCommands(app, ctx);
    addCertCommands(app, ctx);
    addFileCommands(app, ctx);
    addTokenCommands(app, ctx);
    app.footer(
        "Exit codes: 0 success, 1 a step failed (code and name on standard error), 2 usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;  // help is no error
    }
    const char* db = std::getenv("TOLVIK_DB");
    if (ctx.db.empty() && db != nullptr) ctx.db = db;
    return run(ctx);
}
