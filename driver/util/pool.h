// Pool memory under the driver's one tag.
#pragma once

#include <ntifs.h>

// Reads "Tarv" in a pool dump.
inline constexpr ULONG DriverPoolTag = 'T' | 'a' << 8 | 'r' << 16 | static_cast<ULONG>('v') << 24;

// Set once at entry by InitializePoolPolicy, before anything is allocated; read without a lock ever after. Not part of
// the global state, which is cleared later.
extern POOL_TYPE DefaultPoolType;
extern ULONG DefaultMdlProtection;
extern BOOLEAN PoolZeroingNative;

// Asks the system which version it is and whether it zeroes pool by itself, and sets the three above.
// IRQL PASSIVE_LEVEL.
void InitializePoolPolicy();

// Zero-filled memory of that many bytes (more than 0) from the driver's pool type; null when there is none.
// IRQL up to DISPATCH_LEVEL.
PVOID AllocatePool(SIZE_T bytes);
// Null is allowed. IRQL up to DISPATCH_LEVEL.
void FreePool(PVOID memory);

// Owns one block of pool that begins with a T.
template <class T>
class PoolPointer
{
public:
    PoolPointer() = default;
    explicit PoolPointer(T* memory) : memory_(memory) {}
    PoolPointer(PoolPointer&& other) : memory_(other.Detach()) {}
    PoolPointer& operator=(PoolPointer&& other)
    {
        T* taken = other.Detach();
        FreePool(memory_);
        memory_ = taken;
        return *this;
    }
    PoolPointer(const PoolPointer&) = delete;
    PoolPointer& operator=(const PoolPointer&) = delete;
    ~PoolPointer() { FreePool(memory_); }

    static PoolPointer Allocate(SIZE_T bytes = sizeof(T)) { return PoolPointer(static_cast<T*>(AllocatePool(bytes))); }

    T* Get() const { return memory_; }
    T* operator->() const { return memory_; }
    T& operator[](SIZE_T index) const { return memory_[index]; }
    explicit operator bool() const { return memory_ != nullptr; }
    // Hands the block to the caller.
    T* Detach()
    {
        T* memory = memory_;
        memory_ = nullptr;
        return memory;
    }

private:
    T* memory_ = nullptr;
};
