// fuzz.h - what the fuzz targets share: the library started once, a private scratch directory,
// the input written to a file there, and a key database opened once for targets that need one.
#pragma once

#include <ftw.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zavkm.h"

namespace fuzz {

inline const char* const kPassword = "fuzz-Passw0rd";

inline std::string& scratchName() {
    static std::string name;
    return name;
}

// removeScratch - at exit, the scratch directory and everything in it go (deepest first).
inline void removeScratch() {
    if (scratchName().empty()) return;
    ::nftw(scratchName().c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); },
           8, FTW_DEPTH | FTW_PHYS);
}

// scratch - the directory of this process, made on first use: in memory (/dev/shm) where there
// is one, so that the files written for every input cost no disk writes or syncs.
inline const std::string& scratch() {
    static const std::string dir = [] {
        ZAVKM_Init();
        std::string name = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/zavkm-fuzz-XXXXXX" : "/tmp/zavkm-fuzz-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) std::abort();
        scratchName() = name;
        std::atexit(removeScratch);
        return name;
    }();
    return dir;
}

inline std::string path(const char* name) { return scratch() + "/" + name; }

// asFile - the input as the file name (replaced whole each time).
inline std::string asFile(const uint8_t* data, size_t size, const char* name) {
    const std::string file = path(name);
    ::unlink(file.c_str());
    FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr) std::abort();
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
    return file;
}

// keyDb - a key database with a self-signed EC CA "ca", open for the life of the process.
inline ZAVKM_KeyDbHandle keyDb() {
    static const ZAVKM_KeyDbHandle handle = [] {
        ZAVKM_KeyDbHandle h = 0;
        if (ZAVKM_CreateNewKeyDb(path("target.kdb").c_str(), kPassword, 0, &h) != ZAVKM_OK) std::abort();
        ZAVKM_DNItem ca{};
        ca.cn = const_cast<char*>("Fuzz CA");
        if (ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &ca, 30, path("ca.der").c_str(), 0) != ZAVKM_OK)
            std::abort();
        return h;
    }();
    return handle;
}

}  // namespace fuzz

// Before the first input: the library started and the scratch directory made, so that the
// first input meets the same library as every other.
extern "C" inline int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}
