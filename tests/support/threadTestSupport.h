// Shared by the tests of the thread utilities (QelCondQueue, QelAccessControl):
// knowing that another thread is blocked by reading the object's own waiter
// counters under its mutex, so that no test sleeps to wait for a thread; and
// QEL_UNDER_TSAN, defined in ThreadSanitizer builds, where the stress tests
// run fewer rounds.
#ifndef QEL_TEST_THREAD_SUPPORT_H
#define QEL_TEST_THREAD_SUPPORT_H

#include <pthread.h>

#include <chrono>
#include <thread>

#if defined(__SANITIZE_THREAD__)
#define QEL_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QEL_UNDER_TSAN 1
#endif
#endif

namespace threadTest {

// Reads the state of `object` (a queue or a lock with a public pthread mutex
// `mutex`) under that mutex until `pred(object)` holds. The bound is only
// there so that a broken object fails the test instead of hanging it.
template <class Guarded, class Pred>
bool eventually(Guarded& object, Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        pthread_mutex_lock(&object.mutex);
        const bool holds = pred(object);
        pthread_mutex_unlock(&object.mutex);
        if (holds) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
}

}  // namespace threadTest

#endif
