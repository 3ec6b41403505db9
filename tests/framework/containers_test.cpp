/*
 * The intrusive containers, each against the simplest structure that obeys the same rules, under
 * random operations. The seed of a failing run is printed.
 */
#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/clock.h"
#include "framework/heap.h"
#include "framework/queue.h"
#include "framework/ref.h"

namespace
{
using Random = std::mt19937;

template <typename Step> void Repeat(int i_s32Times, Step i_objStep)
{
    const unsigned u32Seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(u32Seed));
    Random objRandom(u32Seed);
    for (int i = 0; i < i_s32Times && !testing::Test::HasFatalFailure(); i++) {
        i_objStep(objRandom);
    }
}

std::deque<CQueueElem *> Walk(CQueue &i_objQueue)
{
    std::deque<CQueueElem *> pElems;
    for (CQueueIter objIter(&i_objQueue); !objIter.IsDone(); objIter.Next()) {
        pElems.push_back(objIter.GetCurrent());
    }
    return pElems;
}

/* The heap's rules as they are told: swaps on a plain array. */
class CHeapModel
{
public:
    std::vector<CHeapElem *> m_pSlots{nullptr};

    void Insert(CHeapElem *i_pElem)
    {
        m_pSlots.push_back(i_pElem);
        for (size_t i = m_pSlots.size() - 1; i > 1 && Less(i, i / 2); i /= 2) {
            std::swap(m_pSlots[i], m_pSlots[i / 2]);
        }
    }

    CHeapElem *Extract(size_t i_u64Index)
    {
        if (i_u64Index < 1 || i_u64Index >= m_pSlots.size()) {
            return nullptr;
        }
        CHeapElem *pVictim = std::exchange(m_pSlots[i_u64Index], m_pSlots.back());
        m_pSlots.pop_back();
        for (size_t i = i_u64Index, u64Smallest = i;; i = u64Smallest) {
            u64Smallest = Less(2 * i, u64Smallest) ? 2 * i : u64Smallest;
            u64Smallest = Less(2 * i + 1, u64Smallest) ? 2 * i + 1 : u64Smallest;
            if (u64Smallest == i) {
                return pVictim;
            }
            std::swap(m_pSlots[i], m_pSlots[u64Smallest]);
        }
    }

private:
    bool Less(size_t i, size_t j) const
    {
        return i < m_pSlots.size() && m_pSlots[i]->GetValue() < m_pSlots[j]->GetValue();
    }
};

CPLString View(std::string &i_strText)
{
    return CPLString(i_strText.data(), static_cast<UInt32>(i_strText.size()));
}
} // namespace

TEST(Queue, FollowsADequeUnderRandomOperations)
{
    CQueueElem aPool[20];
    CQueue objQueue; /* goes before its elements, and must let go of them */
    std::deque<CQueueElem *> objModel;
    Repeat(20000, [&](Random &io_objRandom) {
        CQueueElem *pElem = &aPool[io_objRandom() % std::size(aPool)];
        switch (io_objRandom() % 3) {
        case 0:
            objQueue.EnQueue(pElem);
            if (std::find(objModel.begin(), objModel.end(), pElem) == objModel.end()) {
                objModel.push_back(pElem);
            }
            break;
        case 1:
            ASSERT_EQ(objQueue.DeQueue(), objModel.empty() ? nullptr : objModel.front());
            objModel.erase(objModel.begin(), objModel.begin() + !objModel.empty());
            break;
        default:
            objQueue.Remove(pElem);
            std::erase(objModel, pElem);
        }
        ASSERT_EQ(Walk(objQueue), objModel);
        ASSERT_EQ(objQueue.GetLength(), objModel.size());
    });
    objQueue.EnQueue(&aPool[0]);
}

TEST(QueueDeathTest, ForeignAndNullElementsAndEarlyDestructionAreFatal)
{
    CQueue objQueue, objOther;
    auto pElem = std::make_unique<CQueueElem>();
    EXPECT_DEATH(objQueue.EnQueue(nullptr), "`i_pElem != NULL'");
    EXPECT_DEATH(objQueue.Remove(nullptr), "`i_pElem != NULL'");
    objQueue.EnQueue(pElem.get());
    EXPECT_DEATH(objOther.EnQueue(pElem.get()), "`i_pElem->m_pQueue == NULL'");
    EXPECT_DEATH(objQueue.Remove(pElem->Prev()), "`i_pElem != &m_objSentinel'");
    EXPECT_DEATH(pElem.reset(), "`m_pQueue == NULL'");
    objOther.Remove(pElem.get());
    EXPECT_EQ(objQueue.GetLength(), 1u);
    objQueue.Remove(pElem.get());
}

TEST(BlockingQueue, AnEarlyWakeUpEndsTheOneWaitWithNothing)
{
    CQueue_Blocking objQueue;
    SInt64 s64Before = GetTimeInMs();
    EXPECT_EQ(objQueue.DeQueueBlocking(nullptr, 30), nullptr);
    EXPECT_GE(GetTimeInMs() - s64Before, 27);
    std::atomic<bool> bDone{false};
    std::thread objWaiter([&] {
        EXPECT_EQ(objQueue.DeQueueBlocking(nullptr, 0), nullptr);
        bDone = true;
    });
    while (!bDone) {
        objQueue.GetCond()->Signal();
        std::this_thread::yield();
    }
    objWaiter.join();
}

TEST(Heap, FollowsItsRulesUnderRandomOperations)
{
    std::vector<CHeapElem> objPool(300);
    CHeap objHeap(0);
    CHeapModel objModel;
    Repeat(60000, [&](Random &io_objRandom) {
        CHeapElem *pElem = &objPool[io_objRandom() % objPool.size()];
        auto &pSlots = objModel.m_pSlots;
        const size_t u64Place = std::find(pSlots.begin() + 1, pSlots.end(), pElem) - pSlots.begin();
        const bool bInside = u64Place < pSlots.size();
        const size_t u64Index = io_objRandom() % 320;
        ASSERT_EQ(pElem->IsMemberOfAnyHeap(), bInside);
        switch (io_objRandom() % 5) {
        case 0:
            ASSERT_EQ(objHeap.ExtractMin(), objModel.Extract(1));
            break;
        case 1:
            ASSERT_EQ(objHeap.Extract(static_cast<UInt32>(u64Index)), objModel.Extract(u64Index));
            break;
        case 2:
            ASSERT_EQ(objHeap.Remove(pElem), objModel.Extract(u64Place));
            break;
        default:
            if (!bInside) {
                pElem->SetValue(static_cast<SInt64>(io_objRandom() % 50) - 25);
                objHeap.Insert(pElem);
                objModel.Insert(pElem);
            }
        }
        ASSERT_EQ(objHeap.CurrentHeapSize(), pSlots.size() - 1);
        ASSERT_EQ(objHeap.PeekMin(), pSlots.size() > 1 ? pSlots[1] : nullptr);
    });
}

TEST(RefTable, HashTakesFiveBytesAsUnsignedTimesTheLength)
{
    for (auto [strText, u32Hash] : std::vector<std::pair<std::string, UInt32>>{
             {"abcd", 1976}, {"a", 485}, {std::string(8, '\xFF'), 10200}}) {
        CPLString objText = View(strText);
        EXPECT_EQ(CRefTableUtils::HashString(&objText), u32Hash);
    }
    char szText[] = "x";
    CPLString objNull, objEmpty(szText, 0);
    EXPECT_DEATH(CRefTableUtils::HashString(nullptr), "`i_pPLString != NULL'");
    EXPECT_DEATH(CRefTableUtils::HashString(&objNull), "`i_pPLString->m_pPtr != NULL'");
    EXPECT_DEATH(CRefTableUtils::HashString(&objEmpty), "`i_pPLString->m_u32Len > 0'");
}

TEST(RefTable, RegistersNamesOnceAndSwapsInPlace)
{
    std::string strName = "one";
    int s32First = 0, s32Second = 0;
    CRef objFirst(View(strName), &s32First), objTwin(View(strName), &s32Second);
    CRefTable objTable(7);
    CPLString objName = View(strName);
    EXPECT_EQ(objTable.Resolve(&objName), nullptr);
    EXPECT_EQ(objTable.RegisterOrResolve(&objFirst), nullptr);
    EXPECT_EQ(objTable.Register(&objTwin), 1);
    EXPECT_EQ(objTable.RegisterOrResolve(&objTwin), &objFirst);
    EXPECT_FALSE(objTable.TryUnRegister(&objFirst, 0));
    objTable.Release(&objFirst);

    objTable.Swap(&objTwin);
    CRef *pFound = objTable.Resolve(&objName);
    ASSERT_EQ(pFound, &objTwin);
    EXPECT_EQ(pFound->GetObject(), &s32Second);
    EXPECT_TRUE(objTable.TryUnRegister(&objTwin, 1));
    objTable.Release(&objTwin);
    EXPECT_EQ(objTable.Resolve(&objName), nullptr);
    EXPECT_EQ(objTable.Register(&objFirst), 0);
}
