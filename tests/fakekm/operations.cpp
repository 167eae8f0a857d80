// Every ZAVKM_ operation of the fake, generated from the ABI header's one table of operations:
// each journals its call, runs its scripted step and returns the scripted value.
#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

#include "state.h"

namespace fake::detail {
namespace {

// ---- Showing arguments in the journal ---------------------------------------------------------

std::string quote(const char* text) {
    if (text == nullptr) return "null";
    std::string shown = "\"";
    for (const char* p = text; *p != '\0'; ++p) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            shown += '\\';
            shown += *p;
        } else if (c < 0x20 || c == 0x7f) {
            shown += "\\x" + hex(&c, 1);
        } else {
            shown += *p;
        }
    }
    return shown + "\"";
}

// The parameter names of an operation, from the header's argument list "(a, b, c)".
std::vector<std::string> parameterNames(const char* argumentList) {
    std::vector<std::string> names;
    std::string name;
    for (const char* p = argumentList; *p != '\0'; ++p) {
        if (*p == '(' || *p == ' ') continue;
        if (*p == ',' || *p == ')') {
            if (!name.empty()) names.push_back(name);
            name.clear();
        } else {
            name += *p;
        }
    }
    return names;
}

// The length of byte buffer `name` is the parameter named name + "Length", or else "length".
std::string buffer(const uint8_t* bytes, size_t index, const Call& call,
                   const std::vector<std::string>& names) {
    if (bytes == nullptr) return "null";
    const std::string& name = names.at(index);
    for (const std::string& wanted : {name + "Length", std::string("length")}) {
        for (size_t j = 0; j < names.size(); ++j) {
            if (names[j] == wanted && call.args[j].type() == typeid(uint32_t)) {
                return "[" + hex(bytes, call.arg<uint32_t>(j)) + "]";
            }
        }
    }
    error(std::string(call.op) + ": no length argument for buffer " + name);
    return "[?]";
}

std::string describeDN(const ZAVKM_DNItem* dn) {
    if (dn == nullptr) return "null";
    const std::pair<const char*, const char*> parts[] = {
        {"cn", dn->cn}, {"ou", dn->ou}, {"o", dn->o}, {"l", dn->l}, {"s", dn->s},
        {"pc", dn->pc}, {"c", dn->c}, {"optionalField1", dn->optionalField1},
        {"optionalField2", dn->optionalField2}, {"optionalField3", dn->optionalField3},
        {"optionalField4", dn->optionalField4}};
    std::string shown = "DN{";
    const char* separator = "";
    for (const auto& [name, value] : parts) {
        if (value == nullptr) continue;
        shown += separator + std::string(name) + "=" + quote(value);
        separator = ", ";
    }
    if (dn->der != nullptr) shown += separator + std::string("der=[") + hex(dn->der, dn->derLength) + "]";
    return shown + "}";
}

std::string describeLabels(const ZAVKM_LabelList* list) {
    if (list == nullptr) return "null";
    std::string shown = "labels{";
    for (const ZAVKM_LabelList* node = list; node != nullptr; node = node->next) {
        shown += quote(node->label);
        if (node->next != nullptr) shown += ", ";
    }
    return shown + "}";
}

// A descriptor shows its type, the texts that are set and whether its other bytes are zero.
std::string describeDescriptor(const KeyStoreDescriptor* descriptor) {
    if (descriptor == nullptr) return "null";
    std::string shown = "KeyStoreDescriptor{type=" + std::to_string(descriptor->storeType);
    const std::pair<const char*, const char*> texts[] = {
        {"keyDbFileName", descriptor->keyDbFileName},
        {"cryptoModuleName", descriptor->cryptoModuleName},
        {"tokenLabel", descriptor->tokenLabel},
        {"password", descriptor->password},
        {"newPassword", descriptor->newPassword}};
    for (const auto& [name, value] : texts) {
        if (value != nullptr) shown += ", " + std::string(name) + "=" + quote(value);
    }
    bool zero = true;
    for (uint8_t byte : descriptor->reserved1) zero = zero && byte == 0;
    for (uint8_t byte : descriptor->reserved2) zero = zero && byte == 0;
    return shown + (zero ? "}" : ", other bytes NOT zero}");
}

template <class A>
std::string show(A value, size_t index, const Call& call, const std::vector<std::string>& names) {
    if constexpr (std::is_same_v<A, const char*> || std::is_same_v<A, char*>) {
        return quote(value);
    } else if constexpr (std::is_same_v<A, const uint8_t*>) {
        return buffer(value, index, call, names);
    } else if constexpr (std::is_same_v<A, const KeyStoreDescriptor*>) {
        return describeDescriptor(value);
    } else if constexpr (std::is_same_v<A, const ZAVKM_LabelList*>) {
        return describeLabels(value);
    } else if constexpr (std::is_same_v<A, const ZAVKM_DNItem*>) {
        return describeDN(value);
    } else if constexpr (std::is_same_v<A, const ZAVKM_EPKIItem*>) {
        if (value == nullptr) return "null";
        // A record may carry a length without bytes: shown, never read.
        if (value->der == nullptr) {
            return "EPKI{der=null, derLength=" + std::to_string(value->derLength) + "}";
        }
        return "EPKI[" + hex(value->der, value->derLength) + "]";
    } else if constexpr (std::is_same_v<A, void*> || std::is_same_v<A, const void*>) {
        if (value != nullptr && isTracked(value)) {
            return "block(" + std::to_string(trackedSize(value)) + ")";
        }
        return value == nullptr ? "null" : "non-null";
    } else if constexpr (std::is_pointer_v<A>) {
        return value == nullptr ? "null" : "non-null";
    } else {
        static_assert(std::is_integral_v<A>, "an argument type the journal cannot show");
        return std::to_string(+value);
    }
}

// ---- One operation ----------------------------------------------------------------------------

template <class R>
struct Op {
    const char* name;
    const char* argumentList;

    template <class... A>
    R operator()(A... args) const noexcept {
        State& st = state();
        Lock lock(st.mutex);
        Call call{name, {std::any(args)...}};
        const std::vector<std::string> names = parameterNames(argumentList);
        std::string line = std::string(name) + "(";
        size_t index = 0;
        ((line += (index == 0 ? "" : ", ") + show(args, index, call, names), ++index), ...);
        st.journal.push_back(line + ")");

        Step step = takeStep(name);
        if constexpr (!std::is_void_v<R>) {
            if (++st.failableCalls == st.failAt) {
                step = Step{failureCode, true, {}};
                st.journal.back() += " failed";
            }
        }
        void* made = nullptr;
        try {
            for (const Effect& effect : step.effects) effect(call);
            made = behave(name, call, step);
        } catch (const std::exception& e) {
            error(std::string(name) + ": " + e.what());
        }
        if constexpr (std::is_pointer_v<R>) {
            return static_cast<R>(made);
        } else if constexpr (std::is_void_v<R>) {
            (void)made;
        } else {
            return static_cast<R>(step.value);
        }
    }
};

}  // namespace

bool isOperation(std::string_view op) {
    for (const std::string& name : operationNames()) {
        if (name == op) return true;
    }
    return false;
}

}  // namespace fake::detail

std::vector<std::string> fake::operationNames() {
#define FAKE_NAME_(ret, name, params, args) #name,
    return {ZAVKM_OPERATIONS(FAKE_NAME_)};
#undef FAKE_NAME_
}

#define FAKE_DEFINE_(ret, name, params, args) \
    extern "C" ret name params noexcept { return fake::detail::Op<ret>{#name, #args} args; }
ZAVKM_OPERATIONS(FAKE_DEFINE_)
#undef FAKE_DEFINE_
