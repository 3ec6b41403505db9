/*
 * Message queue, mutex, atomics, timer heap, reference table and parameter file, each beside what a
 * programmer would take from a library today.
 */
#include <condition_variable>
#include <deque>
#include <mutex>
#include <queue>
#include <random>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "bench/subjects.h"
#include "common/box/param_table.h"
#include "common/bus/msg_queue.h"
#include "framework/atomic.h"
#include "framework/heap.h"
#include "framework/mutex.h"
#include "framework/ref.h"
#include "tests/support/temp_dir.h"

namespace
{
class CStdQueue
{
public:
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg)
    {
        {
            std::lock_guard objLock(m_objMutex);
            if (m_stMsgs.size() > 48) {
                return 0;
            }
            m_stMsgs.push_back(*i_pMsg);
        }
        m_objCond.notify_one();
        return 1;
    }
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg)
    {
        std::unique_lock objLock(m_objMutex);
        if (m_stMsgs.empty()) {
            m_objCond.wait_for(objLock, std::chrono::milliseconds(i_s32Timeout));
        }
        if (m_stMsgs.empty()) {
            return 0;
        }
        *o_pMsg = m_stMsgs.front();
        m_stMsgs.pop_front();
        return 1;
    }

private:
    std::mutex m_objMutex;
    std::condition_variable m_objCond;
    std::deque<MSG_DESC_INFO_S> m_stMsgs;
};

template <typename Queue> void PushPop(benchmark::State &io_objState)
{
    Queue objQueue;
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, 9, 2, 0x803);
    for (auto _ : io_objState) {
        for (SInt64 i = 0; i < io_objState.range(0); i++) {
            benchmark::DoNotOptimize(objQueue.PushMsg(&stMsg));
        }
        for (SInt64 i = 0; i < io_objState.range(0); i++) {
            benchmark::DoNotOptimize(objQueue.PopMsg(500, &stMsg));
        }
    }
}

struct OurMutex : CMutex {
    void lock() { Lock(); }
    void unlock() { Unlock(); }
};

/* range(0): whether the thread has the mutex already. */
template <typename Mutex> void LockUnlock(benchmark::State &io_objState)
{
    Mutex objMutex;
    std::unique_lock<Mutex> objOuter(objMutex, std::defer_lock);
    if (io_objState.range(0) != 0) {
        objOuter.lock();
    }
    for (auto _ : io_objState) {
        objMutex.lock();
        benchmark::ClobberMemory();
        objMutex.unlock();
    }
}

/* A call of a function as atomic_add is one. */
[[gnu::noinline]] UInt32 AddUnderMutex(UInt32 *i_pArea, SInt32 i_s32Amount)
{
    static std::mutex s_objMutex;
    std::lock_guard objLock(s_objMutex);
    return *i_pArea += static_cast<UInt32>(i_s32Amount);
}

template <UInt32 (*Add)(UInt32 *, SInt32)> void AddOne(benchmark::State &io_objState)
{
    UInt32 u32Word = 0;
    for (auto _ : io_objState) {
        benchmark::DoNotOptimize(Add(&u32Word, 1));
    }
}

struct COurHeap : CHeap {
    COurHeap() : CHeap(1024) {}
};

constexpr auto kLater = [](const CHeapElem *i_pOne, const CHeapElem *i_pOther) {
    return i_pOne->GetValue() > i_pOther->GetValue();
};

/* Keeps in the element that it is in a heap, as ours must: whoever cancels a timer asks for it. */
struct CStdHeap {
    std::priority_queue<CHeapElem *, std::vector<CHeapElem *>, decltype(kLater)> objHeap;
    void Insert(CHeapElem *i_pElem)
    {
        objHeap.push(i_pElem);
        i_pElem->SetEnclosingObject(this);
    }
    CHeapElem *ExtractMin()
    {
        CHeapElem *pElem = objHeap.top();
        objHeap.pop();
        pElem->SetEnclosingObject(nullptr);
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
}

/* The table as the event thread has it: names are the bytes of ids that are given in turn. */
class COurTable
{
public:
    void Add(UInt64 *i_pName)
    {
        CPLString objName(reinterpret_cast<char *>(i_pName), sizeof(*i_pName));
        m_objTable.Register(&m_objRefs.emplace_back(objName, i_pName));
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
    std::deque<CRef> m_objRefs;
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

/* So many elements; the known ones stand last, so that nothing ends the search early. */
std::string Params(SInt64 i_s64Elements)
{
    std::string strText = "<CONFIGURATION>\n    <CHANNEL_1>\n";
    auto Add = [&](const std::string &i_strName, const std::string &i_strValue) {
        strText += "        <PARAM NAME=\"" + i_strName + "\" TYPE=\"string\">" + i_strValue;
        strText += "</PARAM>\n";
    };
    for (SInt64 i = PARAM_COUNT; i < i_s64Elements; i++) {
        Add("unknown_parameter_" + std::to_string(i), "12345");
    }
    for (const PARAM_S &stRow : g_aParams) {
        Add(stRow.name, stRow.default_value[0] != '\0' ? stRow.default_value : "x");
    }
    return strText + "    </CHANNEL_1>\n</CONFIGURATION>\n";
}

bool LoadParameters(const char *i_pPath)
{
    RQ_XMLParser objParser(i_pPath);
    if (objParser.Parse() != 0 || objParser.LoadError()[0] != '\0') {
        return false;
    }
    ReadTheXML(objParser, false);
    return true;
}

bool BareParse(const char *i_pPath)
{
    tinyxml2::XMLDocument objDoc(true, tinyxml2::PRESERVE_WHITESPACE);
    return objDoc.LoadFile(i_pPath) == tinyxml2::XML_SUCCESS;
}

template <bool (*Load)(const char *)> void LoadFile(benchmark::State &io_objState)
{
    const CTempDir objFolder;
    const std::string strPath = objFolder.Path("param.xml");
    WriteFile(strPath, Params(io_objState.range(0)));
    for (auto _ : io_objState) {
        if (!Load(strPath.c_str())) {
            io_objState.SkipWithError("the file was not loaded");
            break;
        }
        benchmark::ClobberMemory();
    }
}
} // namespace

int main(int argc, char **argv)
{
    /* Until a first thread the C library's locks do without atomic instructions; the daemon's never
     * do. */
    std::thread([] {}).join();
    AddSubject("queue push and pop, depth 48", PushPop<CMsgQueue>,
               "std::mutex, std::deque, condition", PushPop<CStdQueue>, 0.75, 48);
    AddSubject("CMutex lock and unlock", LockUnlock<OurMutex>, "std::recursive_mutex",
               LockUnlock<std::recursive_mutex>, 1.05);
    AddSubject("CMutex nested", LockUnlock<OurMutex>, "std::recursive_mutex",
               LockUnlock<std::recursive_mutex>, 0.25, 1);
    AddSubject("atomic_add", AddOne<atomic_add>, "an add under std::mutex", AddOne<AddUnderMutex>,
               1.1);
    for (const int s32Timers : {1000, 1000000}) {
        AddSubject("heap filled and drained, " + std::to_string(s32Timers), FillAndDrain<COurHeap>,
                   "std::priority_queue", FillAndDrain<CStdHeap>, 1.05, s32Timers);
    }
    for (const int s32Entries : {10, 1000}) {
        AddSubject("reference resolved and released, " + std::to_string(s32Entries),
                   ResolveAndRelease<COurTable>, "std::unordered_map", ResolveAndRelease<CStdTable>,
                   s32Entries == 10 ? 1.1 : 1.25, s32Entries);
    }
    for (const int s32Elements : {37, 10000}) {
        AddSubject("parameter file, " + std::to_string(s32Elements) + " elements",
                   LoadFile<LoadParameters>, "bare tinyxml2 parse", LoadFile<BareParse>,
                   s32Elements == 37 ? 1.4 : 1.3, s32Elements);
    }
    return RunSubjects(argc, argv);
}
