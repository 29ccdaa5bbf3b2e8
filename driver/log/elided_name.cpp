#include "driver/log/elided_name.h"

namespace
{
constexpr USHORT SmallestRoom = 16;
constexpr WCHAR Ellipsis[] = L" ... ";
constexpr USHORT EllipsisBytes = sizeof(Ellipsis) - sizeof(UNICODE_NULL);

void CopyBytes(PUNICODE_STRING destination, const void* source, USHORT bytes)
{
    RtlCopyMemory(reinterpret_cast<PUCHAR>(destination->Buffer) + destination->Length, source, bytes);
    destination->Length = static_cast<USHORT>(destination->Length + bytes);
}
}

NTSTATUS CopyNameElided(PUNICODE_STRING destination, PCUNICODE_STRING source)
{
    USHORT room = destination->MaximumLength;
    destination->Length = 0;
    if (room < SmallestRoom)
    {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (source->Length <= room)
    {
        CopyBytes(destination, source->Buffer, source->Length);
        return STATUS_SUCCESS;
    }
    USHORT head = static_cast<USHORT>((room / 2 & ~1) - 4);
    USHORT tail = static_cast<USHORT>(room - head - EllipsisBytes);
    CopyBytes(destination, source->Buffer, head);
    CopyBytes(destination, Ellipsis, EllipsisBytes);
    CopyBytes(destination, reinterpret_cast<const UCHAR*>(source->Buffer) + source->Length - tail, tail);
    return STATUS_SUCCESS;
}
