// QelAccessControlBase: a reader/writer lock that knows which threads hold it.
//
// - Any number of threads may hold it shared, one thread exclusive. A thread
//   may hold it shared several times and frees it as often.
// - A thread that asks for a hold it can never get (exclusive on top of its own
//   shared or exclusive hold, shared on top of its own exclusive hold) gets a
//   QelAccessControlError instead of a deadlock; so does a release of a hold
//   the thread does not have.
// - convertLock() turns the caller's single shared hold into the exclusive
//   one; it refuses (false) when the caller holds the lock shared more than
//   once.
// - Writers go first on release: a leaving writer wakes one waiting writer if
//   there is any and all waiting readers only otherwise; the last leaving
//   reader wakes one writer. New readers are kept out only while a writer
//   actually holds the lock.
// - The destructor waits for the current holders to leave, then cancels every
//   waiter: their getSharedLock()/getExclusiveLock()/convertLock() return
//   false.
//
// QelAccessControl is the scoped holder: it takes a hold in its constructor
// (throwing when the wait was cancelled) and releases it in its destructor.
//
// The fields are public data so that a caller can observe the counters under
// `mutex` (tests use this to know a thread is blocked).
#ifndef QEL_ACCESS_CONTROL_H
#define QEL_ACCESS_CONTROL_H

#include <pthread.h>

#include <cstdint>
#include <list>

#include "qelError.h"
#include "qelExport.h"

QEL_DECLARE_ERROR(QelAccessControlError);

class QEL_EXPORT QelAccessControlBase {
public:
    QelAccessControlBase();
    virtual ~QelAccessControlBase();

    QelAccessControlBase(const QelAccessControlBase&) = delete;
    QelAccessControlBase& operator=(const QelAccessControlBase&) = delete;

    // Shared hold; false when the wait was cancelled by the destructor.
    [[nodiscard]] bool getSharedLock();
    // Exclusive hold; false when the wait was cancelled by the destructor.
    [[nodiscard]] bool getExclusiveLock();
    // Releases one shared hold of the calling thread.
    void freeSharedLock();
    // Releases the calling thread's exclusive hold.
    void freeExclusiveLock();
    // Turns the calling thread's shared hold into the exclusive hold. False
    // when the thread holds the lock shared more than once (its holds stay as
    // they were) or when the wait was cancelled.
    [[nodiscard]] bool convertLock();

    int32_t waitingReaders;           // waiting in getSharedLock; set to 0 to cancel them
    int32_t waitingWriters;           // waiting for exclusive (or in the destructor); 0 cancels
    bool reserved;                    // kept for layout; cleared, never read
    pthread_t writer;                 // exclusive holder, 0 when none
    std::list<unsigned long> readers; // one entry per shared hold: the holder's thread id
    pthread_mutex_t mutex;            // guards the fields above
    pthread_cond_t readCond;          // readers wait here for the writer to leave
    pthread_cond_t writeCond;         // writers wait here for readers and writer to leave
};

class QEL_EXPORT QelAccessControl {
public:
    // Takes an exclusive or a shared hold of `base` (not owned). Throws
    // "Unable to get exclusive Lock" / "Unable to get read Lock" when the wait
    // was cancelled; errors of the base propagate unchanged.
    QelAccessControl(QelAccessControlBase* base, bool exclusive);
    // Releases the hold; errors of the release are not caught.
    virtual ~QelAccessControl() noexcept(false);

    QelAccessControl(const QelAccessControl&) = delete;
    QelAccessControl& operator=(const QelAccessControl&) = delete;

    bool exclusive;
    QelAccessControlBase* base;
};

#endif
