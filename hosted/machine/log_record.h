// The driver's log records as an agent reads them.
#pragma once

#include <ntifs.h>

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace hosted
{
// Texts in UTF-8, up to their NUL.
struct LogRecord
{
    ULONG Level = 0;
    ULONG ProcessId = 0;
    std::string ProcessName;
    std::string Message;

    bool operator==(const LogRecord&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const LogRecord& record);

// Whole records; bytes behind the last whole one are left alone.
std::vector<LogRecord> DecodeLogRecords(std::string_view bytes);
}
