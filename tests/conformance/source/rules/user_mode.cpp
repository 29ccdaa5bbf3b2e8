#include "tests/conformance/source/rules/user_mode.h"

#include <algorithm>
#include <array>

namespace source
{
Findings FindUncheckedLocks(const SourceText& source)
{
    static constexpr std::array<std::string_view, 12> Locks = {"mutex", "timed_mutex", "recursive_mutex",
        "recursive_timed_mutex", "shared_mutex", "shared_timed_mutex", "lock_guard", "unique_lock", "shared_lock",
        "scoped_lock", "condition_variable", "condition_variable_any"};
    Findings findings;
    for (size_t place = 0; place < source.Tokens.size(); ++place)
    {
        const Token& token = source.Tokens[place];
        const bool standard = place > 1 && source.Tokens[place - 1].Is("::") && source.Tokens[place - 2].Is("std") &&
                              std::find(Locks.begin(), Locks.end(), token.Text) != Locks.end();
        const bool posix =
            token.IsWord() && (token.Text.starts_with("pthread_mutex_") || token.Text.starts_with("pthread_rwlock_") ||
                                  token.Text.starts_with("pthread_cond_"));
        if (standard || posix)
        {
            findings.push_back(
                {source.Path, token.Line, std::string(token.Text) + " is a lock that the compiler does not check"});
        }
    }
    return findings;
}
}
