/* ThreadSanitizer does not see GLib's mutexes: GLib is not instrumented and
 * its GMutex is built on atomics and futexes. In the Tsan build every program
 * (the daemon, the board, the tests) therefore links these wrappers of the
 * three GMutex calls, which tell TSan about the ordering they create, so that
 * data guarded by a GMutex is not reported and data that is not guarded still
 * is. Other builds do not link this file. */
#if defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <glib.h>
#include <sanitizer/tsan_interface.h>

namespace
{

template <typename F>
F real(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

void g_mutex_lock(GMutex *mutex)
{
    static auto next = real<void (*)(GMutex *)>("g_mutex_lock");
    next(mutex);
    __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex *mutex)
{
    static auto next = real<gboolean (*)(GMutex *)>("g_mutex_trylock");
    if (!next(mutex))
        return FALSE;
    __tsan_acquire(mutex);
    return TRUE;
}

void g_mutex_unlock(GMutex *mutex)
{
    static auto next = real<void (*)(GMutex *)>("g_mutex_unlock");
    __tsan_release(mutex);
    next(mutex);
}

} // extern "C"

#endif
