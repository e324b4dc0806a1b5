// The platform's result codes at the library's boundary (internal): every exported function
// returns only the codes of libpmx_errno.h, and the caller logs the platform's code beside them.
#ifndef LIBPMX_PLATFORM_CODE_H
#define LIBPMX_PLATFORM_CODE_H

#include "libpmx_errno.h"
#include "qv_mom.h"

namespace pmx
{

// A database client code: out of memory and a lost connection keep their meaning, every other
// failure is a failed platform call.
inline int code_of_mom(int rc)
{
    switch (rc) {
    case QV_MOM_OK:
        return LIBPMX_OK;
    case QV_MOM_E_NOMEM:
        return LIBPMX_E_NOMEM;
    case QV_MOM_E_CONN:
        return LIBPMX_E_NO_DB;
    default:
        return LIBPMX_E_FAIL;
    }
}

} // namespace pmx

#endif // LIBPMX_PLATFORM_CODE_H
