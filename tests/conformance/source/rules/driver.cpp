#include "tests/conformance/source/rules/driver.h"

#include <algorithm>
#include <array>

namespace source
{
namespace
{
bool Contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

// ExAcquireFastMutex, KeReleaseSpinLockFromDpcLevel, ExTryToAcquireFastMutex, ExAcquireResourceExclusiveLite and so on.
bool IsLockRoutine(std::string_view name)
{
    const bool verb = Contains(name, "Acquire") || Contains(name, "Release");
    const bool noun = Contains(name, "Mutex") || Contains(name, "Lock") || Contains(name, "Resource");
    return (verb && noun) || name == "KeEnterCriticalRegion" || name == "KeLeaveCriticalRegion" ||
           name == "ExEnterCriticalRegionAndAcquireFastMutexUnsafe";
}

// Where the comma behind the first argument is; the closing parenthesis when there is one argument.
size_t FirstArgumentEnd(const std::vector<Token>& tokens, size_t open)
{
    const size_t end = ClosingToken(tokens, open);
    for (size_t place = open + 1; place < end; ++place)
    {
        if (tokens[place].Is("(") || tokens[place].Is("[") || tokens[place].Is("{"))
        {
            place = ClosingToken(tokens, place);
        }
        else if (tokens[place].Is(","))
        {
            return place;
        }
    }
    return end;
}

// What REQUIRES_LOCK names in the head of the lambda that begins at the place; empty where it names nothing.
std::string AnnotatedLock(const std::vector<Token>& tokens, size_t lambda)
{
    if (lambda >= tokens.size() || !tokens[lambda].Is("["))
    {
        return "";
    }
    for (size_t place = lambda; place + 1 < tokens.size() && !tokens[place].Is("{"); ++place)
    {
        if (tokens[place].Is("REQUIRES_LOCK"))
        {
            return Joined(tokens, place + 2, ClosingToken(tokens, place + 1));
        }
    }
    return "";
}
}

Findings FindConditions(const SourceText& source)
{
    static constexpr std::array<std::string_view, 7> Conditions = {
        "if", "ifdef", "ifndef", "elif", "elifdef", "elifndef", "else"};
    Findings findings;
    for (const Directive& directive : source.Directives)
    {
        if (std::find(Conditions.begin(), Conditions.end(), directive.Name) != Conditions.end())
        {
            findings.push_back({source.Path, directive.Line,
                "#" + std::string(directive.Name) + " " + std::string(directive.Rest) + " chooses what is compiled"});
        }
    }
    return findings;
}

Findings FindBareLocks(const SourceText& source)
{
    Findings findings;
    for (size_t place = 0; place + 1 < source.Tokens.size(); ++place)
    {
        const Token& token = source.Tokens[place];
        if (token.IsWord() && IsLockRoutine(token.Text))
        {
            findings.push_back(
                {source.Path, token.Line, std::string(token.Text) + " takes or gives back a lock by hand"});
        }
    }
    return findings;
}

Findings FindWrongLocks(const SourceText& source)
{
    const std::vector<Token>& tokens = source.Tokens;
    Findings findings;
    for (size_t place = 0; place + 1 < tokens.size(); ++place)
    {
        const bool call = (tokens[place].Is("WithLock") || tokens[place].Is("WithLockBelowDispatch")) &&
                          tokens[place + 1].Is("(") && (place == 0 || !tokens[place - 1].Is("void"));
        if (!call)
        {
            continue;
        }
        const size_t comma = FirstArgumentEnd(tokens, place + 1);
        const std::string held = Joined(tokens, place + 2, comma);
        const std::string named = AnnotatedLock(tokens, comma + 1);
        if (named.empty())
        {
            findings.push_back({source.Path, tokens[place].Line, held + " is held for a body without REQUIRES_LOCK"});
        }
        else if (named != held)
        {
            findings.push_back({source.Path, tokens[place].Line, held + " is held where the body requires " + named});
        }
    }
    return findings;
}
}
