// nss_lookups.cpp - NSS's side of the store benchmark: the same certificates in NSS's sql:
// database, looked up by nickname on the open database (NSS's headers and OpenSSL's do not mix
// in one file).
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#ifdef ZAV_BENCH_NSS
#include <cert.h>
#include <nss.h>
#include <pk11pub.h>
#endif

bool nssLookupTimes(const std::string& dir, const std::vector<std::vector<uint8_t>>& certificates,
                    const std::vector<std::string>& labels, const std::vector<std::string>& picks,
                    double& fillMs, std::vector<double>& times) {
#ifndef ZAV_BENCH_NSS
    (void)dir, (void)certificates, (void)labels, (void)picks, (void)fillMs, (void)times;
    return false;
#else
    using Clock = std::chrono::steady_clock;
    auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
    std::system(("rm -rf " + dir + " && mkdir -p " + dir).c_str());
    NSSInitContext* nss = NSS_InitContext(("sql:" + dir).c_str(), "", "", "", nullptr,
                                          NSS_INIT_NOROOTINIT | NSS_INIT_OPTIMIZESPACE);
    if (nss == nullptr) return false;
    PK11SlotInfo* slot = PK11_GetInternalKeySlot();
    bool ok = slot != nullptr && (!PK11_NeedUserInit(slot) || PK11_InitPin(slot, nullptr, "") == SECSuccess);
    auto start = Clock::now();
    for (size_t i = 0; ok && i < labels.size(); ++i) {
        SECItem der{siBuffer, const_cast<unsigned char*>(certificates[i].data()),
                    static_cast<unsigned int>(certificates[i].size())};
        ok = PK11_ImportDERCert(slot, &der, CK_INVALID_HANDLE, const_cast<char*>(labels[i].c_str()), PR_FALSE) ==
             SECSuccess;
    }
    fillMs = ms(Clock::now() - start);
    for (const std::string& label : picks) {
        if (!ok) break;
        start = Clock::now();
        CERTCertificate* c = CERT_FindCertByNickname(CERT_GetDefaultCertDB(), label.c_str());
        times.push_back(ms(Clock::now() - start));
        ok = c != nullptr;
        if (c != nullptr) CERT_DestroyCertificate(c);
    }
    if (slot != nullptr) PK11_FreeSlot(slot);
    NSS_ShutdownContext(nss);
    std::system(("rm -rf " + dir).c_str());
    return ok;
#endif
}
