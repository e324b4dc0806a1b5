// The library's one lock guard: RAII holders of a table's reader-writer lock (internal).
#ifndef LIBPMX_LOCK_HPP
#define LIBPMX_LOCK_HPP

#include <pthread.h>

namespace pmx
{

// Holds the lock for reading (lookups, walks, dumps) while in scope.
class ReadGuard
{
public:
    explicit ReadGuard(pthread_rwlock_t &lock) : lock_(lock) { pthread_rwlock_rdlock(&lock_); }
    ~ReadGuard() { pthread_rwlock_unlock(&lock_); }
    ReadGuard(const ReadGuard &) = delete;
    ReadGuard &operator=(const ReadGuard &) = delete;

private:
    pthread_rwlock_t &lock_;
};

// Holds the lock for writing (changes) while in scope.
class WriteGuard
{
public:
    explicit WriteGuard(pthread_rwlock_t &lock) : lock_(lock) { pthread_rwlock_wrlock(&lock_); }
    ~WriteGuard() { pthread_rwlock_unlock(&lock_); }
    WriteGuard(const WriteGuard &) = delete;
    WriteGuard &operator=(const WriteGuard &) = delete;

private:
    pthread_rwlock_t &lock_;
};

} // namespace pmx

#endif // LIBPMX_LOCK_HPP
