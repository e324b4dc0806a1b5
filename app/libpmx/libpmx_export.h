/* Marks the symbols that libpmx.so exports; everything else is hidden. */
#ifndef LIBPMX_EXPORT_H
#define LIBPMX_EXPORT_H

#if defined(LIBPMX_BUILDING)
#define LIBPMX_API __attribute__((visibility("default")))
#else
#define LIBPMX_API
#endif

#ifdef __cplusplus
#define LIBPMX_BEGIN_DECLS extern "C" {
#define LIBPMX_END_DECLS }
#else
#define LIBPMX_BEGIN_DECLS
#define LIBPMX_END_DECLS
#endif

#endif /* LIBPMX_EXPORT_H */
