#include "olk_spinlock.h"

#include "mapping_spy.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <type_traits>

namespace {

using trace = std::vector<std::string>;

struct counting_lock {
    int locked = 0;
    int unlocked = 0;

    void lock() { ++locked; }
    void unlock() { ++unlocked; }
};

TEST(Spinlock, IsOneWordOfTheThreadLibrary) {
    EXPECT_EQ(sizeof(olk::spinlock), sizeof(pthread_spinlock_t));
}

TEST(Spinlock, IsPrivateToTheProcess) {
    spy::watch watch(spy::scope::memory_and_locks);
    olk::spinlock lock;
    ASSERT_EQ(watch.calls().size(), 1u);
    EXPECT_EQ(watch.calls()[0].what, spy::kind::spin_init);
    EXPECT_EQ(watch.calls()[0].value, size_t{PTHREAD_PROCESS_PRIVATE});
}

TEST(Spinlock, UsesTheSpinlockOfTheThreadLibrary) {
    spy::watch watch(spy::scope::memory_and_locks);
    {
        olk::spinlock lock;
        lock.lock();
        lock.unlock();
    }
    EXPECT_EQ(watch.trace(), (trace{"init", "lock", "unlock", "destroy"}));
}

TEST(Spinlock, TryLockTakesAFreeLockOnly) {
    olk::spinlock lock;
    EXPECT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(Spinlock, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<olk::spinlock>);
    EXPECT_FALSE(std::is_copy_assignable_v<olk::spinlock>);
}

TEST(Spinlock, IsHeldByOnlyOneOfEightThreadsAtATime) {
    constexpr int threads = 8;
    constexpr int rounds = 2000;
    olk::spinlock lock;
    int plain_count = 0;
    std::vector<std::thread> crowd;
    for (int t = 0; t < threads; ++t)
        crowd.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                olk::scoped_lock_<olk::spinlock> guard(&lock);
                ++plain_count;
            }
        });
    for (std::thread& t : crowd)
        t.join();
    EXPECT_EQ(plain_count, threads * rounds);
}

TEST(ScopedLock, LocksOnEntryAndUnlocksAtTheEndOfTheScope) {
    counting_lock lock;
    {
        olk::scoped_lock_<counting_lock> guard(&lock);
        EXPECT_EQ(lock.locked, 1);
        EXPECT_EQ(lock.unlocked, 0);
    }
    EXPECT_EQ(lock.locked, 1);
    EXPECT_EQ(lock.unlocked, 1);
}

TEST(ScopedLock, UnlocksOnAnEarlyReturn) {
    counting_lock lock;
    const auto leaves_early = [&lock](bool early) {
        olk::scoped_lock_<counting_lock> guard(&lock);
        if (early)
            return 1;
        return 2;
    };
    EXPECT_EQ(leaves_early(true), 1);
    EXPECT_EQ(lock.unlocked, 1);
}

TEST(ScopedLock, UnlocksWhenAnExceptionIsThrown) {
    counting_lock lock;
    const auto throws = [&lock] {
        olk::scoped_lock_<counting_lock> guard(&lock);
        throw std::runtime_error("leaves the scope");
    };
    EXPECT_THROW(throws(), std::runtime_error);
    EXPECT_EQ(lock.unlocked, 1);
}

TEST(ScopedLock, ANullLockIsAcceptedAndNothingIsLocked) {
    spy::watch watch(spy::scope::memory_and_locks);
    { olk::scoped_lock_<olk::spinlock> guard(nullptr); }
    EXPECT_EQ(watch.trace(), trace{});
}

}  // namespace
