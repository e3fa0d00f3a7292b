#include "kvx/foundation/Lockable.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

TEST(Lockable, BlocksWhateverTheTimeOut)
{
    CLockable const lock;
    lock.Lock(0);
    lock.Lock(0); // re-entrant
    bool bLocked = false;
    int nGuarded = 0;
    std::thread other(
        [&]
        {
            bLocked = lock.Lock(0) == 1;
            nGuarded *= 2;
            lock.Unlock();
        });
    Sleep(20);
    nGuarded = 21;
    lock.Unlock();
    lock.Unlock();
    other.join();
    EXPECT_TRUE(bLocked);
    EXPECT_EQ(nGuarded, 42);
}

TEST(MRSWLockable, AWriterWaitsForReadersAndHoldsOffNewOnes)
{
    CMRSWLockable lock;
    std::optional<CMRSWLockable::CReadLock> first(std::in_place, &lock);
    std::optional<CMRSWLockable::CReadLock> second(std::in_place, &lock);
    std::atomic<int> nOrder{0};
    std::atomic<int> nWritten{0};
    std::atomic<int> nRead{0};
    std::thread writer(
        [&]
        {
            CMRSWLockable::CWriteLock const write(&lock);
            CMRSWLockable::CReadLock const own(&lock); // which a writer may have
            Sleep(30);                                 // the third reader arrives meanwhile, if not before
            nWritten = ++nOrder;
        });
    // The writer is in when nobody else can take the lock.
    CRITICAL_SECTION * const section = *static_cast<CCriticalSection *>(static_cast<CSyncObject *>(lock));
    while (TryEnterCriticalSection(section))
    {
        LeaveCriticalSection(section);
        std::this_thread::yield();
    }
    std::thread reader(
        [&]
        {
            CMRSWLockable::CReadLock const read(&lock);
            nRead = ++nOrder;
        });
    first.reset();
    Sleep(30);
    EXPECT_EQ(nOrder, 0); // one reader is still inside
    second.reset();
    writer.join();
    reader.join();
    EXPECT_EQ(nWritten, 1);
    EXPECT_EQ(nRead, 2);
}
