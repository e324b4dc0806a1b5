// Logging of the database client and the embedded store: qv_zlog category "qv_mom".
#ifndef QV_MOM_LOG_H
#define QV_MOM_LOG_H

#include "host_log.h"

namespace qv::mom {
qv_zlog_category_t *log_category();
} // namespace qv::mom

#define QV_MOM_LOG(level, ...) QV_HOST_LOG(::qv::mom::log_category(), level, __VA_ARGS__)

#endif // QV_MOM_LOG_H
