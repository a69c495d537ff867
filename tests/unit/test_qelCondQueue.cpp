// QelCondQueue with real threads. A thread is known to be blocked when the
// queue's own waiter counters say so (read under the queue's mutex); nothing
// here sleeps to wait for a thread.
#include "qelCondQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "threadTestSupport.h"

namespace {

using threadTest::eventually;

template <class Field>
Field underLock(QelCondQueue& queue, Field QelCondQueue::*field) {
    pthread_mutex_lock(&queue.mutex);
    const Field value = queue.*field;
    pthread_mutex_unlock(&queue.mutex);
    return value;
}

void* item(uintptr_t n) { return reinterpret_cast<void*>(n); }
uintptr_t number(void* p) { return reinterpret_cast<uintptr_t>(p); }

// Fills `queue` with items first..first+n-1.
void fill(QelCondQueue& queue, uintptr_t first, unsigned n) {
    for (unsigned i = 0; i < n; ++i) ASSERT_TRUE(queue.enqueue(item(first + i)));
}

// Shows that `queue` holds exactly `expected` elements: `expected` enqueues go
// through at once, the next one blocks until a dequeue makes room.
void expectHoldsExactly(QelCondQueue& queue, unsigned expected) {
    fill(queue, 1, expected);
    EXPECT_EQ(queue.count, expected);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        queue.enqueue(item(1000));
        done = true;
    });
    ASSERT_TRUE(eventually(queue, [](QelCondQueue& q) { return q.waitingWriters == 1; }));
    EXPECT_FALSE(done.load());
    EXPECT_EQ(number(queue.dequeue()), 1u);
    producer.join();
    EXPECT_TRUE(done.load());
    for (unsigned i = 2; i <= expected; ++i) EXPECT_EQ(number(queue.dequeue()), i);
    EXPECT_EQ(number(queue.dequeue()), 1000u);
    EXPECT_EQ(queue.count, 0u);
}

}  // namespace

TEST(QelCondQueueError, KeepsMessageFileAndLineWithEmptyBaseText) {
    const QelCondQueueError error("pthread_mutex_lock error: Invalid argument", "qelCondQueue", 42);
    EXPECT_EQ(error.errorText, "pthread_mutex_lock error: Invalid argument");
    EXPECT_EQ(error.fileName, "qelCondQueue");
    EXPECT_EQ(error.lineNumber, 42u);
    EXPECT_STREQ(static_cast<const std::exception&>(error).what(), "");
    const QelCondQueueError copy(error);
    EXPECT_EQ(copy.errorText, error.errorText);
    EXPECT_EQ(copy.fileName, error.fileName);
    EXPECT_EQ(copy.lineNumber, error.lineNumber);
}

TEST(QelCondQueue, NewQueueIsEmptyWithIndicesAtZero) {
    QelCondQueue queue(64);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.readIndex, 0u);
    EXPECT_EQ(queue.writeIndex, 0u);
    EXPECT_EQ(queue.waitingWriters, 0u);
    EXPECT_EQ(queue.waitingReaders, 0u);
}

TEST(QelCondQueue, CapacityZeroBecomesEightInlineSlots) {
    QelCondQueue queue(0);
    EXPECT_EQ(queue.capacity, 8u);
    EXPECT_EQ(queue.slots, queue.inlineSlots);
    expectHoldsExactly(queue, 8);
}

TEST(QelCondQueue, CapacityThreeBecomesEightInlineSlots) {
    QelCondQueue queue(3);
    EXPECT_EQ(queue.capacity, 8u);
    EXPECT_EQ(queue.slots, queue.inlineSlots);
    expectHoldsExactly(queue, 8);
}

TEST(QelCondQueue, CapacityEightUsesInlineSlots) {
    QelCondQueue queue(8);
    EXPECT_EQ(queue.capacity, 8u);
    EXPECT_EQ(queue.slots, queue.inlineSlots);
}

TEST(QelCondQueue, CapacityAboveEightUsesItsOwnArray) {
    QelCondQueue queue(9);
    EXPECT_EQ(queue.capacity, 9u);
    EXPECT_NE(queue.slots, queue.inlineSlots);
    expectHoldsExactly(queue, 9);
}

TEST(QelCondQueue, CapacityTooLargeForAnArrayThrowsBadArrayNewLength) {
    EXPECT_THROW({ QelCondQueue queue(ULONG_MAX); }, std::bad_array_new_length);
}

TEST(QelCondQueue, EnqueueReturnsTrueAndDequeueGivesItemsInOrder) {
    QelCondQueue queue(8);
    EXPECT_TRUE(queue.enqueue(item(7)));
    EXPECT_TRUE(queue.enqueue(nullptr));
    EXPECT_TRUE(queue.enqueue(item(9)));
    EXPECT_EQ(queue.count, 3u);
    EXPECT_EQ(number(queue.dequeue()), 7u);
    EXPECT_EQ(queue.dequeue(), nullptr);
    EXPECT_EQ(number(queue.dequeue()), 9u);
    EXPECT_EQ(queue.count, 0u);
}

TEST(QelCondQueue, EnqueueAndRemoveReturnsFalseAlsoWhenNothingIsDropped) {
    QelCondQueue queue(8);
    EXPECT_FALSE(queue.enqueue_and_remove(item(1)));
    EXPECT_FALSE(queue.enqueue_and_remove(item(2)));
    EXPECT_EQ(queue.count, 2u);
    EXPECT_EQ(number(queue.dequeue()), 1u);
    EXPECT_EQ(number(queue.dequeue()), 2u);
}

TEST(QelCondQueue, EnqueueAndRemoveOnFullQueueDropsTheOldest) {
    QelCondQueue queue(8);
    fill(queue, 1, 8);
    EXPECT_FALSE(queue.enqueue_and_remove(item(100)));
    EXPECT_EQ(queue.count, 8u);
    for (uintptr_t expected = 2; expected <= 8; ++expected) EXPECT_EQ(number(queue.dequeue()), expected);
    EXPECT_EQ(number(queue.dequeue()), 100u);
    EXPECT_EQ(queue.count, 0u);
}

TEST(QelCondQueue, RepeatedEnqueueAndRemoveKeepsTheNewestEight) {
    QelCondQueue queue(0);
    for (uintptr_t n = 1; n <= 30; ++n) queue.enqueue_and_remove(item(n));
    EXPECT_EQ(queue.count, 8u);
    for (uintptr_t expected = 23; expected <= 30; ++expected) EXPECT_EQ(number(queue.dequeue()), expected);
}

TEST(QelCondQueue, EnqueueOnFullQueueBlocksUntilADequeue) {
    QelCondQueue queue(8);
    fill(queue, 1, 8);
    std::atomic<bool> returned{false};
    bool result = false;
    std::thread producer([&] {
        result = queue.enqueue(item(9));
        returned = true;
    });
    ASSERT_TRUE(eventually(queue, [](QelCondQueue& q) { return q.waitingWriters == 1; }));
    EXPECT_FALSE(returned.load());
    EXPECT_EQ(underLock(queue, &QelCondQueue::count), 8u);

    EXPECT_EQ(number(queue.dequeue()), 1u);
    producer.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(queue.waitingWriters, 0u);
    EXPECT_EQ(queue.count, 8u);
    for (uintptr_t expected = 2; expected <= 9; ++expected) EXPECT_EQ(number(queue.dequeue()), expected);
}

TEST(QelCondQueue, EnqueueAndRemoveOnFullQueueLeavesABlockedProducerWaiting) {
    QelCondQueue queue(8);
    fill(queue, 1, 8);
    std::thread producer([&] { queue.enqueue(item(50)); });
    ASSERT_TRUE(eventually(queue, [](QelCondQueue& q) { return q.waitingWriters == 1; }));
    queue.enqueue_and_remove(item(9));
    // Still full, so the producer is still (or again) waiting.
    EXPECT_TRUE(eventually(queue, [](QelCondQueue& q) { return q.waitingWriters == 1 && q.count == 8; }));
    EXPECT_EQ(number(queue.dequeue()), 2u);
    producer.join();
    for (uintptr_t expected = 3; expected <= 9; ++expected) EXPECT_EQ(number(queue.dequeue()), expected);
    EXPECT_EQ(number(queue.dequeue()), 50u);
}

namespace {

// Shows that a dequeue on the empty `queue` blocks until `wake` puts an item
// in, and then returns that item: what dequeue received.
template <class Wake>
uintptr_t dequeueWaitingFor(QelCondQueue& queue, Wake wake) {
    std::atomic<bool> returned{false};
    void* received = nullptr;
    std::thread consumer([&] {
        received = queue.dequeue();
        returned = true;
    });
    EXPECT_TRUE(eventually(queue, [](QelCondQueue& q) { return q.waitingReaders == 1; }));
    EXPECT_FALSE(returned.load());
    wake();
    consumer.join();
    return number(received);
}

}  // namespace

TEST(QelCondQueue, DequeueOnEmptyQueueBlocksUntilAnEnqueue) {
    QelCondQueue queue(8);
    EXPECT_EQ(dequeueWaitingFor(queue, [&] { EXPECT_TRUE(queue.enqueue(item(77))); }), 77u);
    EXPECT_EQ(queue.waitingReaders, 0u);
    EXPECT_EQ(queue.count, 0u);
}

TEST(QelCondQueue, DequeueOnEmptyQueueBlocksUntilAnEnqueueAndRemove) {
    QelCondQueue queue(8);
    EXPECT_EQ(dequeueWaitingFor(queue, [&] { EXPECT_FALSE(queue.enqueue_and_remove(item(78))); }), 78u);
    EXPECT_EQ(queue.count, 0u);
}

TEST(QelCondQueue, ItemsComeOutInInsertionOrderAcrossTheWrapAround) {
    for (unsigned long capacity : {8ul, 11ul}) {
        SCOPED_TRACE(capacity);
        QelCondQueue queue(capacity);
        uintptr_t nextIn = 1;
        uintptr_t nextOut = 1;
        bool wrapped = false;
        // Varying fill levels move both indices around the ring several times.
        for (unsigned round = 0; round < 40; ++round) {
            const unsigned in = 1 + (round * 5) % static_cast<unsigned>(capacity);
            for (unsigned i = 0; i < in && queue.count < queue.capacity; ++i) {
                const unsigned long before = queue.writeIndex;
                queue.enqueue(item(nextIn++));
                if (queue.writeIndex < before) wrapped = true;
                ASSERT_LT(queue.writeIndex, queue.capacity);
            }
            const unsigned out = 1 + (round * 3) % static_cast<unsigned>(queue.count);
            for (unsigned i = 0; i < out; ++i) {
                ASSERT_EQ(number(queue.dequeue()), nextOut++);
                ASSERT_LT(queue.readIndex, queue.capacity);
            }
            ASSERT_EQ(queue.count, nextIn - nextOut);
        }
        while (nextOut < nextIn) ASSERT_EQ(number(queue.dequeue()), nextOut++);
        EXPECT_TRUE(wrapped);
        EXPECT_GT(nextIn, 4 * capacity);
    }
}

TEST(QelCondQueue, DestroyingAQueueThatStillHoldsItemsDoesNotFreeThem) {
    int owned[3] = {1, 2, 3};
    auto queue = std::make_unique<QelCondQueue>(100);
    for (int& value : owned) queue->enqueue(&value);
    queue.reset();
    EXPECT_EQ(owned[0] + owned[1] + owned[2], 6);
}

TEST(QelCondQueue, DestructorLeavesCountZeroAndSlotsNull) {
    // The storage is the test's own, so the fields can still be looked at
    // once the destructor has run.
    alignas(QelCondQueue) unsigned char storage[sizeof(QelCondQueue)];
    auto* queue = new (storage) QelCondQueue(20);
    queue->enqueue(item(1));
    queue->~QelCondQueue();
    EXPECT_EQ(queue->count, 0u);
    EXPECT_EQ(queue->slots, nullptr);
}

// ------------------------------------------------------------------ stress

namespace {

#ifdef QEL_UNDER_TSAN
constexpr unsigned long stressItems = 100000;
#else
constexpr unsigned long stressItems = 1000000;
#endif

// The queue wakes one waiter per transition. A thread that stops using the
// queue for good may have been the one woken while a peer of its kind still
// waits on a queue that is no longer full (or empty); it passes the wake-up on
// so that the peer looks at the queue again. Waiters re-check their condition,
// so an extra wake-up is harmless.
void passOnWakeUp(QelCondQueue& queue, pthread_cond_t& condition) {
    pthread_mutex_lock(&queue.mutex);
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&queue.mutex);
}

// An item carries its producer in the high half and its sequence number (from
// 1) in the low half, so it is never null: null is the consumers' stop mark.
void* stressItem(unsigned producer, unsigned long sequence) {
    return item((static_cast<uintptr_t>(producer) << 32) | sequence);
}

}  // namespace

TEST(QelCondQueueStress, ManyProducersAndConsumersMoveEveryItemExactlyOnce) {
    constexpr unsigned producers = 4;
    constexpr unsigned consumers = 4;
    constexpr unsigned long perProducer = stressItems / producers;
    static_assert(perProducer * producers == stressItems, "items divide evenly");

    QelCondQueue queue(64);
    std::vector<std::atomic<unsigned char>> seen(stressItems);
    for (auto& counter : seen) counter.store(0, std::memory_order_relaxed);
    std::atomic<unsigned long> received{0};
    std::atomic<unsigned long> outOfOrder{0};

    std::vector<std::thread> threads;
    for (unsigned c = 0; c < consumers; ++c) {
        threads.emplace_back([&] {
            // What one consumer sees of one producer is a subsequence of the
            // queue's order, so it must rise.
            unsigned long last[producers] = {};
            unsigned long mine = 0;
            for (;;) {
                void* got = queue.dequeue();
                if (got == nullptr) break;
                const unsigned producer = static_cast<unsigned>(number(got) >> 32);
                const unsigned long sequence = number(got) & 0xffffffffu;
                if (producer >= producers || sequence == 0 || sequence > perProducer) {
                    outOfOrder.fetch_add(1);
                    continue;
                }
                if (sequence <= last[producer]) outOfOrder.fetch_add(1);
                last[producer] = sequence;
                seen[producer * perProducer + sequence - 1].fetch_add(1, std::memory_order_relaxed);
                ++mine;
            }
            received.fetch_add(mine);
            passOnWakeUp(queue, queue.notEmpty);
        });
    }
    std::vector<std::thread> producerThreads;
    for (unsigned p = 0; p < producers; ++p) {
        producerThreads.emplace_back([&, p] {
            for (unsigned long sequence = 1; sequence <= perProducer; ++sequence) queue.enqueue(stressItem(p, sequence));
            passOnWakeUp(queue, queue.notFull);
        });
    }
    for (auto& thread : producerThreads) thread.join();
    for (unsigned c = 0; c < consumers; ++c) queue.enqueue(nullptr);
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(received.load(), stressItems);
    EXPECT_EQ(outOfOrder.load(), 0u);
    unsigned long missing = 0;
    unsigned long duplicated = 0;
    for (auto& counter : seen) {
        const unsigned char times = counter.load(std::memory_order_relaxed);
        if (times == 0) ++missing;
        if (times > 1) ++duplicated;
    }
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(duplicated, 0u);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.waitingReaders, 0u);
    EXPECT_EQ(queue.waitingWriters, 0u);
}

TEST(QelCondQueueStress, EnqueueAndRemoveAgainstConsumersNeverDuplicates) {
    // Producers that never wait: what they push into a full queue replaces the
    // oldest element, so items may be lost but none may come out twice, and
    // the survivors of one producer still come out in order.
    constexpr unsigned producers = 2;
    constexpr unsigned consumers = 2;
    constexpr unsigned long perProducer = stressItems / 10 / producers;

    QelCondQueue queue(8);
    std::vector<std::atomic<unsigned char>> seen(perProducer * producers);
    for (auto& counter : seen) counter.store(0, std::memory_order_relaxed);
    std::atomic<unsigned long> outOfOrder{0};
    std::atomic<unsigned long> received{0};
    std::vector<std::thread> consumerThreads;
    for (unsigned c = 0; c < consumers; ++c) {
        consumerThreads.emplace_back([&] {
            unsigned long last[producers] = {};
            for (;;) {
                void* got = queue.dequeue();
                if (got == nullptr) break;
                const unsigned producer = static_cast<unsigned>(number(got) >> 32);
                const unsigned long sequence = number(got) & 0xffffffffu;
                if (sequence <= last[producer]) outOfOrder.fetch_add(1);
                last[producer] = sequence;
                seen[producer * perProducer + sequence - 1].fetch_add(1, std::memory_order_relaxed);
                received.fetch_add(1);
            }
            passOnWakeUp(queue, queue.notEmpty);
        });
    }
    std::vector<std::thread> producerThreads;
    for (unsigned p = 0; p < producers; ++p) {
        producerThreads.emplace_back([&, p] {
            for (unsigned long sequence = 1; sequence <= perProducer; ++sequence)
                queue.enqueue_and_remove(stressItem(p, sequence));
        });
    }
    for (auto& thread : producerThreads) thread.join();
    // The stop marks go in with enqueue, which never drops anything.
    for (unsigned c = 0; c < consumers; ++c) queue.enqueue(nullptr);
    for (auto& thread : consumerThreads) thread.join();

    EXPECT_EQ(outOfOrder.load(), 0u);
    unsigned long duplicated = 0;
    for (auto& counter : seen)
        if (counter.load(std::memory_order_relaxed) > 1) ++duplicated;
    EXPECT_EQ(duplicated, 0u);
    EXPECT_GT(received.load(), 0u);
    EXPECT_LE(received.load(), perProducer * producers);
}
