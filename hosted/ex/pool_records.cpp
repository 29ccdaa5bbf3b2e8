#include "hosted/ex/pool_records.h"

#include "hosted/ex/pool.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/system_model.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <map>
#include <mutex>
#include <vector>

// Present in sanitizer builds, where it gives function, file and line.
extern "C" __attribute__((weak)) void __sanitizer_symbolize_pc(void* pc, const char* format, char* out, size_t size);

namespace hosted
{
namespace
{
// Frames of the pool itself, which say nothing.
constexpr int OwnFrames = 2;

struct PoolState
{
    std::mutex Lock;
    std::map<ULONG_PTR, PoolRecord> Live;
    SIZE_T Bytes = 0;
    SIZE_T Peak = 0;
};

PoolState& Pool()
{
    static PoolState& state = *new PoolState;
    return state;
}

ULONG_PTR Key(const void* address)
{
    return reinterpret_cast<ULONG_PTR>(address);
}

std::string FrameText(void* frame)
{
    char text[512] = "";
    // A return address names the instruction after the call.
    void* call = static_cast<char*>(frame) - 1;
    if (__sanitizer_symbolize_pc != nullptr)
    {
        __sanitizer_symbolize_pc(call, "%f %s:%l", text, sizeof(text));
        return text;
    }
    char** symbols = backtrace_symbols(&call, 1);
    std::string result = symbols != nullptr ? symbols[0] : "?";
    free(symbols);
    return result;
}

std::string Describe(const PoolRecord& record)
{
    char line[96];
    snprintf(line, sizeof(line), "  %llu bytes at %p, allocated by\n", record.Block.Size,
        static_cast<void*>(record.Block.Address));
    std::string text = line;
    for (int i = OwnFrames; i < record.FrameCount; ++i)
    {
        text += "    " + FrameText(record.Frames[i]) + "\n";
    }
    return text;
}
}

TagText::TagText(ULONG tag)
{
    for (int i = 0; i < 4; ++i)
    {
        int character = static_cast<int>(tag >> (8 * i) & 0xff);
        Text[i] = isprint(character) ? static_cast<char>(character) : '.';
    }
    Text[4] = 0;
}

void AddPoolRecord(PoolRecord record)
{
    PoolState& pool = Pool();
    record.FrameCount = Model().WatchedPool ? backtrace(record.Frames, record.MostFrames) : 0;
    std::lock_guard lock(pool.Lock);
    pool.Live[Key(record.Block.Address)] = record;
    pool.Bytes += record.Block.Size;
    pool.Peak = std::max(pool.Peak, pool.Bytes);
}

bool FindPoolRecord(const void* address, PoolRecord* record)
{
    PoolState& pool = Pool();
    std::lock_guard lock(pool.Lock);
    auto found = pool.Live.find(Key(address));
    if (found == pool.Live.end())
    {
        return false;
    }
    *record = found->second;
    return true;
}

bool RemovePoolRecord(const void* address)
{
    PoolState& pool = Pool();
    std::lock_guard lock(pool.Lock);
    auto found = pool.Live.find(Key(address));
    if (found == pool.Live.end())
    {
        return false;
    }
    pool.Bytes -= found->second.Block.Size;
    pool.Live.erase(found);
    return true;
}

size_t LivePoolAllocations()
{
    std::lock_guard lock(Pool().Lock);
    return Pool().Live.size();
}

SIZE_T LivePoolBytes()
{
    std::lock_guard lock(Pool().Lock);
    return Pool().Bytes;
}

SIZE_T PeakPoolBytes()
{
    std::lock_guard lock(Pool().Lock);
    return Pool().Peak;
}

void ResetPeakPoolBytes()
{
    std::lock_guard lock(Pool().Lock);
    Pool().Peak = Pool().Bytes;
}

std::string DescribeLivePool()
{
    std::map<ULONG, std::vector<PoolRecord>> byTag;
    {
        std::lock_guard lock(Pool().Lock);
        for (const auto& [address, record] : Pool().Live)
        {
            byTag[record.Tag].push_back(record);
        }
    }
    std::string text;
    for (const auto& [tag, records] : byTag)
    {
        SIZE_T bytes = 0;
        std::string details;
        for (const PoolRecord& record : records)
        {
            bytes += record.Block.Size;
            details += Describe(record);
        }
        text += std::string(TagText(tag).Text) + ": " + std::to_string(records.size()) +
                (records.size() == 1 ? " allocation, " : " allocations, ") + std::to_string(bytes) + " bytes\n" +
                details;
    }
    return text;
}

bool IsPoolAddress(const void* address)
{
    PoolState& pool = Pool();
    std::lock_guard lock(pool.Lock);
    auto after = pool.Live.upper_bound(Key(address));
    if (after == pool.Live.begin())
    {
        return false;
    }
    const PoolBlock& block = std::prev(after)->second.Block;
    return Key(address) - Key(block.Address) < block.Size;
}

SIZE_T PoolAllocationSize(const void* address)
{
    PoolRecord record;
    if (!FindPoolRecord(address, &record))
    {
        BugCheck("pool-not-allocated", "no allocation starts at %p", address);
    }
    return record.Block.Size;
}
}
