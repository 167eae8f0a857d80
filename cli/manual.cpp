// manual.cpp - the manual page and the bash, zsh and fish completions, printed from the command
// definitions themselves (`tolvik generate man|bash|zsh|fish`, run by the build), so that they
// name every command and option there is and nothing else.
#include <algorithm>
#include <sstream>

#include "tolvik.h"

namespace tolvik {

std::vector<const CLI::App*> commandsOf(const CLI::App* cmd) {
    return cmd->get_subcommands([](const CLI::App* s) { return !s->get_name().empty() && !s->get_group().empty(); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App* cmd) {
    auto shown = [](const CLI::Option* o) {
        return !o->get_group().empty() && o->get_lnames() != std::vector<std::string>{"help"} &&
               o->get_lnames() != std::vector<std::string>{"help-all"};
    };
    std::vector<const CLI::Option*> all = cmd->get_options(shown);
    for (const CLI::App* group : cmd->get_subcommands([](const CLI::App* s) { return s->get_name().empty(); })) {
        std::vector<const CLI::Option*> more = group->get_options(shown);
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

namespace {

// Command - one command of the tree with its words ("tolvik cert selfsign").
struct Command {
    std::string path;
    const CLI::App* app;
};

void walk(const CLI::App* app, const std::string& path, std::vector<Command>& out) {
    out.push_back({path, app});
    for (const CLI::App* sub : commandsOf(app)) walk(sub, path + " " + sub->get_name(), out);
}

std::vector<Command> tree(const CLI::App& root) {
    std::vector<Command> all;
    walk(&root, "tolvik", all);
    return all;
}

bool takesValue(const CLI::Option* o) { return o->get_type_size_max() > 0; }

// choices - the values a member check allows, read from the type name it leaves ("TEXT:{a,b}").
std::vector<std::string> choices(const CLI::Option* o) {
    const std::string type = o->get_type_name();
    const size_t open = type.find('{'), close = type.rfind('}');
    std::vector<std::string> values;
    if (open == std::string::npos || close == std::string::npos || close < open) return values;
    std::stringstream list(type.substr(open + 1, close - open - 1));
    for (std::string v; std::getline(list, v, ',');)
        if (v.find("->") == std::string::npos) values.push_back(v);
    return values;
}

std::vector<std::string> optionNames(const CLI::Option* o) {
    std::vector<std::string> names;
    for (const std::string& s : o->get_snames()) names.push_back("-" + s);
    for (const std::string& l : o->get_lnames()) names.push_back("--" + l);
    return names;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& w : words) text += (text.empty() ? "" : " ") + w;
    return text;
}

// roff - text a manual page shows as written.
std::string roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
    return out;
}

// The parts of the manual that are not read from the command definitions.
constexpr const char* kDescription =
    "tolvik works on key databases (SQLite files of keys and certificates, sealed under a "
    "password), PKCS#11 tokens and the platform's certificate providers through the "
    "key-management library's C ABI: no JVM, one process per command. A command names its key "
    "database with --db FILE or the environment variable TOLVIK_DB. Options may follow the noun "
    "or the verb.";

constexpr const char* kSections[][2] = {
    {"PASSWORDS",
     "The key database's password comes from --password-file FILE (its first line), "
     "--password-env VAR or --password TEXT (visible to other users; tolvik warns); else from the "
     "stash file beside the database (keys.kdb has keys.sth; tolvik keydb stash writes it); else "
     "from a prompt without echo on the terminal. Without a terminal the command stops with exit "
     "status 2. Other passwords come the same way: --new-password-*, --p12-password-*, "
     "--keyring-password-*, --key-password-*, --pin-*, --new-pin-*. Ctrl-C at a prompt puts the "
     "terminal back as it was and ends with exit status 130."},
    {"OUTPUT FILES",
     "Every file tolvik writes goes through the library's writer: a regular file is written "
     "whole beside its name and renamed over it (keeping its mode); a FIFO or a character device "
     "is written straight through; a symbolic link is followed only when it belongs to the user "
     "or to root; the open key database and its companion files are refused. An existing file "
     "is replaced only with --force. - is standard output (standard input where a verb reads). "
     "Private keys and PKCS#12 files are created mode 0600. Inputs are read whole, at most 16 "
     "MiB; a FIFO without a writer reads as empty instead of blocking."},
    {"EXPIRY",
     "tolvik list shows the days left for every certificate; on a terminal, expired rows are "
     "marked expired (red) and rows expiring within 30 days (or the --expiring window) soon "
     "(yellow); NO_COLOR turns the colours off. list --expiring 30d (units h, d, w) shows only "
     "the certificates that expire within the window, expired ones included, and list --expired "
     "only those that have expired. Their exit status tells a cron job what was found: 0 none, 3 "
     "some expiring, 4 one or more expired. list --format prometheus writes the node_exporter "
     "textfile format: one gauge tolvik_certificate_not_after_seconds per certificate (labels "
     "store, label, subject, issuer, serial, key_type, key_bits) and "
     "tolvik_keydb_damaged_rows; with -o FILE --force it replaces the file whole, as the "
     "textfile collector needs."},
    {"JSON",
     "With --json every command prints one document: {\"tolvik\": 1, \"command\": \"cert "
     "selfsign\", \"ok\": true, \"result\": ..., \"warnings\": [...]} and, when it failed, "
     "\"error\": {\"code\", \"name\", \"message\"}. Commands that change a store or write files "
     "have the result {\"changes\": [{\"action\", \"label\", \"kind\", ...}], \"files\": "
     "[{\"path\", \"content\"}]}. The shape is described by the JSON Schema tolvik.schema.json "
     "installed with the documentation; \"tolvik\" is its version."},
    {"EXIT STATUS",
     "0 success. 1 a step failed: standard error holds one line with what failed, the library's "
     "return code and its name, and a hint; also a listing that left out damaged rows. 2 usage: "
     "an unknown command or option (with the closest one named), a value out of range, no "
     "password source without a terminal. 3 list --expiring found certificates expiring. 4 list "
     "--expiring or --expired found an expired certificate. 128+n a signal (130 Ctrl-C)."},
    {"ENVIRONMENT",
     "TOLVIK_DB the key database when --db is not given. NO_COLOR set and not empty: no colours. "
     "TMPDIR where tolvik makes its private scratch directory."},
};

constexpr const char* kExamples =
    "export TOLVIK_DB=keys.kdb KDB_PW=... P12_PW=...\n"
    "tolvik keydb create --password-env KDB_PW && tolvik keydb stash --password-env KDB_PW\n"
    "tolvik cert selfsign ca -s 'CN=Example CA,O=Example\\, Inc.,C=NO' --key ed25519 -o ca.pem\n"
    "tolvik cert request web -s CN=www.example.test --san DNS:www.example.test -o web.csr\n"
    "tolvik cert sign --issuer ca -i web.csr -o web.pem\n"
    "tolvik cert receive -i web.pem --default\n"
    "tolvik pem export web --fullchain web.fullchain.pem --key web.key --no-encrypt\n"
    "tolvik list --expiring 30d || echo 'renew something'\n"
    "tolvik list --format prometheus -o /var/lib/prometheus/node-exporter/tolvik.prom --force";

std::string manual(const CLI::App& root) {
    std::string t = ".TH TOLVIK 1 \"\" \"tolvik " TOLVIK_VERSION "\" \"User Commands\"\n";
    t += ".SH NAME\ntolvik \\- " + roff("manage key databases, certificates, PKCS#12 files and tokens") + "\n";
    t += ".SH SYNOPSIS\n.B tolvik\n.I noun verb\n[\\fIoptions\\fR] [\\fIarguments\\fR]\n";
    t += ".SH DESCRIPTION\n" + roff(kDescription) + "\n.SH COMMANDS\n";
    for (const Command& c : tree(root)) {
        if (c.app == &root || !commandsOf(c.app).empty()) continue;
        std::string synopsis = c.path;
        for (const CLI::Option* o : optionsOf(c.app))
            if (o->get_positional()) synopsis += " " + o->get_name(true) + (o->get_required() ? "" : "?");
        t += ".SS \"" + roff(synopsis) + "\"\n" + roff(c.app->get_description()) + "\n";
        std::vector<const CLI::Option*> named;
        for (const CLI::Option* o : optionsOf(c.app)) if (!o->get_positional()) named.push_back(o);
        for (const CLI::App* a = c.app->get_parent(); a && a != &root; a = a->get_parent())
            for (const CLI::Option* o : optionsOf(a))
                if (std::none_of(named.begin(), named.end(), [&](const CLI::Option* n) { return n->get_lnames() == o->get_lnames(); }))
                    named.push_back(o);
        for (const CLI::Option* o : named) {
            std::string names;
            for (const std::string& n : optionNames(o)) names += (names.empty() ? "" : ", ") + std::string("\\fB") + roff(n) + "\\fR";
            if (takesValue(o)) names += " \\fI" + roff(o->get_type_name().substr(0, o->get_type_name().find(':'))) + "\\fR";
            t += ".TP\n" + names + "\n" + roff(o->get_description()) + "\n";
        }
    }
    for (const auto& [title, text] : kSections) t += ".SH " + std::string(title) + "\n" + roff(text) + "\n";
    t += ".SH EXAMPLES\n.nf\n" + roff(kExamples) + "\n.fi\n";
    t += ".SH SEE ALSO\n.BR openssl (1),\n.BR keytool (1)\n";
    // A line of its own that starts with a dot or a quote would be read as a request.
    std::string safe;
    for (size_t start = 0; start < t.size();) {
        size_t end = t.find('\n', start);
        std::string line = t.substr(start, end - start);
        if (!line.empty() && line[0] == '\'') line = "\\&" + line;
        safe += line + '\n';
        start = end + 1;
    }
    return safe;
}

// Tables - what the completions look up: for each command path, its subcommands, its options,
// the options that take a value, and the values an option allows.
struct Tables {
    std::vector<std::pair<std::string, std::string>> commands, options, takes, values;
};

Tables tables(const CLI::App& root) {
    Tables t;
    for (const Command& c : tree(root)) {
        std::vector<std::string> subs, opts, takes;
        for (const CLI::App* s : commandsOf(c.app)) subs.push_back(s->get_name());
        std::vector<const CLI::Option*> all;
        for (const CLI::App* a = c.app; a; a = a->get_parent()) {
            std::vector<const CLI::Option*> more = optionsOf(a);
            all.insert(all.end(), more.begin(), more.end());
        }
        for (const CLI::Option* o : all) {
            if (o->get_positional()) continue;
            for (const std::string& n : optionNames(o)) {
                if (std::find(opts.begin(), opts.end(), n) != opts.end()) continue;
                opts.push_back(n);
                if (takesValue(o)) takes.push_back(n);
                if (!choices(o).empty()) t.values.push_back({c.path + " " + n, joined(choices(o))});
            }
        }
        opts.push_back("--help");
        if (!subs.empty()) t.commands.push_back({c.path, joined(subs)});
        t.options.push_back({c.path, joined(opts)});
        t.takes.push_back({c.path, joined(takes)});
    }
    return t;
}

std::string assignments(const char* name, const std::vector<std::pair<std::string, std::string>>& rows,
                        bool zsh) {
    std::string text = name + std::string("=(\n");
    for (const auto& [key, value] : rows)
        text += zsh ? "  '" + key + "' '" + value + "'\n" : "  ['" + key + "']='" + value + "'\n";
    return text + ")\n";
}

std::string bash(const CLI::App& root) {
    Tables t = tables(root);
    return "# bash completion for tolvik, generated from its command definitions\n"
           "declare -gA _tolvik_commands _tolvik_options _tolvik_takes _tolvik_values\n" +
           assignments("_tolvik_commands", t.commands, false) +
           assignments("_tolvik_options", t.options, false) + assignments("_tolvik_takes", t.takes, false) +
           assignments("_tolvik_values", t.values, false) +
           "_tolvik() {\n"
           "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} path=tolvik i\n"
           "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "    [[ \" ${_tolvik_commands[$path]-} \" == *\" ${COMP_WORDS[i]} \"* ]] && path+=\" ${COMP_WORDS[i]}\"\n"
           "  done\n"
           "  if [[ -n ${_tolvik_values[$path $prev]-} ]]; then\n"
           "    COMPREPLY=($(compgen -W \"${_tolvik_values[$path $prev]}\" -- \"$cur\"))\n"
           "  elif [[ \" ${_tolvik_takes[$path]-} \" == *\" $prev \"* ]]; then\n"
           "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "  elif [[ $cur == -* ]]; then\n"
           "    COMPREPLY=($(compgen -W \"${_tolvik_options[$path]-}\" -- \"$cur\"))\n"
           "  elif [[ -n ${_tolvik_commands[$path]-} ]]; then\n"
           "    COMPREPLY=($(compgen -W \"${_tolvik_commands[$path]}\" -- \"$cur\"))\n"
           "  else\n"
           "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "  fi\n"
           "}\n"
           "complete -F _tolvik tolvik\n";
}

std::string zsh(const CLI::App& root) {
    Tables t = tables(root);
    return "#compdef tolvik\n# zsh completion for tolvik, generated from its command definitions\n"
           "local -A _tolvik_commands _tolvik_options _tolvik_takes _tolvik_values\n" +
           assignments("_tolvik_commands", t.commands, true) + assignments("_tolvik_options", t.options, true) +
           assignments("_tolvik_takes", t.takes, true) + assignments("_tolvik_values", t.values, true) +
           "local cmd=tolvik i\n"
           "for (( i = 2; i < CURRENT; i++ )); do\n"
           "  (( ${${(s: :)_tolvik_commands[$cmd]}[(Ie)${words[i]}]} )) && cmd+=\" ${words[i]}\"\n"
           "done\n"
           "local prev=${words[CURRENT-1]}\n"
           "if [[ -n ${_tolvik_values[$cmd $prev]} ]]; then\n"
           "  compadd -- ${(s: :)_tolvik_values[$cmd $prev]}\n"
           "elif (( ${${(s: :)_tolvik_takes[$cmd]}[(Ie)$prev]} )); then\n"
           "  _files\n"
           "elif [[ ${words[CURRENT]} == -* ]]; then\n"
           "  compadd -- ${(s: :)_tolvik_options[$cmd]}\n"
           "elif [[ -n ${_tolvik_commands[$cmd]} ]]; then\n"
           "  compadd -- ${(s: :)_tolvik_commands[$cmd]}\n"
           "else\n"
           "  _files\n"
           "fi\n";
}

std::string fishText(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\'' ? std::string("\\'") : c == '\\' ? std::string("\\\\") : std::string(1, c);
    return out;
}

std::string fish(const CLI::App& root) {
    std::string text =
        "# fish completion for tolvik, generated from its command definitions\n"
        "function __tolvik_path\n"
        "    set -l path tolvik\n"
        "    for w in (commandline -opc)[2..-1]\n"
        "        contains -- $w (__tolvik_commands $path); and set path \"$path $w\"\n"
        "    end\n"
        "    echo $path\n"
        "end\n"
        "function __tolvik_commands\n"
        "    switch $argv[1]\n";
    for (const Command& c : tree(root)) {
        if (commandsOf(c.app).empty()) continue;
        text += "        case '" + c.path + "'\n            printf '%s\\n'";
        for (const CLI::App* s : commandsOf(c.app)) text += " " + s->get_name();
        text += "\n";
    }
    text += "    end\nend\ncomplete -c tolvik -f\n";
    for (const Command& c : tree(root)) {
        const std::string when = " -n 'test (__tolvik_path) = \"" + c.path + "\"'";
        for (const CLI::App* s : commandsOf(c.app))
            text += "complete -c tolvik" + when + " -a " + s->get_name() + " -d '" +
                    fishText(s->get_description().substr(0, 80)) + "'\n";
        for (const CLI::App* a = c.app; a; a = a->get_parent()) {
            for (const CLI::Option* o : optionsOf(a)) {
                if (o->get_positional()) continue;
                text += "complete -c tolvik" + when;
                for (const std::string& s : o->get_snames()) text += " -s " + s;
                for (const std::string& l : o->get_lnames()) text += " -l " + l;
                if (takesValue(o)) text += choices(o).empty() ? " -r -F" : " -x -a '" + joined(choices(o)) + "'";
                text += " -d '" + fishText(o->get_description().substr(0, 80)) + "'\n";
            }
        }
    }
    return text;
}

}  // namespace

void addManualCommand(CLI::App& app, Context& ctx) {
    auto kind = std::make_shared<std::string>();
    auto path = std::make_shared<std::string>();
    CLI::App* cmd = verb(app, "generate", "print the manual page or a shell's completion", ctx,
                         [&app, &ctx, kind, path]() -> Json {
                             const std::string text = *kind == "man" ? manual(app)
                                                      : *kind == "bash" ? bash(app)
                                                      : *kind == "zsh"  ? zsh(app)
                                                                        : fish(app);
                             writeOutput(ctx, path->empty() ? "-" : *path,
                                         reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
                             ctx.printed = true;
                             return nullptr;
                         });
    cmd->group("");  // not among the commands people see
    cmd->add_option("kind", *kind, "man, bash, zsh or fish")->required()->check(CLI::IsMember({"man", "bash", "zsh", "fish"}));
    addOutput(cmd, *path, ctx, "the file to write");
}

}  // namespace tolvik
