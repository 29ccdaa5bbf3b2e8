#include "tests/conformance/texts/source_literals.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>
#include <sstream>

namespace texts
{
namespace
{
class Scanner
{
public:
    explicit Scanner(const std::string& source) : source_(source) {}

    std::vector<Literal> Read()
    {
        while (at_ < source_.size())
        {
            if (SkipComment())
            {
                continue;
            }
            if (source_[at_] == '\'' && !IsWithinNumber())
            {
                SkipQuoted('\'');
            }
            else if (source_[at_] == '"')
            {
                TakeLiteral();
            }
            else
            {
                between_ += source_[at_++];
            }
        }
        return literals_;
    }

private:
    bool SkipComment()
    {
        if (source_.compare(at_, 2, "//") == 0)
        {
            at_ = std::min(source_.find('\n', at_), source_.size());
            return true;
        }
        if (source_.compare(at_, 2, "/*") == 0)
        {
            const size_t end = source_.find("*/", at_);
            at_ = end == std::string::npos ? source_.size() : end + 2;
            return true;
        }
        return false;
    }

    // As in 200'000.
    bool IsWithinNumber() const { return at_ > 0 && std::isdigit(static_cast<unsigned char>(source_[at_ - 1])) != 0; }

    std::string SkipQuoted(char quote)
    {
        const size_t first = ++at_;
        while (at_ < source_.size() && source_[at_] != quote)
        {
            at_ += source_[at_] == '\\' ? 2 : 1;
        }
        return source_.substr(first, at_++ - first);
    }

    void TakeLiteral()
    {
        Literal literal;
        literal.Wide = !between_.empty() && between_.back() == 'L';
        literal.Technical = IsTechnical();
        if (literal.Wide)
        {
            between_.pop_back();
        }
        literal.Text = SkipQuoted('"');
        const bool adjacent = std::all_of(
            between_.begin(), between_.end(), [](unsigned char character) { return std::isspace(character) != 0; });
        if (adjacent && !literals_.empty())
        {
            literals_.back().Text += literal.Text;
        }
        else
        {
            literal.Continues = !literals_.empty() && !literals_.back().Technical && BetweenContinues();
            literals_.push_back(literal);
        }
        between_.clear();
    }

    bool IsTechnical() const
    {
        const size_t line = between_.find_last_of('\n') + 1;
        const std::string before = between_.substr(line);
        return before.find("#include") != std::string::npos || before.find("extern ") != std::string::npos ||
               before.find("LOCK_CAPABILITY") != std::string::npos ||
               between_.find("static_assert") != std::string::npos || before.find("__asm__") != std::string::npos;
    }

    // Neither a statement nor an argument list's comma ends in between.
    bool BetweenContinues() const
    {
        int depth = 0;
        for (const char character : between_)
        {
            depth += character == '(' ? 1 : character == ')' ? -1 : 0;
            if (character == ';' || character == '{' || character == '}' || (character == ',' && depth <= 0))
            {
                return false;
            }
        }
        return true;
    }

    const std::string& source_;
    size_t at_ = 0;
    std::string between_;
    std::vector<Literal> literals_;
};
}

std::vector<Literal> ReadLiterals(const std::string& source)
{
    return Scanner(source).Read();
}

std::vector<std::filesystem::path> SourceFiles(const std::filesystem::path& folder)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
    {
        const auto extension = entry.path().extension();
        if (extension == ".cpp" || extension == ".h")
        {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string ReadFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

std::vector<std::string> FixedParts(const std::string& format)
{
    static const std::regex conversion("%[-+ #0]*[0-9]*(ws|wZ|[dxXpsu])");
    std::vector<std::string> parts;
    for (std::sregex_token_iterator part(format.begin(), format.end(), conversion, -1), end; part != end; ++part)
    {
        if (part->length() != 0)
        {
            parts.push_back(*part);
        }
    }
    return parts;
}

bool ContainsInOrder(const std::string& text, const std::vector<std::string>& parts)
{
    size_t at = 0;
    for (const std::string& part : parts)
    {
        at = text.find(part, at);
        if (at == std::string::npos)
        {
            return false;
        }
        at += part.size();
    }
    return true;
}
}
