// The one logging macro of the host platform: each component passes its own qv_zlog category.
#ifndef QV_HOST_LOG_H
#define QV_HOST_LOG_H

#include <cstring>

#include "qv_zlog.h"

#define QV_HOST_LOG(category, level, ...)                                                          \
    qvdf_zlog((category), __FILE__, sizeof(__FILE__) - 1, __func__, std::strlen(__func__), __LINE__,  \
              (level), __VA_ARGS__)

#endif // QV_HOST_LOG_H
