// Logging of the database client and the embedded store: qv_zlog category "qv_mom".
#ifndef QV_MOM_LOG_H
#define QV_MOM_LOG_H

#include "qv_zlog.h"

namespace qv::mom {
qv_zlog_category_t *log_category();
} // namespace qv::mom

#define QV_MOM_LOG(level, ...)                                                                     \
    qvdf_zlog(::qv::mom::log_category(), __FILE__, sizeof(__FILE__) - 1, __func__,                 \
              sizeof(__func__) - 1, __LINE__, (level), __VA_ARGS__)

#endif // QV_MOM_LOG_H
