#include "tests/conformance/platform/questions/answers.h"

namespace questions
{
namespace
{
constexpr ULONG Tag = 'snAq';
}

Answers::Answers(HANDLE file)
    : file_(file), buffer_(static_cast<char*>(ExAllocatePoolWithTag(PagedPool, Capacity, Tag)))
{
    if (buffer_ == nullptr)
    {
        writeStatus_ = STATUS_INSUFFICIENT_RESOURCES;
    }
}

Answers::~Answers()
{
    if (buffer_ != nullptr)
    {
        ExFreePoolWithTag(buffer_, Tag);
    }
}

void Answers::AddCharacter(char character)
{
    if (used_ == Capacity)
    {
        Flush();
    }
    if (buffer_ != nullptr)
    {
        buffer_[used_++] = character;
    }
}

// At least that many digits.
void Answers::AddHex(ULONGLONG value, ULONG digits)
{
    ULONG count = digits;
    while (count < 16 && value >> (4 * count) != 0)
    {
        ++count;
    }
    while (count-- != 0)
    {
        AddCharacter("0123456789abcdef"[value >> (4 * count) & 15]);
    }
}

void Answers::Add(const char* text)
{
    while (*text != 0)
    {
        AddCharacter(*text++);
    }
}

void Answers::Add(unsigned long long number)
{
    char digits[20];
    SIZE_T count = 0;
    do
    {
        digits[count++] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    while (count != 0)
    {
        AddCharacter(digits[--count]);
    }
}

void Answers::Add(long long number)
{
    const auto bits = static_cast<ULONGLONG>(number);
    if (number < 0)
    {
        AddCharacter('-');
    }
    Add(number < 0 ? 0 - bits : bits);
}

void Answers::Add(const Written& written)
{
    const auto* bytes = static_cast<const UCHAR*>(written.Buffer);
    SIZE_T count = written.Bytes;
    while (count != 0 && bytes[count - 1] == UntouchedByte)
    {
        --count;
    }
    AddCharacter('[');
    for (SIZE_T index = 0; index < count; ++index)
    {
        AddHex(bytes[index], 2);
    }
    AddCharacter(']');
}

void Answers::Add(const Text& text)
{
    if (text.Units == nullptr)
    {
        Add("no text");
        return;
    }
    AddCharacter('"');
    for (SIZE_T index = 0; index < text.Count; ++index)
    {
        const auto unit = static_cast<USHORT>(text.Units[index]);
        if (unit >= ' ' && unit < 0x7F && unit != '<')
        {
            AddCharacter(static_cast<char>(unit));
        }
        else
        {
            AddCharacter('<');
            AddHex(unit, 4);
            AddCharacter('>');
        }
    }
    AddCharacter('"');
}

void Answers::WriteWhenFull()
{
    if (used_ > Capacity / 2)
    {
        Flush();
    }
}

void Answers::Flush()
{
    IO_STATUS_BLOCK result = {};
    NTSTATUS status = STATUS_SUCCESS;
    if (used_ != 0)
    {
        status = ZwWriteFile(
            file_, nullptr, nullptr, nullptr, &result, buffer_, static_cast<ULONG>(used_), &offset_, nullptr);
    }
    offset_.QuadPart += static_cast<LONGLONG>(used_);
    used_ = 0;
    if (NT_SUCCESS(writeStatus_))
    {
        writeStatus_ = status;
    }
}
}
