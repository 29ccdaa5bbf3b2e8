#include "tests/conformance/source/rules/tests.h"

#include "tests/conformance/source/reader/routines.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>

namespace source
{
namespace
{
using Names = std::set<std::string, std::less<>>;

bool IsExpectation(std::string_view word)
{
    return word.starts_with("EXPECT_") || word.starts_with("ASSERT_") || word.starts_with("ADD_FAILURE") ||
           word == "FAIL";
}

bool IsTest(const Routine& routine)
{
    return routine.Name == "TEST" || routine.Name == "TEST_F" || routine.Name == "TEST_P" ||
           routine.Name == "TYPED_TEST" || routine.Name == "TYPED_TEST_P";
}

// The two names of a test, as GoogleTest writes them.
std::string TestName(const SourceText& source, const Routine& test)
{
    const std::string arguments =
        Joined(source.Tokens, test.Parameters + 1, ClosingToken(source.Tokens, test.Parameters));
    std::string name = arguments;
    std::replace(name.begin(), name.end(), ',', '.');
    return name;
}

// Whether the tokens hold an expectation or use one of the names that do.
bool Expects(const std::vector<Token>& tokens, size_t first, size_t end, const Names& helpers)
{
    return std::any_of(tokens.begin() + static_cast<std::ptrdiff_t>(first),
        tokens.begin() + static_cast<std::ptrdiff_t>(end), [&](const Token& token)
        { return token.IsWord() && (IsExpectation(token.Text) || helpers.find(token.Text) != helpers.end()); });
}

// What one file defines, once for all who include it.
struct Definitions
{
    const SourceText* Source;
    std::vector<Routine> Routines;
    std::vector<std::string> Included;
};

class Expectations
{
public:
    explicit Expectations(const std::vector<SourceText>& sources)
    {
        for (const SourceText& source : sources)
        {
            Definitions& file = files_[source.Path];
            file.Source = &source;
            file.Routines = RoutinesOf(source);
            for (const Directive& directive : source.Directives)
            {
                const std::string_view path = QuotedInclude(directive);
                if (path.starts_with("tests/"))
                {
                    file.Included.emplace_back(path);
                }
            }
        }
    }

    Findings Find() const
    {
        Findings findings;
        for (const auto& [path, file] : files_)
        {
            const auto isTest = [](const Routine& routine) { return IsTest(routine); };
            if (std::none_of(file.Routines.begin(), file.Routines.end(), isTest))
            {
                continue;
            }
            const Names helpers = HelpersOf(path);
            for (const Routine& test : file.Routines)
            {
                if (IsTest(test) && !Expects(file.Source->Tokens, test.Body, test.End, helpers))
                {
                    findings.push_back({path, test.FirstLine, TestName(*file.Source, test) + " expects nothing"});
                }
            }
        }
        return findings;
    }

private:
    // The file, what it includes, and the sources that define what those headers declare.
    void Reach(const std::string& path, std::set<std::string>& reached) const
    {
        const auto file = files_.find(path);
        if (file == files_.end() || !reached.insert(path).second)
        {
            return;
        }
        for (const std::string& included : file->second.Included)
        {
            Reach(included, reached);
        }
        if (path.ends_with(".h"))
        {
            Reach(path.substr(0, path.size() - 1) + "cpp", reached);
        }
    }

    // Names of the routines and macros in reach of the file that expect something, themselves or through each other.
    Names HelpersOf(const std::string& path) const
    {
        std::set<std::string> reached;
        Reach(path, reached);
        Names helpers;
        size_t before;
        do
        {
            before = helpers.size();
            for (const std::string& name : reached)
            {
                AddHelpers(files_.at(name), helpers);
            }
        } while (helpers.size() != before);
        return helpers;
    }

    static void AddHelpers(const Definitions& file, Names& helpers)
    {
        for (const Routine& routine : file.Routines)
        {
            // A test's macro would make helpers of all tests.
            if (routine.HasBody() && !IsTest(routine) && helpers.find(routine.Name) == helpers.end() &&
                Expects(file.Source->Tokens, routine.Body, routine.End, helpers))
            {
                helpers.insert(routine.Name);
            }
        }
    }

    std::map<std::string, Definitions> files_;
};
}

Findings FindSleeps(const SourceText& source)
{
    static constexpr std::array<std::string_view, 7> Sleeps = {
        "sleep", "usleep", "nanosleep", "clock_nanosleep", "sleep_for", "sleep_until", "Sleep"};
    Findings findings;
    for (size_t place = 0; place + 1 < source.Tokens.size(); ++place)
    {
        const Token& token = source.Tokens[place];
        if (token.IsWord() && source.Tokens[place + 1].Is("(") &&
            std::find(Sleeps.begin(), Sleeps.end(), token.Text) != Sleeps.end())
        {
            findings.push_back({source.Path, token.Line, std::string(token.Text) + " waits for time to pass"});
        }
    }
    return findings;
}

Findings FindEmptyTests(const std::vector<SourceText>& sources)
{
    return Expectations(sources).Find();
}
}
