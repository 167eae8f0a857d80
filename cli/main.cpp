// main.cpp - tolvik: the command line of the key-management library. Parses `tolvik <noun>
// <verb>`, starts the library, runs the one action chosen, prints its result and stops the
// library. Exit codes: 0 success, 1 a step failed (one line on standard error), 2 usage, 3 and
// 4 what `list --expiring` and `--expired` found, 128 + n a signal.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "tolvik.h"

namespace tolvik {

void check(ZAVKM_ReturnCode rc, const std::string& what) {
    if (rc != ZAVKM_OK) throw Failure{what, rc, ""};
}

namespace {

// path - the command's words below the program: "cert selfsign".
std::string path(const CLI::App* cmd) {
    std::string words;
    for (; cmd && cmd->get_parent(); cmd = cmd->get_parent())
        words = cmd->get_name() + (words.empty() ? "" : " " + words);
    return words;
}

}  // namespace

CLI::App* verb(CLI::App& parent, const std::string& name, const std::string& about, Context& ctx,
               std::function<Json()> run) {
    CLI::App* cmd = parent.add_subcommand(name, about);
    cmd->callback([&ctx, cmd, run = std::move(run)] {
        ctx.command = path(cmd);
        ctx.action = run;
    });
    cmd->add_flag("--json", ctx.json, "print one JSON document");
    return cmd;
}

void addStoreOptions(CLI::App* cmd, Context& ctx) {
    cmd->add_option("-d,--db", ctx.db, "the key database file (default: $TOLVIK_DB)");
    addPasswordOptions(cmd, ctx.password, "password", "the key database");
}

CLI::Option* addOutput(CLI::App* cmd, std::string& path, Context& ctx, const std::string& what) {
    cmd->add_flag("--force", ctx.force, "replace an existing output file");
    return cmd->add_option("-o,--out", path, what + " (- for standard output)");
}

CLI::Option* addLabel(CLI::App* cmd, const std::string& name, std::string& label,
                      const std::string& what) {
    return cmd->add_option(name, label, what)->check(
        [](const std::string& text) -> std::string {
            const bool control = std::any_of(text.begin(), text.end(), [](char c) {
                const auto b = static_cast<unsigned char>(c);
                return b < 0x20 || b == 0x7f;
            });
            if (text.empty() || text.size() > 255 || control)
                return "a label is 1 to 255 bytes without control characters";
            return "";
        },
        "LABEL");
}

namespace {

// Library - the library started for the run and cleaned up after it.
struct Library {
    Library() { check(ZAVKM_Init(), "start the key-management library"); }
    ~Library() { ZAVKM_CleanAll(); }
};

Json errorJson(const Failure& failure) {
    return {{"code", failure.code}, {"name", codeName(failure.code)}, {"message", describe(failure)}};
}

// document - the run's JSON document; `failure` makes it a failed one (its result kept when
// there is one).
Json document(const Context& ctx, const Json& result, const Failure* failure) {
    Json doc{{"tolvik", kJsonVersion}, {"command", ctx.command}, {"ok", failure == nullptr}};
    if (!result.is_null() || failure == nullptr) doc["result"] = result;
    doc["warnings"] = ctx.warnings;
    if (failure != nullptr) doc["error"] = errorJson(*failure);
    return doc;
}

}  // namespace

Json document(const Context& ctx, const Json& result) {
    return document(ctx, result, ctx.partial.get());
}

namespace {

void warn(const Context& ctx) {
    for (const std::string& w : ctx.warnings) std::cerr << "tolvik: warning: " << terminalText(w) << '\n';
}

int fail(const Context& ctx, const Failure& failure, const Json& result) {
    std::cerr << "tolvik: " << describe(failure) << '\n';
    if (ctx.json) (ctx.dataOnStdout ? std::cerr : std::cout) << jsonText(document(ctx, result, &failure)) << std::flush;
    return 1;
}

int run(Context& ctx) {
    Json result;
    try {
        Library library;
        result = ctx.action();
        const std::string report = ctx.printed        ? ""
                                   : ctx.json         ? jsonText(document(ctx, result))
                                   : result.is_null() ? ""
                                                      : render(result);
        if (ctx.dataOnStdout) std::cerr << report;
        else writeOut(report);
        warn(ctx);
        if (ctx.partial) std::cerr << "tolvik: " << describe(*ctx.partial) << '\n';
        return ctx.partial ? 1 : ctx.status;
    } catch (const Failure& failure) {
        warn(ctx);
        return fail(ctx, failure, failure.result ? *failure.result : result);
    } catch (const UsageError& usage) {
        std::cerr << "tolvik: " << terminalText(usage.message) << '\n';
        return 2;
    } catch (const std::exception& e) {  // never an abort, whatever a library of ours throws
        return fail(ctx, Failure{ctx.command, ZAVKM_ERR_UNKNOWN, e.what()}, nullptr);
    }
}

// distance - the edit distance between two words (an adjacent swap counts one).
size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

// suggestion - "; did you mean X?" for the closest of `names` to `word`, when one is close.
std::string suggestion(const std::string& word, const std::vector<std::string>& names) {
    std::string best;
    size_t bestDistance = std::max<size_t>(2, word.size() / 3) + 1;
    for (const std::string& name : names) {
        size_t d = name.rfind(word, 0) == 0 && word.size() >= 2 ? 1 : distance(word, name);
        if (d < bestDistance) best = name, bestDistance = d;
    }
    return best.empty() ? "" : "; did you mean \"" + best + "\"?";
}

// deepest - the last command the parser entered.
CLI::App* deepest(CLI::App& app) {
    CLI::App* at = &app;
    for (bool deeper = true; deeper;) {
        deeper = false;
        for (CLI::App* sub : at->get_subcommands())
            if (!sub->get_name().empty()) at = sub, deeper = true;
    }
    return at;
}

// usageLine - the one line a parse error prints: an unknown command or option named with the
// closest one, anything else as the parser says it, with where to read more.
std::string usageLine(CLI::App& app, const CLI::ParseError& e) {
    CLI::App* at = deepest(app);
    const std::string where = path(at);
    const std::string help = " (see tolvik " + (where.empty() ? "" : where + " ") + "--help)";
    std::vector<std::string> left;
    for (CLI::App* a = at; a; a = a->get_parent())
        for (const std::string& word : a->remaining()) left.push_back(word);
    std::vector<std::string> commands, options;
    for (const CLI::App* sub : commandsOf(at)) commands.push_back(sub->get_name());
    for (const CLI::App* a = at; a; a = a->get_parent()) {
        for (const CLI::Option* o : optionsOf(a))
            for (const std::string& name : o->get_lnames()) options.push_back("--" + name);
    }
    for (const std::string& word : left) {
        if (word.rfind("--", 0) == 0) {
            const std::string name = word.substr(0, word.find('='));
            return "unknown option \"" + name + "\"" + suggestion(name, options) + help;
        }
        if (word[0] != '-' && !commands.empty())
            return "unknown command \"" + word + "\"" + suggestion(word, commands) + help;
    }
    std::string message = e.what();
    message = message.substr(0, message.find('\n'));
    if (!where.empty()) message = where + ": " + message;
    return message + help;
}

// Group - top-level commands registered together.
struct Group {
    std::string_view names;  // separated by spaces
    void (*add)(CLI::App&, Context&);
};
constexpr Group kGroups[] = {{"keydb", addKeyDbCommands},
                             {"list", addListCommand},
                             {"show delete default trust rename", addEntryCommands},
                             {"cert", addCertCommands},
                             {"p12 keyring epki pem", addFileCommands},
                             {"token store", addTokenCommands}};

// names - whether word is one of the space-separated names of list.
bool names(std::string_view list, std::string_view word) {
    for (size_t at = 0; at <= list.size();) {
        const size_t end = std::min(list.find(' ', at), list.size());
        if (list.substr(at, end - at) == word) return true;
        at = end + 1;
    }
    return false;
}

// addCommands - the group of the command the words name (the whole tree costs every run
// milliseconds), or every command for help, the manual and words that name none.
void addCommands(CLI::App& app, Context& ctx, int argc, char** argv) {
    std::string_view word;
    for (int i = 1; i < argc && word.empty(); ++i)
        if (argv[i][0] != '-') word = argv[i];
    for (const Group& g : kGroups)
        if (!word.empty() && names(g.names, word)) return g.add(app, ctx);
    for (const Group& g : kGroups) g.add(app, ctx);
    addManualCommand(app, ctx);
}

}  // namespace
}  // namespace tolvik

int main(int argc, char** argv) {
    using namespace tolvik;
    Context ctx;
    CLI::App app{"tolvik - manage key databases, certificates, PKCS#12 files and tokens", "tolvik"};
    app.fallthrough();
    app.set_help_all_flag("--help-all", "print the help of every command and exit");
    app.set_version_flag("--version", "tolvik " TOLVIK_VERSION, "print the version and exit");
    app.require_subcommand(1);
    app.add_flag("--json", ctx.json, "print one JSON document");
    addCommands(app, ctx, argc, argv);
    app.footer(
        "Exit codes: 0 success, 1 a step failed (code and name on standard error), 2 usage, 3 "
        "and 4 list --expiring/--expired found certificates expiring or expired.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // help and version
        std::cerr << "tolvik: " << terminalText(usageLine(app, e)) << '\n';
        return 2;
    }
    const char* db = std::getenv("TOLVIK_DB");
    if (ctx.db.empty() && db != nullptr) ctx.db = db;
    installSignalHandlers();
    return run(ctx);
}
