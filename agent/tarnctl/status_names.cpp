#include "agent/tarnctl/status_names.h"

#include "agent/tarnctl/failure.h"

#include <cstdio>

namespace tarnctl
{
namespace
{
struct NamedStatus
{
    std::uint32_t Value;
    std::string_view Name;
};

constexpr NamedStatus Names[] = {
    {StatusSuccess, "STATUS_SUCCESS"},
    {0x80000005, "STATUS_BUFFER_OVERFLOW"},
    {StatusNoMoreEntries, "STATUS_NO_MORE_ENTRIES"},
    {0xC0000001, "STATUS_UNSUCCESSFUL"},
    {0xC0000002, "STATUS_NOT_IMPLEMENTED"},
    {0xC0000005, "STATUS_ACCESS_VIOLATION"},
    {0xC0000008, "STATUS_INVALID_HANDLE"},
    {0xC000000D, "STATUS_INVALID_PARAMETER"},
    {0xC000000E, "STATUS_NO_SUCH_DEVICE"},
    {0xC000000F, "STATUS_NO_SUCH_FILE"},
    {0xC0000010, "STATUS_INVALID_DEVICE_REQUEST"},
    {0xC0000017, "STATUS_NO_MEMORY"},
    {0xC0000022, "STATUS_ACCESS_DENIED"},
    {StatusBufferTooSmall, "STATUS_BUFFER_TOO_SMALL"},
    {0xC0000024, "STATUS_OBJECT_TYPE_MISMATCH"},
    {0xC0000033, "STATUS_OBJECT_NAME_INVALID"},
    {0xC0000034, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {0xC0000035, "STATUS_OBJECT_NAME_COLLISION"},
    {0xC000003A, "STATUS_OBJECT_PATH_NOT_FOUND"},
    {0xC000003B, "STATUS_OBJECT_PATH_SYNTAX_BAD"},
    {0xC0000043, "STATUS_SHARING_VIOLATION"},
    {0xC0000056, "STATUS_DELETE_PENDING"},
    {0xC000009A, "STATUS_INSUFFICIENT_RESOURCES"},
    {0xC00000A0, "STATUS_MEMORY_NOT_ALLOCATED"},
    {0xC00000BB, "STATUS_NOT_SUPPORTED"},
    {0xC0000225, "STATUS_NOT_FOUND"},
};
}

std::string_view StatusName(std::uint32_t status)
{
    for (const NamedStatus& entry : Names)
    {
        if (entry.Value == status)
        {
            return entry.Name;
        }
    }
    return {};
}

std::string StatusNumber(std::uint32_t status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::string StatusText(std::uint32_t status)
{
    const std::string_view name = StatusName(status);
    return name.empty() ? StatusNumber(status) : std::string(name) + " (" + StatusNumber(status) + ")";
}

Refusal::Refusal(const char* request, std::uint32_t status)
    : Failure(ExitCode::Refused, std::string(request) + " was refused: " + StatusText(status)), request_(request),
      status_(status)
{
}
}
