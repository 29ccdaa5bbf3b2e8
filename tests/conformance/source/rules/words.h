// One meaning for each word.
#pragma once

#include "tests/conformance/source/rules/findings.h"

#include <string>
#include <string_view>

namespace source
{
// Places where the word stands, alone or in a name (`TheWord`, `the_word`), in any case of letters.
Findings FindWord(const std::string& path, std::string_view text, std::string_view word);
}
