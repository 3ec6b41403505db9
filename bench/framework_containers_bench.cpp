/*
 * The timer heap and the reference table, beside what the standard library offers for the same.
 */
#include <condition_variable>
#include <memory>
#include <mutex>
#include <queue>
#include <random>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "framework/heap.h"
#include "framework/ref.h"

namespace
{
struct COurHeap {
    CHeap objHeap{1024};
    void Insert(CHeapElem *i_pElem) { objHeap.Insert(i_pElem); }
    CHeapElem *ExtractMin() { return objHeap.ExtractMin(); }
};

struct CStdHeap {
    struct CLater {
        bool operator()(const CHeapElem *i_pOne, const CHeapElem *i_pOther) const
        {
            return i_pOne->GetValue() > i_pOther->GetValue();
        }
    };
    std::priority_queue<CHeapElem *, std::vector<CHeapElem *>, CLater> objHeap;
    void Insert(CHeapElem *i_pElem) { objHeap.push(i_pElem); }
    CHeapElem *ExtractMin()
    {
        CHeapElem *pElem = objHeap.top();
        objHeap.pop();
        return pElem;
    }
};

/* So many timers with random deadlines go in, and come out in their order. */
template <typename Heap> void FillAndDrain(benchmark::State &io_objState)
{
    std::vector<CHeapElem> objElems(static_cast<std::size_t>(io_objState.range(0)));
    std::mt19937_64 objRandom(1);
    for (CHeapElem &objElem : objElems) {
        objElem.SetValue(static_cast<SInt64>(objRandom() >> 1));
    }
    for (auto _ : io_objState) {
        Heap objHeap;
        for (CHeapElem &objElem : objElems) {
            objHeap.Insert(&objElem);
        }
        for (std::size_t i = 0; i < objElems.size(); i++) {
            benchmark::DoNotOptimize(objHeap.ExtractMin());
        }
    }
    io_objState.SetItemsProcessed(io_objState.iterations() * io_objState.range(0));
}
BENCHMARK(FillAndDrain<COurHeap>)
    ->Name("heap/fill_drain/ours")
    ->RangeMultiplier(10)
    ->Range(1000, 1000000);
BENCHMARK(FillAndDrain<CStdHeap>)
    ->Name("heap/fill_drain/std")
    ->RangeMultiplier(10)
    ->Range(1000, 1000000);

/* The table as the event thread has it: names are the bytes of ids that are given in turn. */
class COurTable
{
public:
    void Add(UInt64 *i_pName)
    {
        CPLString objName(reinterpret_cast<char *>(i_pName), sizeof(*i_pName));
        m_pRefs.push_back(std::make_unique<CRef>(objName, i_pName));
        m_objTable.Register(m_pRefs.back().get());
    }
    void *Use(UInt64 *i_pName)
    {
        CPLString objName(reinterpret_cast<char *>(i_pName), sizeof(*i_pName));
        CRef *pRef = m_objTable.Resolve(&objName);
        void *pObject = pRef->GetObject();
        m_objTable.Release(pRef);
        return pObject;
    }

private:
    CRefTable m_objTable{1193};
    std::vector<std::unique_ptr<CRef>> m_pRefs;
};

/* The same promise: nobody takes an entry away while its count is above 0. */
class CStdTable
{
public:
    void Add(UInt64 *i_pName) { m_objMap[Name(i_pName)].pObject = i_pName; }
    void *Use(UInt64 *i_pName)
    {
        CEntry *pEntry = nullptr;
        {
            std::lock_guard objLock(m_objMutex);
            auto objFound = m_objMap.find(Name(i_pName));
            if (objFound == m_objMap.end()) {
                return nullptr;
            }
            pEntry = &objFound->second;
            pEntry->u32Count++;
        }
        void *pObject = pEntry->pObject;
        std::lock_guard objLock(m_objMutex);
        pEntry->u32Count--;
        pEntry->objDropped.notify_one();
        return pObject;
    }

private:
    struct CEntry {
        void *pObject = nullptr;
        UInt32 u32Count = 0;
        std::condition_variable objDropped;
    };
    static std::string_view Name(const UInt64 *i_pName)
    {
        return {reinterpret_cast<const char *>(i_pName), sizeof(*i_pName)};
    }
    std::mutex m_objMutex;
    std::unordered_map<std::string_view, CEntry> m_objMap;
};

template <typename Table> void ResolveAndRelease(benchmark::State &io_objState)
{
    std::vector<UInt64> u64Names(static_cast<std::size_t>(io_objState.range(0)));
    Table objTable;
    for (std::size_t i = 0; i < u64Names.size(); i++) {
        u64Names[i] = i + 2;
        objTable.Add(&u64Names[i]);
    }
    std::size_t u64Next = 0;
    for (auto _ : io_objState) {
        benchmark::DoNotOptimize(objTable.Use(&u64Names[u64Next]));
        u64Next = u64Next + 1 < u64Names.size() ? u64Next + 1 : 0;
    }
}
BENCHMARK(ResolveAndRelease<COurTable>)->Name("ref_table/use/ours")->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(ResolveAndRelease<CStdTable>)->Name("ref_table/use/std")->Arg(10)->Arg(100)->Arg(1000);
} // namespace
