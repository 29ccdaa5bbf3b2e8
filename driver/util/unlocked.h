// Loads and stores of fields that are shared without a lock on purpose: single words of which the last writer wins.
// A reader that sees a stored word also sees what its writer stored before it. Any IRQL.
#pragma once

template <class T>
inline T LoadUnlocked(const T& word)
{
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <class T>
inline void StoreUnlocked(T& word, T value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// True for the one caller that finds the flag clear; it is set afterwards.
template <class T>
inline bool ClaimUnlocked(T& flag)
{
    return __atomic_exchange_n(&flag, static_cast<T>(1), __ATOMIC_ACQ_REL) == 0;
}
