// The table of the bridge's natives: one row is one call of one native (its arguments and the
// fake library's answers). What each row must come to lives in expected.txt, beside the table;
// run.cpp plays every row, every row with each reference argument null, and every row with each
// call into the library failing in turn, and checks what every play must keep.
#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "fake.h"

namespace natives {

using Arg = std::function<jvalue()>;  // made anew for each play (local references die with it)

// A native called with the ledger's env and jvalues: it answers its result as text ("int 0",
// "true", "void", or "object" with the object in `out`).
struct Native {
    std::function<std::string(JNIEnv*, const std::vector<jvalue>&, jobject& out)> call;
    std::vector<bool> references;  // per parameter after the env: a reference (nullable)
};

template <class P>
P as(const jvalue& v) {
    if constexpr (std::is_pointer_v<P>) return static_cast<P>(v.l);
    else if constexpr (std::is_same_v<P, jboolean>) return v.z;
    else if constexpr (std::is_same_v<P, jlong>) return v.j;
    else return v.i;
}

template <class R>
std::string shown(R r, jobject& out) {
    if constexpr (std::is_same_v<R, jboolean>) return r ? "true" : "false";
    else if constexpr (std::is_pointer_v<R>) return (out = r) ? "object" : "null";
    else return "int " + std::to_string(r);
}

template <class R, class... P>
Native native(R(JNICALL* fn)(JNIEnv*, P...)) {
    Native n;
    n.references = {std::is_pointer_v<P>...};
    n.call = [fn](JNIEnv* env, const std::vector<jvalue>& a, jobject& out) -> std::string {
        return [&]<size_t... I>(std::index_sequence<I...>) -> std::string {
            if constexpr (std::is_void_v<R>) {
                fn(env, as<P>(a[I])...);
                return "void";
            } else {
                return shown(fn(env, as<P>(a[I])...), out);
            }
        }(std::index_sequence_for<P...>{});
    };
    return n;
}

struct Row {
    std::string name;  // "<Class>.<native>[.<branch>]"
    Native native;
    std::vector<Arg> args;  // every parameter after the env, `this` or the class first
    std::vector<std::pair<std::string, fake::Step>> script = {};
    bool switchesTraceFile = false;  // the trace file is the native's own business
};

const std::vector<Row>& table();

}  // namespace natives
