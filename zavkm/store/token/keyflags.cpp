// keyflags.cpp - the default key and trust marks of a token, in its flags object.
#include "store/token/keyflags.h"

#include <charconv>
#include <string_view>

#include "base/trace.h"
#include "base/utf.h"

namespace zavkm {
namespace {

constexpr std::string_view kHeader = "zav7km key flags";

// parseFlags - the flags text, every line checked; false when it is not ours in form.
bool parseFlags(const Bytes& value, KeyFlags& out) {
    const std::string_view text(reinterpret_cast<const char*>(value.data()), value.size());
    size_t at = 0;
    bool first = true, numbered = false;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        if (end == std::string_view::npos) return false;  // every line ends
        const std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (first) {
            if (line != kHeader) return false;
            first = false;
            continue;
        }
        const size_t space = line.find(' ');
        if (space == std::string_view::npos) return false;
        const std::string_view key = line.substr(0, space), arg = line.substr(space + 1);
        if (key == "generation") {
            const auto [p, ec] = std::from_chars(arg.data(), arg.data() + arg.size(), out.generation);
            if (ec != std::errc() || p != arg.data() + arg.size() || numbered) return false;
            numbered = true;
            continue;
        }
        const std::string label(arg);
        if (checkLabelText(label.c_str()) != ZAVKM_OK) return false;
        if (key == "default" && out.defaultLabel.empty()) {
            out.defaultLabel = label;
        } else if (key == "trusted" || key == "untrusted") {
            if (!out.trust.emplace(label, key == "trusted").second) return false;
        } else {
            return false;
        }
    }
    return !first && numbered;
}

// flagsText - flags as the flags object's value.
Bytes flagsText(const KeyFlags& flags) {
    std::string text(kHeader);
    text += "\ngeneration " + std::to_string(flags.generation) + "\n";
    if (!flags.defaultLabel.empty()) text += "default " + flags.defaultLabel + "\n";
    for (const auto& [label, trusted] : flags.trust)
        text += (trusted ? "trusted " : "untrusted ") + label + "\n";
    return Bytes(text.begin(), text.end());
}

}  // namespace

Rc readKeyFlags(TokenStore& t, KeyFlags& out) {
    out = KeyFlags{};
    std::vector<std::pair<CK_OBJECT_HANDLE, Bytes>> objects;
    if (Rc rc = flagObjects(t, objects); rc != ZAVKM_OK) return rc;
    for (const auto& [handle, value] : objects) {
        KeyFlags read;
        if (!parseFlags(value, read)) {
            trace("token flags object is not in this library's form");
            return ZAVKM_ERR_DATABASE_CORRUPTION;
        }
        if (read.generation >= out.generation) out = std::move(read);
    }
    return ZAVKM_OK;
}

Rc writeKeyFlags(TokenStore& t, const KeyFlags& flags) {
    std::vector<std::pair<CK_OBJECT_HANDLE, Bytes>> older;
    if (Rc rc = flagObjects(t, older); rc != ZAVKM_OK) return rc;
    KeyFlags next = flags;
    for (const auto& [handle, value] : older) {
        KeyFlags read;
        if (parseFlags(value, read) && read.generation >= next.generation)
            next.generation = read.generation;
    }
    ++next.generation;
    if (Rc rc = storeFlagObject(t, flagsText(next)); rc != ZAVKM_OK) return rc;
    for (const auto& [handle, value] : older)
        if (Rc rc = destroyHandle(t, handle); rc != ZAVKM_OK) return rc;
    return ZAVKM_OK;
}

std::optional<bool> trustMark(const KeyFlags& flags, const std::string& label) {
    const auto it = flags.trust.find(label);
    if (it == flags.trust.end()) return std::nullopt;
    return it->second;
}

namespace {

// certificateLabelled - whether the token holds a certificate under label, and whether it holds
// the private key of one of them.
Rc certificateLabelled(TokenStore& t, const std::string& label, bool& found, bool& personal) {
    found = personal = false;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    for (const CertObject& c : snap->certs) {
        if (c.label != label) continue;
        found = true;
        personal = personal || hasPrivateKey(*snap, c.id);
    }
    return ZAVKM_OK;
}

}  // namespace

Rc setTokenDefault(TokenStore& t, const std::string& label) {
    bool found = false, personal = false;
    if (Rc rc = certificateLabelled(t, label, found, personal); rc != ZAVKM_OK) return rc;
    if (!found) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (!personal) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
    return changeKeyFlags(t, [&](KeyFlags& f) { f.defaultLabel = label; });
}

Rc setTokenTrust(TokenStore& t, const std::string& label, bool trusted) {
    bool found = false, personal = false;
    if (Rc rc = certificateLabelled(t, label, found, personal); rc != ZAVKM_OK) return rc;
    if (!found) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return changeKeyFlags(t, [&](KeyFlags& f) { f.trust[label] = trusted; });
}

Rc markNewEntry(TokenStore& t, const std::string& label, bool makeDefault, bool trusted) {
    Rc rc = makeDefault ? setTokenDefault(t, label) : ZAVKM_OK;
    if (rc == ZAVKM_OK && trusted) rc = setTokenTrust(t, label, true);
    if (rc != ZAVKM_OK) (void)destroyLabelled(t, label);
    return rc;
}

Rc forgetKeyFlags(TokenStore& t, const std::string& label) {
    return changeKeyFlags(t, [&](KeyFlags& f) {
        if (f.defaultLabel == label) f.defaultLabel.clear();
        f.trust.erase(label);
    });
}

}  // namespace zavkm
