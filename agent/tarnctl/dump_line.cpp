#include "agent/tarnctl/dump_line.h"

#include "agent/tarnctl/json.h"
#include "agent/tarnctl/text.h"

namespace tarnctl
{
namespace
{
constexpr std::size_t TimeLength = std::string_view("2026/03/05 09:07:02").size();

// Takes text apart from its front; once something is not there, everything further fails.
class Reader
{
public:
    explicit Reader(std::string_view rest) : rest_(rest) {}

    void Skip(std::string_view expected)
    {
        good_ = good_ && rest_.starts_with(expected);
        rest_.remove_prefix(good_ ? expected.size() : 0);
    }

    std::string_view Take(std::size_t length)
    {
        good_ = good_ && rest_.size() >= length;
        const std::string_view taken = rest_.substr(0, good_ ? length : 0);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    // What stands before the end mark, which is passed over.
    std::string_view Before(std::string_view mark)
    {
        const std::size_t position = rest_.find(mark);
        good_ = good_ && position != std::string_view::npos;
        const std::string_view taken = Take(good_ ? position : 0);
        Skip(mark);
        return taken;
    }

    std::uint64_t NumberBefore(std::string_view mark)
    {
        const std::optional<std::uint64_t> value = ParseNumber(Before(mark));
        good_ = good_ && value.has_value();
        return value.value_or(0);
    }

    std::string_view Rest() const { return rest_; }
    bool Good() const { return good_; }

private:
    std::string_view rest_;
    bool good_ = true;
};

// "NAME (PID)] ": the name may hold brackets itself, so it ends at the process's second appearance or not at all.
struct Process
{
    std::string_view Name;
    std::uint64_t Id = 0;
};

Process TakeProcess(Reader& reader, std::string_view mark)
{
    const std::string_view whole = reader.Before(mark);
    const std::size_t open = whole.rfind(" (");
    if (open == std::string_view::npos)
    {
        return {whole, 0};
    }
    return {whole.substr(0, open), ParseNumber(whole.substr(open + 2)).value_or(0)};
}
}

std::string LineOf(std::u16string_view message)
{
    const std::size_t end = message.find_last_not_of(std::u16string_view(u"\r\n\0", 3));
    return ToUtf8(message.substr(0, end == std::u16string_view::npos ? 0 : end + 1));
}

std::string DumpLineJson(const std::string& line)
{
    Reader reader(line);
    reader.Skip("0|");
    const std::string_view time = reader.Take(TimeLength);
    reader.Skip(" [");
    const Process process = TakeProcess(reader, ")] tid=");
    const std::uint64_t threadId = reader.NumberBefore(" ");
    reader.Before(" : ");
    const std::string_view level = reader.Before(" [");
    TakeProcess(reader, ")] ");
    if (!reader.Good())
    {
        return JsonObject().Text("message", line).Line();
    }
    return JsonObject()
        .Text("time", time)
        .Text("process", process.Name)
        .Number("pid", process.Id)
        .Number("tid", threadId)
        .Text("level", level)
        .Text("message", reader.Rest())
        .Line();
}
}
