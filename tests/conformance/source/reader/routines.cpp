#include "tests/conformance/source/reader/routines.h"

#include <algorithm>
#include <array>

namespace source
{
namespace
{
constexpr size_t None = static_cast<size_t>(-1);

template <size_t Count>
bool IsOneOf(const Token& token, const std::array<std::string_view, Count>& words)
{
    return token.IsWord() && std::find(words.begin(), words.end(), token.Text) != words.end();
}

// Words before a parenthesis that name no routine.
constexpr std::array<std::string_view, 9> WithArguments = {
    "alignas", "__attribute__", "__declspec", "decltype", "noexcept", "requires", "static_assert", "explicit", "asm"};
constexpr std::array<std::string_view, 6> NoRoutine = {
    "using", "typedef", "friend", "static_assert", "enum", "namespace"};
// What may stand between the parameters and the body.
constexpr std::array<std::string_view, 8> Trailing = {
    "const", "noexcept", "override", "final", "try", "NO_LOCK_ANALYSIS", "mutable", "volatile"};
constexpr std::array<std::string_view, 3> ClassKeys = {"class", "struct", "union"};

// Annotations of the compiler are written in capitals.
bool IsMacro(const Token& token)
{
    return token.IsWord() && token.Text.size() > 2 &&
           std::none_of(token.Text.begin(), token.Text.end(),
               [](char character) { return character >= 'a' && character <= 'z'; });
}

struct Scope
{
    std::string Class; // empty for a namespace
    bool IsHidden = false;
    bool IsLocal = false;
};

// What the tokens before a brace or a semicolon are, with brackets stepped over.
struct Head
{
    std::vector<size_t> Places; // tokens outside of brackets, with the opening one for the whole
    size_t First = 0;           // behind `template <...>`

    size_t Last() const { return Places.empty() ? None : Places.back(); }
};

class Finder
{
public:
    explicit Finder(const SourceText& source) : tokens_(source.Tokens) {}

    std::vector<Routine> Find()
    {
        size_t start = 0;
        size_t place = 0;
        while (place < tokens_.size())
        {
            const Token& token = tokens_[place];
            if (token.Is("(") || token.Is("["))
            {
                place = std::min(ClosingToken(tokens_, place) + 1, tokens_.size());
            }
            else if (token.Is("{"))
            {
                place = Open(start, place);
            }
            else if (token.Is("}"))
            {
                if (!scopes_.empty())
                {
                    scopes_.pop_back();
                }
                start = ++place;
            }
            else if (token.Is(";"))
            {
                AddDeclaration(start, place);
                start = ++place;
            }
            else if (token.Is(":") && SetAccess(start, place))
            {
                start = ++place;
            }
            else
            {
                ++place;
            }
        }
        return std::move(routines_);
    }

private:
    // Reads what the brace opens. Returns where to go on; moves `start` where a new declaration begins there.
    size_t Open(size_t& start, size_t brace)
    {
        const Head head = ReadHead(start, brace);
        if (IsNamespace(head))
        {
            const bool nameless = tokens_[head.Last()].Is("namespace");
            scopes_.push_back({"", false, nameless || (!scopes_.empty() && scopes_.back().IsLocal)});
            return start = brace + 1;
        }
        if (IsClass(head))
        {
            const bool hidden = tokens_[head.First].Is("class");
            scopes_.push_back({ClassName(head), hidden, !scopes_.empty() && scopes_.back().IsLocal});
            return start = brace + 1;
        }
        const size_t end = std::min(ClosingToken(tokens_, brace) + 1, tokens_.size());
        const size_t parameters = IsInitializer(head) ? None : ParametersOf(head);
        if (parameters == None)
        {
            return end; // a value or an enumeration, which goes on to its semicolon
        }
        Add(start, parameters, brace, end);
        return start = end;
    }

    Head ReadHead(size_t start, size_t end) const
    {
        Head head;
        size_t place = start;
        while (place < end && tokens_[place].Is("template"))
        {
            place = AfterAngles(place + 1, end);
        }
        head.First = place;
        while (place < end)
        {
            head.Places.push_back(place);
            const Token& token = tokens_[place];
            if (token.Is("(") || token.Is("[") || token.Is("{"))
            {
                place = ClosingToken(tokens_, place) + 1;
            }
            else if (token.Is("<") && place > head.First && tokens_[place - 1].IsWord() &&
                     !tokens_[place - 1].Is("operator"))
            {
                place = AfterAngles(place, end);
            }
            else
            {
                ++place;
            }
        }
        return head;
    }

    // Behind the `>` for the `<` at the place; the next token where the mark is a comparison.
    size_t AfterAngles(size_t open, size_t end) const
    {
        int depth = 0;
        for (size_t place = open; place < end; ++place)
        {
            const Token& token = tokens_[place];
            if (token.Is("(") || token.Is("[") || token.Is("{"))
            {
                place = ClosingToken(tokens_, place);
            }
            else if (token.Is("<"))
            {
                ++depth;
            }
            else if (token.Is(">") && --depth == 0)
            {
                return place + 1;
            }
        }
        return open + 1;
    }

    bool Contains(const Head& head, std::string_view text) const
    {
        return std::any_of(
            head.Places.begin(), head.Places.end(), [&](size_t place) { return tokens_[place].Is(text); });
    }

    bool IsNamespace(const Head& head) const
    {
        if (head.Places.empty())
        {
            return false;
        }
        const bool linkage = tokens_[head.First].Is("extern") && head.Places.size() == 2 &&
                             tokens_[head.Last()].Kind == TokenKind::String;
        return linkage || Contains(head, "namespace");
    }

    bool IsClass(const Head& head) const
    {
        if (head.Places.empty() || !IsOneOf(tokens_[head.First], ClassKeys))
        {
            return false;
        }
        // Otherwise the word belongs to a routine's type.
        for (size_t index = 2; index < head.Places.size(); ++index)
        {
            const Token& name = tokens_[head.Places[index] - 1];
            if (tokens_[head.Places[index]].Is("(") && name.IsWord() && !IsMacro(name) && !IsOneOf(name, WithArguments))
            {
                return false;
            }
        }
        return true;
    }

    std::string ClassName(const Head& head) const
    {
        std::string name;
        for (const size_t place : head.Places)
        {
            const Token& token = tokens_[place];
            if (token.Is(":"))
            {
                break;
            }
            if (token.IsWord() && !token.Is("final") && !IsOneOf(token, ClassKeys))
            {
                name = token.Text;
            }
        }
        return name;
    }

    bool IsInitializer(const Head& head) const
    {
        if (head.Places.empty() || IsOneOf(tokens_[head.First], NoRoutine) || IsValue(head))
        {
            return true;
        }
        // In a constructor's list the braces after a name, not those after a bracket, give a value.
        const Token& last = tokens_[head.Last()];
        const bool afterName = (last.IsWord() && !IsOneOf(last, Trailing)) || last.Is("<");
        return afterName && Contains(head, ":");
    }

    // Has an `=` outside of brackets that is no operator's name.
    bool IsValue(const Head& head) const { return Contains(head, "=") && !Contains(head, "operator"); }

    // The parenthesis of the parameters, or None where the tokens are no routine.
    size_t ParametersOf(const Head& head) const
    {
        for (size_t index = 0; index < head.Places.size(); ++index)
        {
            const size_t place = head.Places[index];
            if (!tokens_[place].Is("("))
            {
                continue;
            }
            if (Contains(head, "operator"))
            {
                // The parentheses of `operator()` are its name.
                const bool isName = tokens_[place - 1].Is("operator");
                if (!isName)
                {
                    return place;
                }
                continue;
            }
            const bool named = index > 0 && tokens_[place - 1].IsWord() && !IsOneOf(tokens_[place - 1], WithArguments);
            const size_t behind = ClosingToken(tokens_, place) + 1;
            const bool isPointer = behind < tokens_.size() && tokens_[behind].Is("(") &&
                                   (tokens_[place + 1].Is("*") || tokens_[place + 2].Is("*"));
            if (isPointer)
            {
                return None;
            }
            // A class's lock and the like stand before the name.
            const bool annotation = IsMacro(tokens_[place - (index > 0 ? 1 : 0)]) && index + 1 < head.Places.size() &&
                                    tokens_[head.Places[index + 1]].IsWord() &&
                                    !IsOneOf(tokens_[head.Places[index + 1]], Trailing);
            if (named && !annotation)
            {
                return place;
            }
        }
        return None;
    }

    void AddDeclaration(size_t start, size_t end)
    {
        const Head head = ReadHead(start, end);
        if (head.Places.empty() || IsOneOf(tokens_[head.First], NoRoutine))
        {
            return;
        }
        const size_t parameters = ParametersOf(head);
        const bool initialised =
            parameters == None ||
            std::any_of(head.Places.begin(), head.Places.end(), [&](size_t place)
                { return place < parameters && tokens_[place].Is("=") && !Contains(head, "operator"); });
        // Behind the name of a field stands what it is guarded by.
        if (parameters != None && IsMacro(tokens_[parameters - 1]))
        {
            return;
        }
        // One name and its arguments: outside of a class a macro.
        const bool isCall = parameters == head.First + 1 && (scopes_.empty() || scopes_.back().Class.empty());
        if (!initialised && !isCall)
        {
            Add(start, parameters, end, end);
        }
    }

    void Add(size_t start, size_t parameters, size_t body, size_t end)
    {
        Routine routine;
        const Scope scope = scopes_.empty() ? Scope() : scopes_.back();
        size_t name = parameters - 1;
        for (size_t place = start; place < parameters; ++place)
        {
            if (tokens_[place].Is("operator"))
            {
                name = place;
                break;
            }
        }
        routine.Name = tokens_[name].Text;
        size_t before = name;
        if (name > start && tokens_[name - 1].Is("~"))
        {
            routine.Name.insert(0, "~");
            --before;
        }
        const bool qualified = before > start + 1 && tokens_[before - 1].Is("::") && tokens_[before - 2].IsWord();
        routine.Class = qualified ? std::string(tokens_[before - 2].Text) : scope.Class;
        routine.IsHidden = scope.IsHidden;
        routine.IsLocal = scope.IsLocal;
        routine.FirstLine = tokens_[start].Line;
        routine.LastLine = tokens_[end == body ? body : end - 1].Line;
        routine.Head = start;
        routine.Body = body;
        routine.End = end;
        routine.Parameters = parameters;
        routines_.push_back(std::move(routine));
    }

    // For `public:` and its like. The colon of anything else is none of its business.
    bool SetAccess(size_t start, size_t colon)
    {
        static constexpr std::array<std::string_view, 3> Parts = {"public", "protected", "private"};
        if (scopes_.empty() || colon != start + 1 || !IsOneOf(tokens_[start], Parts))
        {
            return false;
        }
        scopes_.back().IsHidden = !tokens_[start].Is("public");
        return true;
    }

    const std::vector<Token>& tokens_;
    std::vector<Scope> scopes_;
    std::vector<Routine> routines_;
};
}

std::vector<Routine> RoutinesOf(const SourceText& source)
{
    return Finder(source).Find();
}
}
