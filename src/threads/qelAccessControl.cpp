#include "qelAccessControl.h"

#include <algorithm>
#include <cstring>
#include <string>

#define QEL_SOURCE_NAME "qelAccessControl"

QEL_DEFINE_ERROR(QelAccessControlError)

// Throws QelAccessControlError with `prefix` and the text of a non-zero pthread
// result, carrying the line of the call that failed.
#define QEL_CHECK_PTHREAD(call, prefix)                                                    \
    do {                                                                                   \
        const int result_ = (call);                                                        \
        if (result_ != 0)                                                                  \
            QEL_THROW(QelAccessControlError, std::string(prefix) + std::strerror(result_)); \
    } while (0)

// Misuse: the mutex is given back before the error leaves.
#define QEL_MISUSE(unlockPrefix, message)                                                  \
    do {                                                                                   \
        QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockPrefix);                     \
        QEL_THROW(QelAccessControlError, message);                                         \
    } while (0)

namespace {

const char* const lockFailed = "pthread_mutex_lock error: ";
const char* const unlockFailed = "pthread_mutex_unlock error: ";
const char* const noSharedLock = "QelAccessControlBase::freeSharedLock() : no shared lock set.";

bool isThread(unsigned long id, pthread_t thread) {
    return pthread_equal(static_cast<pthread_t>(id), thread) != 0;
}

// After a wait: whether the waiter gives up, either because its wait failed or
// because the destructor cancelled it by setting its counter to 0. A thread that
// gives up takes itself off the counter (cancelled ones thereby count below
// zero, so "0 or less" means cancelled) and wakes the destructor, which waits on
// writeCond for everyone it cancelled to be out of the lock's mutex.
bool giveUp(int32_t& waiting, int waited, pthread_cond_t* destructorCond) {
    if (waited == 0 && waiting > 0) return false;
    --waiting;
    pthread_cond_broadcast(destructorCond);
    return true;
}

std::list<unsigned long>::iterator findHold(std::list<unsigned long>& readers, pthread_t thread) {
    return std::find_if(readers.begin(), readers.end(),
                        [thread](unsigned long id) { return isThread(id, thread); });
}

}  // namespace

QelAccessControlBase::QelAccessControlBase()
    : waitingReaders(0), waitingWriters(0), reserved(false), writer(0), readers() {
    QEL_CHECK_PTHREAD(pthread_mutex_init(&mutex, nullptr), "pthread_mutex_init error: ");
    QEL_CHECK_PTHREAD(pthread_cond_init(&readCond, nullptr), "pthread_cond_init error: ");
    QEL_CHECK_PTHREAD(pthread_cond_init(&writeCond, nullptr), "pthread_cond_init error: ");
}

QelAccessControlBase::~QelAccessControlBase() {
    // Nothing may leave a destructor, so pthread results are not acted upon
    // here beyond not waiting on a condition that failed.
    pthread_mutex_lock(&mutex);
    reserved = false;
    // The holders of the moment are waited for like a writer would wait.
    if (!readers.empty() || writer != 0) {
        ++waitingWriters;
        while (!readers.empty() || writer != 0) {
            if (pthread_cond_wait(&writeCond, &mutex) != 0) break;
        }
        --waitingWriters;
    }
    // A zero counter tells the threads still waiting to give up.
    const int32_t cancelledReaders = waitingReaders;
    if (waitingReaders != 0) {
        waitingReaders = 0;
        pthread_cond_broadcast(&readCond);
    }
    const int32_t cancelledWriters = waitingWriters;
    if (waitingWriters != 0) {
        waitingWriters = 0;
        pthread_cond_broadcast(&writeCond);
    }
    // A cancelled waiter still has to take the mutex back and release it
    // before it can return false, so the mutex and the conditions must
    // outlive it: each one counts itself out below zero on its way (see
    // giveUp) and the destructor waits until all of them have.
    while (waitingReaders != -cancelledReaders || waitingWriters != -cancelledWriters) {
        if (pthread_cond_wait(&writeCond, &mutex) != 0) break;
    }
    pthread_cond_destroy(&readCond);
    pthread_cond_destroy(&writeCond);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    readers.clear();
}

bool QelAccessControlBase::getSharedLock() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), lockFailed);
    const pthread_t self = pthread_self();
    // A failed unlock in this function is reported with the lock message: that
    // text is the established behaviour and is kept.
    if (writer != 0 && pthread_equal(writer, self))
        QEL_MISUSE(lockFailed, "Thread already holds exclusive lock");
    bool result = true;
    if (writer != 0 || waitingWriters != 0) {
        ++waitingReaders;
        // Only a writer that holds the lock keeps a new reader out; one that
        // merely waits does not.
        while (writer != 0) {
            const int waited = pthread_cond_wait(&readCond, &mutex);
            if (giveUp(waitingReaders, waited, &writeCond)) {
                result = false;
                break;
            }
        }
        if (result) --waitingReaders;
    }
    if (result) readers.push_back(static_cast<unsigned long>(self));
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), lockFailed);
    return result;
}

bool QelAccessControlBase::getExclusiveLock() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), lockFailed);
    const pthread_t self = pthread_self();
    // Waiting here would mean waiting for ourselves.
    if (findHold(readers, self) != readers.end() || (writer != 0 && pthread_equal(writer, self)))
        QEL_MISUSE(unlockFailed, "QelAccessControlBase::getExclusiveLock() : Thread already holds this lock");
    bool result = true;
    if (readers.empty() && writer == 0) {
        writer = self;
    } else {
        ++waitingWriters;
        while (!readers.empty() || writer != 0) {
            const int waited = pthread_cond_wait(&writeCond, &mutex);
            if (giveUp(waitingWriters, waited, &writeCond)) {
                result = false;
                break;
            }
        }
        if (result) {
            --waitingWriters;
            writer = self;
        }
    }
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
    return result;
}

void QelAccessControlBase::freeSharedLock() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), lockFailed);
    const auto hold = findHold(readers, pthread_self());
    if (hold == readers.end()) QEL_MISUSE(unlockFailed, noSharedLock);
    readers.erase(hold);
    // The last reader out hands the lock to one writer.
    if (readers.empty() && waitingWriters != 0)
        QEL_CHECK_PTHREAD(pthread_cond_signal(&writeCond), "pthread_cond_signal error: ");
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
}

void QelAccessControlBase::freeExclusiveLock() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), lockFailed);
    if (writer == 0 || !pthread_equal(writer, pthread_self()))
        QEL_MISUSE(unlockFailed, "QelAccessControlBase::freeExclusiveLock() : Thread does not hold exclusive lock");
    writer = 0;
    // Writers go first; the readers are let in together once no writer waits.
    // These results have never been checked: the release itself has happened.
    if (waitingWriters != 0)
        pthread_cond_signal(&writeCond);
    else if (waitingReaders != 0)
        pthread_cond_broadcast(&readCond);
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
}

bool QelAccessControlBase::convertLock() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), lockFailed);
    const pthread_t self = pthread_self();
    const bool selfIsWriter = writer != 0 && pthread_equal(writer, self);
    bool result = true;
    const auto hold = findHold(readers, self);
    if (hold == readers.end()) {
        // Another thread holds it exclusive, so this one has no shared hold to
        // give up: the message is freeSharedLock's on purpose. A thread holding
        // nothing converts as if it held one shared hold, and the exclusive
        // holder simply keeps its hold.
        if (writer != 0 && !selfIsWriter) QEL_MISUSE(unlockFailed, noSharedLock);
    } else {
        const auto next = readers.erase(hold);
        if (findHold(readers, self) != readers.end()) {
            // Several shared holds cannot become one exclusive hold.
            readers.insert(next, static_cast<unsigned long>(self));
            QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
            return false;
        }
    }
    if (selfIsWriter) {
        QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
        return result;
    }
    // Only the other readers are waited for, not another writer: while this
    // thread held its shared hold, no writer could get in.
    if (!readers.empty()) {
        ++waitingWriters;
        while (!readers.empty()) {
            const int waited = pthread_cond_wait(&writeCond, &mutex);
            if (giveUp(waitingWriters, waited, &writeCond)) {
                result = false;
                break;
            }
        }
        if (result) --waitingWriters;
    }
    if (result) writer = self;
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), unlockFailed);
    return result;
}

QelAccessControl::QelAccessControl(QelAccessControlBase* base_, bool exclusive_)
    : exclusive(exclusive_), base(base_) {
    if (exclusive) {
        if (!base->getExclusiveLock()) QEL_THROW(QelAccessControlError, "Unable to get exclusive Lock");
    } else {
        if (!base->getSharedLock()) QEL_THROW(QelAccessControlError, "Unable to get read Lock");
    }
}

QelAccessControl::~QelAccessControl() noexcept(false) {
    if (exclusive)
        base->freeExclusiveLock();
    else
        base->freeSharedLock();
}
