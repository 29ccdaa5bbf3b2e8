#include "tests/conformance/source/reader/source_text.h"

#include <algorithm>
#include <cctype>

namespace source
{
namespace
{
bool StartsWord(char character)
{
    return std::isalpha(static_cast<unsigned char>(character)) != 0 || character == '_';
}

bool ContinuesWord(char character)
{
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

bool IsSpace(char character)
{
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

class Lexer
{
public:
    explicit Lexer(SourceText& source) : source_(source), text_(*source.Text) {}

    void Read()
    {
        while (at_ < text_.size())
        {
            if (text_[at_] == '\n')
            {
                ++line_;
                ++at_;
                lineIsEmpty_ = true;
            }
            else if (IsSpace(text_[at_]))
            {
                ++at_;
            }
            else if (StartsWith("//"))
            {
                AddComment(LineEnd());
            }
            else if (StartsWith("/*"))
            {
                AddComment(After(text_.find("*/", at_ + 2), 2));
            }
            else if (text_[at_] == '#' && lineIsEmpty_)
            {
                AddDirective();
            }
            else
            {
                AddToken();
                lineIsEmpty_ = false;
            }
        }
    }

private:
    bool StartsWith(std::string_view what) const { return text_.substr(at_, what.size()) == what; }
    size_t LineEnd() const { return std::min(text_.find('\n', at_), text_.size()); }
    size_t After(size_t place, size_t length) const
    {
        return place == std::string_view::npos ? text_.size() : place + length;
    }

    // Moves to `end` and returns what lies before it.
    std::string_view Take(size_t end)
    {
        const std::string_view taken = text_.substr(at_, end - at_);
        line_ += static_cast<int>(std::count(taken.begin(), taken.end(), '\n'));
        at_ = end;
        return taken;
    }

    void AddComment(size_t end)
    {
        const int firstLine = line_;
        const size_t first = at_;
        Take(end);
        std::vector<Comment>& comments = source_.Comments;
        const bool continues = lineIsEmpty_ && !comments.empty() && comments.back().LastLine == firstLine - 1 &&
                               (source_.Tokens.empty() || source_.Tokens.back().Line < comments.back().FirstLine);
        if (!continues)
        {
            comments.push_back({firstLine, line_, text_.substr(first, end - first)});
            return;
        }
        const auto begin = static_cast<size_t>(comments.back().Text.data() - text_.data());
        comments.back().LastLine = line_;
        comments.back().Text = text_.substr(begin, end - begin);
    }

    // To the end of the line, or of the lines where a backslash joins them. A comment behind it is read as one.
    void AddDirective()
    {
        const int line = line_;
        size_t end = at_;
        while (end < text_.size() && text_[end] != '\n' && text_.substr(end, 2) != "//" && text_.substr(end, 2) != "/*")
        {
            end += text_[end] == '\\' ? 2 : 1;
        }
        std::string_view all = Take(std::min(end, text_.size())).substr(1);
        all.remove_prefix(std::min(all.find_first_not_of(" \t"), all.size()));
        const size_t nameEnd =
            static_cast<size_t>(std::find_if_not(all.begin(), all.end(), ContinuesWord) - all.begin());
        std::string_view rest = all.substr(nameEnd);
        rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
        rest = rest.substr(0, rest.find_last_not_of(" \t") + 1);
        source_.Directives.push_back({line, all.substr(0, nameEnd), rest});
        lineIsEmpty_ = false;
    }

    void AddToken()
    {
        const int line = line_;
        const auto [kind, end] = TokenEnd();
        const std::string_view text = Take(end);
        source_.Tokens.push_back({kind, text, line});
    }

    std::pair<TokenKind, size_t> TokenEnd() const
    {
        const char first = text_[at_];
        if (std::isdigit(static_cast<unsigned char>(first)) != 0)
        {
            return {TokenKind::Number, NumberEnd()};
        }
        size_t end = at_;
        while (StartsWord(first) && end < text_.size() && ContinuesWord(text_[end]))
        {
            ++end;
        }
        const char quote = end < text_.size() ? text_[end] : '\0';
        const bool isPrefix = end == at_ || (end - at_ <= 3 && IsPrefix(text_.substr(at_, end - at_)));
        if (isPrefix && quote == '"')
        {
            const bool raw = end > at_ && text_[end - 1] == 'R';
            return {TokenKind::String, raw ? RawStringEnd(end) : QuotedEnd(end, quote)};
        }
        if (isPrefix && quote == '\'')
        {
            return {TokenKind::Character, QuotedEnd(end, quote)};
        }
        if (end > at_)
        {
            return {TokenKind::Word, end};
        }
        return {TokenKind::Mark, at_ + (StartsWith("::") || StartsWith("->") ? 2 : 1)};
    }

    static bool IsPrefix(std::string_view word)
    {
        return word == "L" || word == "u" || word == "U" || word == "u8" || word == "R" || word == "LR" ||
               word == "u8R" || word == "uR" || word == "UR";
    }

    // As in 1'000, 0x1p-3 and 12.5f.
    size_t NumberEnd() const
    {
        size_t end = at_;
        while (end < text_.size())
        {
            const bool exponent = (text_[end] == '+' || text_[end] == '-') &&
                                  std::string_view("eEpP").find(text_[end - 1]) != std::string_view::npos &&
                                  !StartsWith("0x");
            const bool separator = text_[end] == '\'' && end + 1 < text_.size() && ContinuesWord(text_[end + 1]);
            if (!ContinuesWord(text_[end]) && text_[end] != '.' && !separator && !exponent)
            {
                break;
            }
            ++end;
        }
        return end;
    }

    // Behind the closing mark, or at the end of the line where there is none.
    size_t QuotedEnd(size_t open, char quote) const
    {
        size_t end = open + 1;
        while (end < text_.size() && text_[end] != quote && text_[end] != '\n')
        {
            end += text_[end] == '\\' ? 2 : 1;
        }
        const bool closed = end < text_.size() && text_[end] == quote;
        return std::min(end + (closed ? 1 : 0), text_.size());
    }

    size_t RawStringEnd(size_t quote) const
    {
        const size_t parenthesis = text_.find('(', quote);
        if (parenthesis == std::string_view::npos)
        {
            return text_.size();
        }
        const std::string closing = ")" + std::string(text_.substr(quote + 1, parenthesis - quote - 1)) + "\"";
        return After(text_.find(closing, parenthesis), closing.size());
    }

    SourceText& source_;
    const std::string_view text_;
    size_t at_ = 0;
    int line_ = 1;
    bool lineIsEmpty_ = true;
};

std::vector<std::string_view> LinesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty())
    {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}
}

SourceText ReadSource(std::string path, std::string text)
{
    SourceText source;
    source.Path = std::move(path);
    source.Text = std::make_shared<const std::string>(std::move(text));
    source.Lines = LinesOf(*source.Text);
    source.Tokens.reserve(source.Text->size() / 5);
    Lexer(source).Read();
    return source;
}

size_t ClosingToken(const std::vector<Token>& tokens, size_t open)
{
    size_t depth = 0;
    for (size_t place = open; place < tokens.size(); ++place)
    {
        const Token& token = tokens[place];
        if (token.Kind != TokenKind::Mark)
        {
            continue;
        }
        if (token.Text == "(" || token.Text == "[" || token.Text == "{")
        {
            ++depth;
        }
        else if ((token.Text == ")" || token.Text == "]" || token.Text == "}") && --depth == 0)
        {
            return place;
        }
    }
    return tokens.size();
}

std::string Joined(const std::vector<Token>& tokens, size_t first, size_t end)
{
    std::string joined;
    for (size_t place = first; place < end; ++place)
    {
        joined += tokens[place].Text;
    }
    return joined;
}

namespace
{
std::string_view IncludeBetween(const Directive& directive, char open, char close)
{
    const std::string_view rest = directive.Rest;
    const bool matches = directive.Name == "include" && rest.size() > 2 && rest.front() == open && rest.back() == close;
    return matches ? rest.substr(1, rest.size() - 2) : std::string_view();
}
}

std::string_view QuotedInclude(const Directive& directive)
{
    return IncludeBetween(directive, '"', '"');
}

std::string_view AngledInclude(const Directive& directive)
{
    return IncludeBetween(directive, '<', '>');
}
}
