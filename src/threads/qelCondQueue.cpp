#include "qelCondQueue.h"

#include <unistd.h>

#include <cstring>
#include <string>

#define QEL_SOURCE_NAME "qelCondQueue"

QEL_DEFINE_ERROR(QelCondQueueError)

// Throws QelCondQueueError with `prefix` and the text of a non-zero pthread
// result, carrying the line of the call that failed.
#define QEL_CHECK_PTHREAD(call, prefix)                                                    \
    do {                                                                                   \
        const int result_ = (call);                                                        \
        if (result_ != 0) QEL_THROW(QelCondQueueError, std::string(prefix) + std::strerror(result_)); \
    } while (0)

namespace {

unsigned long nextSlot(unsigned long index, unsigned long capacity) {
    return index + 1 == capacity ? 0 : index + 1;
}

}  // namespace

QelCondQueue::QelCondQueue(unsigned long capacity_)
    : count(0),
      readIndex(0),
      writeIndex(0),
      capacity(capacity_ <= inlineCapacity ? inlineCapacity : capacity_),
      waitingWriters(0),
      waitingReaders(0),
      inlineSlots(),
      slots(nullptr) {
    // A request too large for new[] throws std::bad_array_new_length before
    // anything else is set up.
    slots = capacity == inlineCapacity ? inlineSlots : new void*[capacity];
    QEL_CHECK_PTHREAD(pthread_mutex_init(&mutex, nullptr), "pthread_mutex_init error: ");
    QEL_CHECK_PTHREAD(pthread_cond_init(&notFull, nullptr), "pthread_cond_init error: ");
    QEL_CHECK_PTHREAD(pthread_cond_init(&notEmpty, nullptr), "pthread_cond_init error: ");
}

QelCondQueue::~QelCondQueue() {
    try {
        QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), "pthread_mutex_lock error: ");
        if (slots != inlineSlots) delete[] slots;
        slots = nullptr;
        count = 0;
        // The mutex stays held while the waiters are woken, so none of them can
        // get back out of its wait before this loop ends; the one-second poll is
        // how the queue has always behaved and callers must not destroy a queue
        // that still has waiters.
        while (waitingWriters != 0) {
            QEL_CHECK_PTHREAD(pthread_cond_broadcast(&notFull), "pthread_cond_broadcast error: ");
            ::sleep(1);
        }
        pthread_cond_destroy(&notFull);
        while (waitingReaders != 0) {
            QEL_CHECK_PTHREAD(pthread_cond_broadcast(&notEmpty), "pthread_cond_broadcast error: ");
            ::sleep(1);
        }
        QEL_CHECK_PTHREAD(pthread_cond_destroy(&notEmpty), "pthread_cond_destroy error: ");
        QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), "pthread_mutex_unlock error: ");
        QEL_CHECK_PTHREAD(pthread_mutex_destroy(&mutex), "pthread_mutex_destroy error: ");
    } catch (const QelCondQueueError&) {
        // A destructor must not throw; the queue is gone either way.
    }
}

bool QelCondQueue::enqueue(void* item) {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), "pthread_mutex_lock error: ");
    while (count == capacity) {
        ++waitingWriters;
        const int waited = pthread_cond_wait(&notFull, &mutex);
        --waitingWriters;
        QEL_CHECK_PTHREAD(waited, "pthread_cond_wait error: ");
    }
    slots[writeIndex] = item;
    writeIndex = nextSlot(writeIndex, capacity);
    // Consumers only wait on an empty queue, so only this transition can have
    // a waiter to wake.
    if (count == 0) QEL_CHECK_PTHREAD(pthread_cond_signal(&notEmpty), "pthread_cond_signal error: ");
    ++count;
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), "pthread_mutex_unlock error: ");
    return true;
}

void* QelCondQueue::dequeue() {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), "pthread_mutex_lock error: ");
    while (count == 0) {
        ++waitingReaders;
        const int waited = pthread_cond_wait(&notEmpty, &mutex);
        --waitingReaders;
        QEL_CHECK_PTHREAD(waited, "pthread_cond_wait error: ");
    }
    // slots is null only once the destructor has started.
    void* item = slots != nullptr ? slots[readIndex] : nullptr;
    readIndex = nextSlot(readIndex, capacity);
    if (count == capacity) QEL_CHECK_PTHREAD(pthread_cond_signal(&notFull), "pthread_cond_signal error: ");
    --count;
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), "pthread_mutex_unlock error: ");
    return item;
}

bool QelCondQueue::enqueue_and_remove(void* item) {
    QEL_CHECK_PTHREAD(pthread_mutex_lock(&mutex), "pthread_mutex_lock error: ");
    if (count == capacity) {
        // The oldest element is forgotten: nobody is told and it is not handed
        // back. The queue stays full, so no producer is woken either.
        readIndex = nextSlot(readIndex, capacity);
        --count;
    }
    slots[writeIndex] = item;
    writeIndex = nextSlot(writeIndex, capacity);
    if (count == 0) QEL_CHECK_PTHREAD(pthread_cond_signal(&notEmpty), "pthread_cond_signal error: ");
    ++count;
    QEL_CHECK_PTHREAD(pthread_mutex_unlock(&mutex), "pthread_mutex_unlock error: ");
    return false;
}
