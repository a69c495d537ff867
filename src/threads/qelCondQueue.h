// QelCondQueue: a bounded first-in-first-out queue of untyped pointers shared
// between threads.
//
// - enqueue() blocks while the queue is full, dequeue() blocks while it is
//   empty; enqueue_and_remove() never blocks and, on a full queue, silently
//   forgets the oldest element to make room.
// - The queue never owns, copies or frees the pointers it carries.
// - A capacity of 8 or less (0 included) becomes 8 and lives inside the object;
//   a larger one is one new[] array.
// - One waiter is woken per transition (signal, not broadcast): enqueue wakes a
//   consumer only when the queue stops being empty, dequeue wakes a producer
//   only when it stops being full. A thread that stops using the queue for
//   good while peers may still wait therefore has to make sure they are not
//   left waiting for a transition that will not come.
// - Destroy the queue only when no thread waits in it: the destructor keeps
//   the mutex while it wakes waiters and polls their counters once a second,
//   so a woken waiter cannot leave and, with a waiter present, the destructor
//   does not finish.
// - Every failing pthread call throws QelCondQueueError ("<call> error: " and
//   strerror of the result); the queue is unusable afterwards.
//
// The fields are public data so that a caller can observe the counters under
// `mutex` (tests use this to know a thread is blocked).
#ifndef QEL_COND_QUEUE_H
#define QEL_COND_QUEUE_H

#include <pthread.h>

#include "qelError.h"
#include "qelExport.h"

QEL_DECLARE_ERROR(QelCondQueueError);

class QEL_EXPORT QelCondQueue {
public:
    // Capacities up to this many slots use inlineSlots.
    static constexpr unsigned long inlineCapacity = 8;

    explicit QelCondQueue(unsigned long capacity);
    virtual ~QelCondQueue();

    QelCondQueue(const QelCondQueue&) = delete;
    QelCondQueue& operator=(const QelCondQueue&) = delete;

    // Appends `item`, waiting while the queue is full. Always true.
    bool enqueue(void* item);
    // Removes and returns the oldest element, waiting while the queue is empty.
    [[nodiscard]] void* dequeue();
    // Appends `item` without waiting, dropping the oldest element of a full
    // queue. Always false, whether or not something was dropped: the result
    // carries no information and stays constant for existing callers.
    bool enqueue_and_remove(void* item);

    unsigned long count;          // elements held
    unsigned long readIndex;      // slot of the oldest element
    unsigned long writeIndex;     // slot for the next element
    unsigned long capacity;       // number of slots, at least 8
    unsigned int waitingWriters;  // threads blocked in enqueue
    unsigned int waitingReaders;  // threads blocked in dequeue
    void* inlineSlots[inlineCapacity];
    void** slots;                 // inlineSlots or a new[] array; null once destruction began
    pthread_mutex_t mutex;        // guards every field above
    pthread_cond_t notFull;       // an element left a full queue
    pthread_cond_t notEmpty;      // an element entered an empty queue
};

#endif
