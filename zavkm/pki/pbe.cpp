// pbe.cpp - password-based encryption schemes, checked before any key is derived.
#include "pki/pbe.h"

#include "base/state.h"

namespace zavkm {

Rc viewPbes2(const X509_ALGOR* alg, Pbes2View& view) {
    const ASN1_OBJECT* obj = nullptr;
    int ptype = 0;
    const void* pval = nullptr;
    X509_ALGOR_get0(&obj, &ptype, &pval, alg);
    if (OBJ_obj2nid(obj) != NID_pbes2) return ZAVKM_OK;
    if (ptype != V_ASN1_SEQUENCE) return ZAVKM_ERR_ASN;
    const ASN1_TYPE* param = nullptr;
    // X509_ALGOR_get0 hands the parameter's value; the whole ASN1_TYPE is alg->parameter.
    param = alg->parameter;
    view.pbe2.reset(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), param)));
    if (!view.pbe2) return sslError(ZAVKM_ERR_ASN);
    if (OBJ_obj2nid(view.pbe2->keyfunc->algorithm) != NID_id_pbkdf2)
        return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    view.kdf.reset(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), view.pbe2->keyfunc->parameter)));
    if (!view.kdf) return sslError(ZAVKM_ERR_ASN);
    if (view.kdf->prf != nullptr) view.prf = OBJ_obj2nid(view.kdf->prf->algorithm);
    view.iterations = ASN1_INTEGER_get(view.kdf->iter);
    view.cipher = OBJ_obj2nid(view.pbe2->encryption->algorithm);
    return ZAVKM_OK;
}

Rc checkPbe(const X509_ALGOR* alg, long& iterations) {
    Pbes2View view;
    if (Rc rc = viewPbes2(alg, view); rc != ZAVKM_OK) return rc;
    if (view.pbe2) {
        iterations = view.iterations;
        if (fipsMode() && view.cipher != NID_aes_128_cbc && view.cipher != NID_aes_192_cbc &&
            view.cipher != NID_aes_256_cbc)
            return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    } else {
        if (fipsMode()) return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
        if (alg == nullptr || alg->parameter == nullptr) return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
        Owned<PBEPARAM, PBEPARAM_free> pbe(static_cast<PBEPARAM*>(
            ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), alg->parameter)));
        if (!pbe) return sslError(ZAVKM_ERR_PBE_ALG_UNSUPPORT);
        iterations = ASN1_INTEGER_get(pbe->iter);
    }
    if (iterations <= 0 || iterations > static_cast<long>(kMaxPbeIterations))
        return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    return ZAVKM_OK;
}

}  // namespace zavkm
