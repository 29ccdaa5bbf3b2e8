#include "hosted/machine/log_record.h"

#include "hosted/rtl/wide_string.h"

#include <tarnveil/control.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace hosted
{
static_assert(sizeof(TARNVEIL_LOG_RECORD) == TARNVEIL_LOG_RECORD_BYTES);

namespace
{
template <size_t Count>
std::string Text(const TARNVEIL_WCHAR (&field)[Count])
{
    WideString text;
    std::copy(field, std::find(field, field + Count, 0), std::back_inserter(text));
    return Narrow(text);
}
}

std::ostream& operator<<(std::ostream& stream, const LogRecord& record)
{
    return stream << "{level 0x" << std::hex << record.Level << std::dec << ", process " << record.ProcessId << " \""
                  << record.ProcessName << "\": \"" << record.Message << "\"}";
}

std::vector<LogRecord> DecodeLogRecords(std::string_view bytes)
{
    std::vector<LogRecord> records;
    for (size_t at = 0; at + sizeof(TARNVEIL_LOG_RECORD) <= bytes.size(); at += sizeof(TARNVEIL_LOG_RECORD))
    {
        TARNVEIL_LOG_RECORD record;
        std::memcpy(&record, bytes.data() + at, sizeof(record));
        records.push_back({record.Level, record.ProcessId, Text(record.ProcessName), Text(record.Message)});
    }
    return records;
}
}
