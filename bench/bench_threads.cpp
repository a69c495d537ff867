// Throughput of the thread utilities.
//
// CondQueuePairs/N: items per second through one QelCondQueue (64 slots) with
// N producer threads and N consumer threads; each iteration moves 200,000
// items and starts and joins its threads, so thread start-up is included (it
// is small next to the items). Wall-clock time: the measuring thread only
// waits.
//
// SharedLock*: shared acquire + release per second, QelAccessControlBase
// (getSharedLock/freeSharedLock) beside std::shared_mutex
// (lock_shared/unlock_shared), on 1 and 2 threads sharing one lock.
//
// SharedLockRatio: both locks measured alternately in one benchmark on one
// thread, so the ratio is taken under the same conditions. Counters:
//   qel_per_s   shared acquire + release per second, QelAccessControlBase
//   std_per_s   the same for std::shared_mutex
//   std_per_qel how many std::shared_mutex pairs fit in the time of one
//               QelAccessControlBase pair
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "qelAccessControl.h"
#include "qelCondQueue.h"

namespace {

constexpr unsigned long itemsPerIteration = 200000;

// The queue wakes one waiter per transition; a thread that leaves for good
// passes the wake-up on so that a peer of its kind does not stay waiting on a
// queue that is no longer full (or empty).
void passOnWakeUp(QelCondQueue& queue, pthread_cond_t& condition) {
    pthread_mutex_lock(&queue.mutex);
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&queue.mutex);
}

void CondQueuePairs(benchmark::State& state) {
    const unsigned pairs = static_cast<unsigned>(state.range(0));
    const unsigned long perProducer = itemsPerIteration / pairs;
    unsigned long moved = 0;
    for (auto _ : state) {
        QelCondQueue queue(64);
        std::vector<std::thread> consumers;
        std::vector<unsigned long> received(pairs, 0);
        for (unsigned c = 0; c < pairs; ++c) {
            consumers.emplace_back([&, c] {
                unsigned long n = 0;
                while (queue.dequeue() != nullptr) ++n;
                received[c] = n;
                passOnWakeUp(queue, queue.notEmpty);
            });
        }
        std::vector<std::thread> producers;
        for (unsigned p = 0; p < pairs; ++p) {
            producers.emplace_back([&] {
                for (uintptr_t i = 1; i <= perProducer; ++i) queue.enqueue(reinterpret_cast<void*>(i));
                passOnWakeUp(queue, queue.notFull);
            });
        }
        for (auto& thread : producers) thread.join();
        for (unsigned c = 0; c < pairs; ++c) queue.enqueue(nullptr);
        for (auto& thread : consumers) thread.join();
        for (unsigned long n : received) moved += n;
    }
    if (moved != perProducer * pairs * state.iterations()) state.SkipWithError("items were lost");
    state.SetItemsProcessed(static_cast<int64_t>(moved));
}
BENCHMARK(CondQueuePairs)->Arg(1)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

QelAccessControlBase& sharedAccessControl() {
    static QelAccessControlBase lock;
    return lock;
}

std::shared_mutex& sharedStdMutex() {
    static std::shared_mutex lock;
    return lock;
}

void SharedLockQel(benchmark::State& state) {
    QelAccessControlBase& lock = sharedAccessControl();
    for (auto _ : state) {
        bool got = lock.getSharedLock();
        benchmark::DoNotOptimize(got);
        lock.freeSharedLock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SharedLockQel)->Threads(1)->Threads(2)->UseRealTime();

void SharedLockStd(benchmark::State& state) {
    std::shared_mutex& lock = sharedStdMutex();
    for (auto _ : state) {
        lock.lock_shared();
        benchmark::ClobberMemory();
        lock.unlock_shared();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SharedLockStd)->Threads(1)->Threads(2)->UseRealTime();

void SharedLockRatio(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    constexpr int batch = 10000;
    QelAccessControlBase qel;
    std::shared_mutex stdLock;
    Clock::duration qelTime{};
    Clock::duration stdTime{};
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int i = 0; i < batch; ++i) {
            bool got = qel.getSharedLock();
            benchmark::DoNotOptimize(got);
            qel.freeSharedLock();
        }
        const auto middle = Clock::now();
        for (int i = 0; i < batch; ++i) {
            stdLock.lock_shared();
            benchmark::ClobberMemory();
            stdLock.unlock_shared();
        }
        stdTime += Clock::now() - middle;
        qelTime += middle - start;
    }
    const double pairs = static_cast<double>(state.iterations()) * batch;
    const double qelSeconds = std::chrono::duration<double>(qelTime).count();
    const double stdSeconds = std::chrono::duration<double>(stdTime).count();
    state.counters["qel_per_s"] = pairs / qelSeconds;
    state.counters["std_per_s"] = pairs / stdSeconds;
    state.counters["std_per_qel"] = qelSeconds / stdSeconds;
}
BENCHMARK(SharedLockRatio);

}  // namespace
