// What the platform answered, one line of text per question, in memory until it is written to a file.
#pragma once

#include <ntifs.h>

namespace questions
{
// How a value is shown.
struct Hex
{
    ULONGLONG Value;
};
struct Status
{
    NTSTATUS Value;
};
// The bytes of a buffer without those at its end that still have the pattern it was filled with; see Fill.
struct Written
{
    const void* Buffer;
    SIZE_T Bytes;
};
// UTF-16 units; what is not printable ASCII is shown by number. A null text is shown as such.
struct Text
{
    const WCHAR* Units;
    SIZE_T Count;
};
// An address, of which only whether it is null says anything.
struct Address
{
    const volatile void* Value;
};

constexpr UCHAR UntouchedByte = 0xA5;

// Gives the buffer the pattern that Written looks for.
inline void Fill(void* buffer, SIZE_T bytes)
{
    RtlFillMemory(buffer, bytes, UntouchedByte);
}

// Lines of the form "QUESTION: ANSWER". A question stands once, and depends on nothing that the platform answered, so
// that two platforms can be compared question by question. PASSIVE_LEVEL, one thread.
class Answers
{
public:
    // The handle of an open file, which stays the caller's.
    explicit Answers(HANDLE file);
    ~Answers();
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    // One line; the first of the parts that contains ": " ends the question.
    template <class... Parts>
    void Line(const Parts&... parts)
    {
        (Add(parts), ...);
        AddCharacter('\n');
        WriteWhenFull();
    }
    // Writes what has gathered.
    void Flush();
    // Of the first write that failed.
    NTSTATUS WriteStatus() const { return writeStatus_; }

private:
    void AddCharacter(char character);
    void AddHex(ULONGLONG value, ULONG digits);
    void Add(const char* text);
    void Add(unsigned long long number);
    void Add(long long number);
    void Add(unsigned long number) { Add(static_cast<unsigned long long>(number)); }
    void Add(unsigned int number) { Add(static_cast<unsigned long long>(number)); }
    void Add(unsigned short number) { Add(static_cast<unsigned long long>(number)); }
    void Add(long number) { Add(static_cast<long long>(number)); }
    void Add(int number) { Add(static_cast<long long>(number)); }
    void Add(short number) { Add(static_cast<long long>(number)); }
    void Add(bool value) { Add(value ? "yes" : "no"); }
    void Add(Hex value) { AddHex(value.Value, 4); }
    void Add(Status status) { AddHex(static_cast<ULONG>(status.Value), 8); }
    void Add(const Written& written);
    void Add(const Text& text);
    void Add(Address address) { Add(address.Value == nullptr ? "null" : "not null"); }
    void WriteWhenFull();

    static constexpr SIZE_T Capacity = 1 << 16;
    HANDLE file_;
    char* buffer_;
    SIZE_T used_ = 0;
    LARGE_INTEGER offset_ = {};
    NTSTATUS writeStatus_ = STATUS_SUCCESS;
};
}
