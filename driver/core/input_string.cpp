#include "driver/core/input_string.h"

bool InputString::Take(const Request& request, ULONG offset)
{
    if (request.SystemBuffer == nullptr || request.InputLength < offset)
    {
        return true;
    }
    text_ = reinterpret_cast<PCWSTR>(static_cast<const UCHAR*>(request.SystemBuffer) + offset);
    ULONG characters = (request.InputLength - offset) / sizeof(WCHAR);
    if (IsTerminated(characters))
    {
        return true;
    }
    copy_ = PoolPointer<WCHAR>::Allocate((static_cast<SIZE_T>(characters) + 1) * sizeof(WCHAR));
    if (copy_)
    {
        RtlCopyMemory(copy_.Get(), text_, characters * sizeof(WCHAR));
    }
    text_ = copy_.Get();
    return text_ != nullptr;
}

bool InputString::IsTerminated(ULONG characters) const
{
    for (ULONG i = 0; i < characters; ++i)
    {
        if (text_[i] == UNICODE_NULL)
        {
            return true;
        }
    }
    return false;
}
