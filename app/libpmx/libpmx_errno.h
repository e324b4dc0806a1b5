/* Result codes of every libpmx function: 0 on success, one of these negatives otherwise. */
#ifndef LIBPMX_ERRNO_H
#define LIBPMX_ERRNO_H

#define LIBPMX_OK 0
#define LIBPMX_E_NOMEM (-2)          /* allocation failure */
#define LIBPMX_E_INVAL (-4)          /* invalid argument, unsupported id kind, or not local */
#define LIBPMX_E_BUF_FULL (-6)       /* output buffer full */
#define LIBPMX_E_NOT_FOUND (-7)      /* not found, or not cached when only the cache was asked */
#define LIBPMX_E_FAIL (-11)          /* null pointer, failed platform call or failed read */
#define LIBPMX_E_SPLIT_IGNORED (-12) /* split mappings ignored by the calling thread */
#define LIBPMX_E_PORT_RANGE (-18)    /* panel port beyond the card's port count */
#define LIBPMX_E_NO_DB (-20)         /* no database context or connection */

#endif /* LIBPMX_ERRNO_H */
