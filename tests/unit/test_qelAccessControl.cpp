// QelAccessControlBase and QelAccessControl with real threads. A thread is
// known to be blocked when the lock's own waiter counters say so (read under
// the lock's mutex); nothing here sleeps to wait for a thread.
#include "qelAccessControl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "threadTestSupport.h"

namespace {

const char* const alreadyHoldsThisLock =
    "QelAccessControlBase::getExclusiveLock() : Thread already holds this lock";
const char* const alreadyHoldsExclusive = "Thread already holds exclusive lock";
const char* const noSharedLockSet = "QelAccessControlBase::freeSharedLock() : no shared lock set.";
const char* const doesNotHoldExclusive =
    "QelAccessControlBase::freeExclusiveLock() : Thread does not hold exclusive lock";

using threadTest::eventually;

bool waitingReaders(QelAccessControlBase& lock, int n) {
    return eventually(lock, [n](QelAccessControlBase& l) { return l.waitingReaders == n; });
}

bool waitingWriters(QelAccessControlBase& lock, int n) {
    return eventually(lock, [n](QelAccessControlBase& l) { return l.waitingWriters == n; });
}

unsigned long id(pthread_t thread) { return static_cast<unsigned long>(thread); }

size_t holdsOf(QelAccessControlBase& lock, pthread_t thread) {
    pthread_mutex_lock(&lock.mutex);
    const size_t n = static_cast<size_t>(std::count(lock.readers.begin(), lock.readers.end(), id(thread)));
    pthread_mutex_unlock(&lock.mutex);
    return n;
}

pthread_t writerOf(QelAccessControlBase& lock) {
    pthread_mutex_lock(&lock.mutex);
    const pthread_t writer = lock.writer;
    pthread_mutex_unlock(&lock.mutex);
    return writer;
}

// The mutex is free again: misuse errors give it back before they are thrown.
bool mutexIsFree(QelAccessControlBase& lock) {
    if (pthread_mutex_trylock(&lock.mutex) != 0) return false;
    pthread_mutex_unlock(&lock.mutex);
    return true;
}

// A one-shot gate between threads.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> guard(mutex_);
        cond_.wait(guard, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

// A thread that takes a hold, reports it, and keeps it until released.
class Holder {
public:
    Holder(QelAccessControlBase& lock, bool exclusive) : lock_(lock), exclusive_(exclusive) {
        thread_ = std::thread([this] {
            got_ = exclusive_ ? lock_.getExclusiveLock() : lock_.getSharedLock();
            self_ = pthread_self();
            holding_.open();
            release_.wait();
            if (got_) exclusive_ ? lock_.freeExclusiveLock() : lock_.freeSharedLock();
        });
        holding_.wait();
    }
    ~Holder() { release(); }
    void release() {
        if (!thread_.joinable()) return;
        release_.open();
        thread_.join();
    }
    bool got() const { return got_; }
    pthread_t self() const { return self_; }

private:
    QelAccessControlBase& lock_;
    bool exclusive_;
    bool got_ = false;
    pthread_t self_{};
    Gate holding_;
    Gate release_;
    std::thread thread_;
};

template <class Error>
void expectErrorShape(const Error& error, const std::string& text) {
    EXPECT_EQ(error.errorText, text);
    EXPECT_EQ(error.fileName, "qelAccessControl");
    EXPECT_GT(error.lineNumber, 0u);
    EXPECT_STREQ(static_cast<const std::exception&>(error).what(), "");
}

// Runs `call` and returns the QelAccessControlError it throws ("" text and
// line 0 when it throws nothing).
template <class Call>
QelAccessControlError thrownBy(Call call) {
    try {
        call();
    } catch (const QelAccessControlError& error) {
        return error;
    }
    return QelAccessControlError("", "", 0);
}

}  // namespace

// ------------------------------------------------------------------ errors and construction

TEST(QelAccessControlError, KeepsMessageFileAndLineWithEmptyBaseText) {
    const QelAccessControlError error("Unable to get read Lock", "qelAccessControl", 9);
    EXPECT_EQ(error.errorText, "Unable to get read Lock");
    EXPECT_EQ(error.fileName, "qelAccessControl");
    EXPECT_EQ(error.lineNumber, 9u);
    EXPECT_STREQ(static_cast<const std::exception&>(error).what(), "");
    const QelAccessControlError copy(error);
    EXPECT_EQ(copy.errorText, error.errorText);
    EXPECT_EQ(copy.fileName, error.fileName);
    EXPECT_EQ(copy.lineNumber, error.lineNumber);
}

TEST(QelAccessControlBase, StartsFreeWithNoWaiters) {
    QelAccessControlBase lock;
    EXPECT_EQ(lock.waitingReaders, 0);
    EXPECT_EQ(lock.waitingWriters, 0);
    EXPECT_FALSE(lock.reserved);
    EXPECT_EQ(lock.writer, pthread_t{});
    EXPECT_TRUE(lock.readers.empty());
    EXPECT_TRUE(mutexIsFree(lock));
}

// ------------------------------------------------------------------ shared holds

TEST(QelAccessControlBase, SharedLockIsRecordedWithTheHoldersThreadId) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    ASSERT_EQ(lock.readers.size(), 1u);
    EXPECT_EQ(lock.readers.front(), id(pthread_self()));
    lock.freeSharedLock();
    EXPECT_TRUE(lock.readers.empty());
}

TEST(QelAccessControlBase, SharedLockTakenTwiceMustBeFreedTwice) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    ASSERT_TRUE(lock.getSharedLock());
    EXPECT_EQ(holdsOf(lock, pthread_self()), 2u);
    lock.freeSharedLock();
    EXPECT_EQ(holdsOf(lock, pthread_self()), 1u);
    lock.freeSharedLock();
    EXPECT_EQ(holdsOf(lock, pthread_self()), 0u);
    expectErrorShape(thrownBy([&] { lock.freeSharedLock(); }), noSharedLockSet);
}

TEST(QelAccessControlBase, SeveralThreadsHoldTheLockSharedAtOnce) {
    QelAccessControlBase lock;
    Holder first(lock, false);
    Holder second(lock, false);
    ASSERT_TRUE(first.got());
    ASSERT_TRUE(second.got());
    ASSERT_TRUE(lock.getSharedLock());
    EXPECT_EQ(holdsOf(lock, first.self()), 1u);
    EXPECT_EQ(holdsOf(lock, second.self()), 1u);
    EXPECT_EQ(holdsOf(lock, pthread_self()), 1u);
    lock.freeSharedLock();
    first.release();
    second.release();
    EXPECT_TRUE(lock.readers.empty());
}

TEST(QelAccessControlBase, FreeSharedLockWithoutAHoldThrowsWhileOtherThreadsHoldIt) {
    QelAccessControlBase lock;
    Holder first(lock, false);
    Holder second(lock, false);
    expectErrorShape(thrownBy([&] { lock.freeSharedLock(); }), noSharedLockSet);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_EQ(holdsOf(lock, first.self()), 1u);
    EXPECT_EQ(holdsOf(lock, second.self()), 1u);
}

TEST(QelAccessControlBase, SharedLockWhileHoldingExclusiveThrows) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    bool ignored = false;
    expectErrorShape(thrownBy([&] { ignored = lock.getSharedLock(); }), alreadyHoldsExclusive);
    EXPECT_FALSE(ignored);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_TRUE(lock.readers.empty());
    EXPECT_TRUE(pthread_equal(writerOf(lock), pthread_self()));
    lock.freeExclusiveLock();
}

// ------------------------------------------------------------------ exclusive holds

TEST(QelAccessControlBase, ExclusiveLockRecordsTheWriter) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    EXPECT_TRUE(pthread_equal(lock.writer, pthread_self()));
    EXPECT_TRUE(lock.readers.empty());
    lock.freeExclusiveLock();
    EXPECT_EQ(lock.writer, pthread_t{});
}

TEST(QelAccessControlBase, ExclusiveLockWhileHoldingSharedThrowsInsteadOfWaitingForItself) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    bool ignored = false;
    expectErrorShape(thrownBy([&] { ignored = lock.getExclusiveLock(); }), alreadyHoldsThisLock);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_EQ(lock.waitingWriters, 0);
    EXPECT_EQ(lock.writer, pthread_t{});
    EXPECT_EQ(holdsOf(lock, pthread_self()), 1u);
    lock.freeSharedLock();
}

TEST(QelAccessControlBase, ExclusiveLockTwiceThrows) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    bool ignored = false;
    expectErrorShape(thrownBy([&] { ignored = lock.getExclusiveLock(); }), alreadyHoldsThisLock);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_TRUE(pthread_equal(writerOf(lock), pthread_self()));
    lock.freeExclusiveLock();
}

TEST(QelAccessControlBase, FreeExclusiveLockWithoutTheHoldThrows) {
    QelAccessControlBase lock;
    expectErrorShape(thrownBy([&] { lock.freeExclusiveLock(); }), doesNotHoldExclusive);
    EXPECT_TRUE(mutexIsFree(lock));

    Holder other(lock, true);
    ASSERT_TRUE(other.got());
    expectErrorShape(thrownBy([&] { lock.freeExclusiveLock(); }), doesNotHoldExclusive);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_TRUE(pthread_equal(writerOf(lock), other.self()));
}

TEST(QelAccessControlBase, FreeExclusiveLockByASharedHolderThrows) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    expectErrorShape(thrownBy([&] { lock.freeExclusiveLock(); }), doesNotHoldExclusive);
    lock.freeSharedLock();
}

// ------------------------------------------------------------------ waiting and wake-ups

TEST(QelAccessControlBase, ExclusiveLockWaitsForTheReadersToLeave) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    std::atomic<bool> got{false};
    std::thread writer([&] {
        got = lock.getExclusiveLock();
        lock.freeExclusiveLock();
    });
    ASSERT_TRUE(waitingWriters(lock, 1));
    EXPECT_FALSE(got.load());
    lock.freeSharedLock();
    writer.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(lock.waitingWriters, 0);
}

TEST(QelAccessControlBase, LastLeavingReaderWakesTheWaitingWriter) {
    QelAccessControlBase lock;
    Holder first(lock, false);
    Holder second(lock, false);
    std::atomic<bool> got{false};
    std::thread writer([&] {
        got = lock.getExclusiveLock();
        lock.freeExclusiveLock();
    });
    ASSERT_TRUE(waitingWriters(lock, 1));
    first.release();
    // One reader is still in: the writer keeps waiting.
    EXPECT_TRUE(waitingWriters(lock, 1));
    EXPECT_FALSE(got.load());
    second.release();
    writer.join();
    EXPECT_TRUE(got.load());
}

TEST(QelAccessControlBase, SharedLockWaitsWhileAWriterHoldsIt) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    std::atomic<bool> got{false};
    std::thread reader([&] {
        got = lock.getSharedLock();
        lock.freeSharedLock();
    });
    ASSERT_TRUE(waitingReaders(lock, 1));
    EXPECT_FALSE(got.load());
    lock.freeExclusiveLock();
    reader.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(lock.waitingReaders, 0);
}

TEST(QelAccessControlBase, AWaitingWriterDoesNotKeepNewReadersOut) {
    QelAccessControlBase lock;
    Holder reader(lock, false);
    std::atomic<bool> got{false};
    std::thread writer([&] {
        got = lock.getExclusiveLock();
        lock.freeExclusiveLock();
    });
    ASSERT_TRUE(waitingWriters(lock, 1));
    // Only a writer that holds the lock blocks readers.
    ASSERT_TRUE(lock.getSharedLock());
    EXPECT_EQ(lock.waitingReaders, 0);
    EXPECT_FALSE(got.load());
    lock.freeSharedLock();
    reader.release();
    writer.join();
    EXPECT_TRUE(got.load());
}

TEST(QelAccessControlBase, LeavingWriterHandsTheLockToAWaitingWriterBeforeWaitingReaders) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    std::atomic<bool> readerGot{false};
    Gate writerMayLeave;
    pthread_t writerSelf{};
    std::thread reader([&] {
        readerGot = lock.getSharedLock();
        lock.freeSharedLock();
    });
    ASSERT_TRUE(waitingReaders(lock, 1));
    std::thread writer([&] {
        writerSelf = pthread_self();
        if (lock.getExclusiveLock()) {
            writerMayLeave.wait();
            lock.freeExclusiveLock();
        }
    });
    ASSERT_TRUE(waitingWriters(lock, 1));

    lock.freeExclusiveLock();
    ASSERT_TRUE(eventually(lock, [](QelAccessControlBase& l) { return l.writer != pthread_t{}; }));
    EXPECT_TRUE(pthread_equal(writerOf(lock), writerSelf));
    EXPECT_TRUE(waitingReaders(lock, 1));
    EXPECT_FALSE(readerGot.load());

    // With no writer waiting any more, the leaving writer lets the readers in.
    writerMayLeave.open();
    writer.join();
    reader.join();
    EXPECT_TRUE(readerGot.load());
}

TEST(QelAccessControlBase, LeavingWriterLetsAllWaitingReadersIn) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    std::atomic<int> inside{0};
    Gate leave;
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            if (!lock.getSharedLock()) return;
            ++inside;
            leave.wait();
            lock.freeSharedLock();
        });
    }
    ASSERT_TRUE(waitingReaders(lock, 3));
    lock.freeExclusiveLock();
    // All three are in at the same time.
    EXPECT_TRUE(eventually(lock, [](QelAccessControlBase& l) { return l.readers.size() == 3; }));
    leave.open();
    for (auto& thread : readers) thread.join();
    EXPECT_EQ(inside.load(), 3);
    EXPECT_TRUE(lock.readers.empty());
}

// ------------------------------------------------------------------ convertLock

TEST(QelAccessControlBase, ConvertLockTurnsASingleSharedHoldIntoTheExclusiveHold) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    EXPECT_TRUE(lock.convertLock());
    EXPECT_TRUE(lock.readers.empty());
    EXPECT_TRUE(pthread_equal(lock.writer, pthread_self()));
    lock.freeExclusiveLock();
    EXPECT_EQ(lock.writer, pthread_t{});
}

TEST(QelAccessControlBase, ConvertLockWithTwoSharedHoldsReturnsFalseAndKeepsBoth) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    ASSERT_TRUE(lock.getSharedLock());
    EXPECT_FALSE(lock.convertLock());
    EXPECT_EQ(holdsOf(lock, pthread_self()), 2u);
    EXPECT_EQ(lock.writer, pthread_t{});
    EXPECT_EQ(lock.waitingWriters, 0);
    EXPECT_TRUE(mutexIsFree(lock));
    lock.freeSharedLock();
    lock.freeSharedLock();
    expectErrorShape(thrownBy([&] { lock.freeSharedLock(); }), noSharedLockSet);
}

TEST(QelAccessControlBase, ConvertLockWithoutAnyHoldTakesTheExclusiveHold) {
    QelAccessControlBase lock;
    EXPECT_TRUE(lock.convertLock());
    EXPECT_TRUE(pthread_equal(lock.writer, pthread_self()));
    lock.freeExclusiveLock();
}

TEST(QelAccessControlBase, ConvertLockByTheExclusiveHolderKeepsTheHold) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getExclusiveLock());
    EXPECT_TRUE(lock.convertLock());
    EXPECT_TRUE(pthread_equal(lock.writer, pthread_self()));
    EXPECT_TRUE(mutexIsFree(lock));
    lock.freeExclusiveLock();
    EXPECT_EQ(lock.writer, pthread_t{});
}

TEST(QelAccessControlBase, ConvertLockWhileAnotherThreadHoldsExclusiveThrowsTheFreeSharedLockMessage) {
    QelAccessControlBase lock;
    Holder other(lock, true);
    ASSERT_TRUE(other.got());
    bool ignored = false;
    expectErrorShape(thrownBy([&] { ignored = lock.convertLock(); }), noSharedLockSet);
    EXPECT_TRUE(mutexIsFree(lock));
    EXPECT_TRUE(pthread_equal(writerOf(lock), other.self()));
}

TEST(QelAccessControlBase, ConvertLockWaitsForTheOtherReaders) {
    QelAccessControlBase lock;
    ASSERT_TRUE(lock.getSharedLock());
    std::atomic<bool> converted{false};
    Gate converterMayLeave;
    pthread_t converterSelf{};
    std::thread converter([&] {
        converterSelf = pthread_self();
        if (!lock.getSharedLock()) return;
        converted = lock.convertLock();
        if (converted) {
            converterMayLeave.wait();
            lock.freeExclusiveLock();
        }
    });
    ASSERT_TRUE(waitingWriters(lock, 1));
    EXPECT_FALSE(converted.load());
    // The converter gave up its shared hold while it waits.
    EXPECT_EQ(holdsOf(lock, converterSelf), 0u);
    lock.freeSharedLock();
    ASSERT_TRUE(eventually(lock, [](QelAccessControlBase& l) { return l.writer != pthread_t{}; }));
    EXPECT_TRUE(pthread_equal(writerOf(lock), converterSelf));
    converterMayLeave.open();
    converter.join();
    EXPECT_TRUE(converted.load());
    EXPECT_EQ(lock.writer, pthread_t{});
}

// ------------------------------------------------------------------ QelAccessControl

TEST(QelAccessControl, SharedHolderTakesAndReleasesASharedHold) {
    QelAccessControlBase lock;
    {
        QelAccessControl hold(&lock, false);
        EXPECT_FALSE(hold.exclusive);
        EXPECT_EQ(hold.base, &lock);
        EXPECT_EQ(holdsOf(lock, pthread_self()), 1u);
        EXPECT_EQ(writerOf(lock), pthread_t{});
    }
    EXPECT_TRUE(lock.readers.empty());
}

TEST(QelAccessControl, ExclusiveHolderTakesAndReleasesTheExclusiveHold) {
    QelAccessControlBase lock;
    {
        QelAccessControl hold(&lock, true);
        EXPECT_TRUE(hold.exclusive);
        EXPECT_EQ(hold.base, &lock);
        EXPECT_TRUE(pthread_equal(writerOf(lock), pthread_self()));
    }
    EXPECT_EQ(lock.writer, pthread_t{});
}

TEST(QelAccessControl, NestedSharedHoldersOnOneThread) {
    QelAccessControlBase lock;
    {
        QelAccessControl outer(&lock, false);
        QelAccessControl inner(&lock, false);
        EXPECT_EQ(holdsOf(lock, pthread_self()), 2u);
    }
    EXPECT_TRUE(lock.readers.empty());
}

TEST(QelAccessControl, ErrorsOfTheBasePropagateUnchanged) {
    QelAccessControlBase lock;
    {
        QelAccessControl shared(&lock, false);
        expectErrorShape(thrownBy([&] { QelAccessControl exclusive(&lock, true); }), alreadyHoldsThisLock);
    }
    {
        QelAccessControl exclusive(&lock, true);
        expectErrorShape(thrownBy([&] { QelAccessControl shared(&lock, false); }), alreadyHoldsExclusive);
    }
    EXPECT_TRUE(lock.readers.empty());
    EXPECT_EQ(lock.writer, pthread_t{});
}

TEST(QelAccessControl, ErrorsOfTheReleaseLeaveTheDestructor) {
    QelAccessControlBase lock;
    alignas(QelAccessControl) unsigned char storage[sizeof(QelAccessControl)];
    auto* shared = new (storage) QelAccessControl(&lock, false);
    lock.freeSharedLock();  // the holder's hold is gone behind its back
    expectErrorShape(thrownBy([&] { shared->~QelAccessControl(); }), noSharedLockSet);

    auto* exclusive = new (storage) QelAccessControl(&lock, true);
    lock.freeExclusiveLock();
    expectErrorShape(thrownBy([&] { exclusive->~QelAccessControl(); }), doesNotHoldExclusive);
}

// ------------------------------------------------------------------ destruction

namespace {

// Storage for a lock that is destroyed on one thread while others still use
// it: the memory stays valid for the whole test, whatever the destructor does.
struct LockStorage {
    alignas(QelAccessControlBase) unsigned char bytes[sizeof(QelAccessControlBase)];
    QelAccessControlBase* construct() { return new (bytes) QelAccessControlBase(); }
};

// What a waiting thread ended with.
struct Outcome {
    bool returned = false;  // the acquiring call returned (true or false)
    bool acquired = false;  // ... and gave the hold
    bool threw = false;
    std::string text;
};

}  // namespace

TEST(QelAccessControlBase, DestructorWaitsForTheCurrentHoldersToLeave) {
    LockStorage storage;
    QelAccessControlBase* lock = storage.construct();
    ASSERT_TRUE(lock->getSharedLock());
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        lock->~QelAccessControlBase();
        destroyed = true;
    });
    ASSERT_TRUE(waitingWriters(*lock, 1));
    EXPECT_FALSE(destroyed.load());
    lock->freeSharedLock();
    destroyer.join();
    EXPECT_TRUE(destroyed.load());
}

namespace {

// A writer holds the lock, `waiter` blocks for a shared hold, and another
// thread destroys the lock. The destructor waits for the writer (it is then
// the only thread waiting on the writers' condition), so the writer's release
// wakes the destructor, which cancels the reader.
template <class Waiter>
Outcome destroyWhileAReaderWaits(Waiter waiter) {
    LockStorage storage;
    QelAccessControlBase* lock = storage.construct();
    Outcome outcome;
    EXPECT_TRUE(lock->getExclusiveLock());
    std::thread reader([&] { waiter(*lock, outcome); });
    EXPECT_TRUE(waitingReaders(*lock, 1));
    std::thread destroyer([&] { lock->~QelAccessControlBase(); });
    EXPECT_TRUE(waitingWriters(*lock, 1));
    // From here on the lock may be gone at any moment: no more looking at it.
    lock->freeExclusiveLock();
    destroyer.join();
    reader.join();
    return outcome;
}

// The same for a thread that waits for the exclusive hold (or to convert).
// Writers and the destructor all wait on one condition, and the release wakes
// only one of them. The destructor starts waiting first and glibc wakes the
// longest waiter, but that order is not promised, so when the waiter got the
// lock instead the scenario is run again.
template <class Waiter>
Outcome destroyWhileAWriterWaits(Waiter waiter, bool waiterHoldsShared) {
    Outcome outcome;
    for (int attempt = 0; attempt < 20; ++attempt) {
        LockStorage storage;
        QelAccessControlBase* lock = storage.construct();
        outcome = Outcome();
        Gate waiterHolding;
        Gate waiterGo;
        // The holder the destructor has to wait for: this thread, shared when
        // the waiter converts (its own shared hold must not be the last one),
        // exclusive otherwise.
        if (waiterHoldsShared) {
            EXPECT_TRUE(lock->getSharedLock());
        } else {
            EXPECT_TRUE(lock->getExclusiveLock());
        }
        std::thread writer([&] {
            if (waiterHoldsShared && !lock->getSharedLock()) return;
            waiterHolding.open();
            waiterGo.wait();
            waiter(*lock, outcome);
        });
        waiterHolding.wait();
        std::thread destroyer([&] { lock->~QelAccessControlBase(); });
        EXPECT_TRUE(waitingWriters(*lock, 1));
        waiterGo.open();
        EXPECT_TRUE(waitingWriters(*lock, 2));
        if (waiterHoldsShared) {
            lock->freeSharedLock();
        } else {
            lock->freeExclusiveLock();
        }
        destroyer.join();
        writer.join();
        if (!outcome.acquired) break;
    }
    return outcome;
}

}  // namespace

TEST(QelAccessControlBase, DestroyingTheLockMakesAWaitingGetSharedLockReturnFalse) {
    const Outcome outcome = destroyWhileAReaderWaits([](QelAccessControlBase& lock, Outcome& out) {
        out.acquired = lock.getSharedLock();
        out.returned = true;
    });
    EXPECT_TRUE(outcome.returned);
    EXPECT_FALSE(outcome.acquired);
}

TEST(QelAccessControl, DestroyingTheLockWhileAReaderWaitsThrowsUnableToGetReadLock) {
    const Outcome outcome = destroyWhileAReaderWaits([](QelAccessControlBase& lock, Outcome& out) {
        try {
            QelAccessControl hold(&lock, false);
            out.acquired = true;
        } catch (const QelAccessControlError& error) {
            out.threw = true;
            out.text = error.errorText;
            EXPECT_EQ(error.fileName, "qelAccessControl");
        }
    });
    EXPECT_TRUE(outcome.threw);
    EXPECT_EQ(outcome.text, "Unable to get read Lock");
}

TEST(QelAccessControlBase, DestroyingTheLockMakesAWaitingGetExclusiveLockReturnFalse) {
    const Outcome outcome = destroyWhileAWriterWaits(
        [](QelAccessControlBase& lock, Outcome& out) {
            out.acquired = lock.getExclusiveLock();
            out.returned = true;
            if (out.acquired) lock.freeExclusiveLock();
        },
        false);
    EXPECT_TRUE(outcome.returned);
    EXPECT_FALSE(outcome.acquired);
}

TEST(QelAccessControl, DestroyingTheLockWhileAWriterWaitsThrowsUnableToGetExclusiveLock) {
    const Outcome outcome = destroyWhileAWriterWaits(
        [](QelAccessControlBase& lock, Outcome& out) {
            try {
                QelAccessControl hold(&lock, true);
                out.acquired = true;
            } catch (const QelAccessControlError& error) {
                out.threw = true;
                out.text = error.errorText;
                EXPECT_EQ(error.fileName, "qelAccessControl");
            }
        },
        false);
    EXPECT_TRUE(outcome.threw);
    EXPECT_EQ(outcome.text, "Unable to get exclusive Lock");
}

TEST(QelAccessControlBase, DestroyingTheLockMakesAWaitingConvertLockReturnFalse) {
    const Outcome outcome = destroyWhileAWriterWaits(
        [](QelAccessControlBase& lock, Outcome& out) {
            out.acquired = lock.convertLock();
            out.returned = true;
            if (out.acquired) lock.freeExclusiveLock();
        },
        true);
    EXPECT_TRUE(outcome.returned);
    EXPECT_FALSE(outcome.acquired);
}

TEST(QelAccessControlBase, DestroyingTheLockCancelsEveryWaiter) {
    LockStorage storage;
    QelAccessControlBase* lock = storage.construct();
    ASSERT_TRUE(lock->getExclusiveLock());
    std::atomic<int> cancelled{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            if (!lock->getSharedLock()) ++cancelled;
            else lock->freeSharedLock();
        });
    }
    ASSERT_TRUE(waitingReaders(*lock, 3));
    std::thread destroyer([&] { lock->~QelAccessControlBase(); });
    ASSERT_TRUE(waitingWriters(*lock, 1));
    lock->freeExclusiveLock();
    destroyer.join();
    for (auto& thread : readers) thread.join();
    EXPECT_EQ(cancelled.load(), 3);
}

// ------------------------------------------------------------------ stress

namespace {

#ifdef QEL_UNDER_TSAN
constexpr int stressRounds = 10000;
#else
constexpr int stressRounds = 50000;
#endif

// Written only under the exclusive hold, read under a shared hold: if the lock
// ever let a writer in beside anyone else, the halves would disagree (and the
// thread sanitizer would see the race).
struct Guarded {
    unsigned long first = 0;
    unsigned long second = 0;
};

}  // namespace

TEST(QelAccessControlStress, ReadersAndWritersNeverOverlap) {
    constexpr int readers = 4;
    constexpr int writers = 2;
    QelAccessControlBase lock;
    Guarded data;
    std::atomic<int> readersInside{0};
    std::atomic<int> writersInside{0};
    std::atomic<unsigned long> violations{0};

    std::vector<std::thread> threads;
    for (int r = 0; r < readers; ++r) {
        threads.emplace_back([&, r] {
            for (int round = 0; round < stressRounds; ++round) {
                // Both ways of taking a hold are exercised.
                auto body = [&] {
                    ++readersInside;
                    if (writersInside.load() != 0) ++violations;
                    if (data.first != data.second) ++violations;
                    --readersInside;
                };
                if ((round + r) % 2 == 0) {
                    QelAccessControl hold(&lock, false);
                    body();
                } else {
                    if (!lock.getSharedLock()) {
                        ++violations;
                        return;
                    }
                    body();
                    lock.freeSharedLock();
                }
            }
        });
    }
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&, w] {
            for (int round = 0; round < stressRounds / 4; ++round) {
                auto body = [&] {
                    if (++writersInside != 1) ++violations;
                    if (readersInside.load() != 0) ++violations;
                    ++data.first;
                    std::this_thread::yield();
                    ++data.second;
                    --writersInside;
                };
                if ((round + w) % 2 == 0) {
                    QelAccessControl hold(&lock, true);
                    body();
                } else {
                    if (!lock.getExclusiveLock()) {
                        ++violations;
                        return;
                    }
                    body();
                    lock.freeExclusiveLock();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(violations.load(), 0u);
    EXPECT_EQ(data.first, static_cast<unsigned long>(writers * (stressRounds / 4)));
    EXPECT_EQ(data.second, data.first);
    EXPECT_TRUE(lock.readers.empty());
    EXPECT_EQ(lock.writer, pthread_t{});
    EXPECT_EQ(lock.waitingReaders, 0);
    EXPECT_EQ(lock.waitingWriters, 0);
}
