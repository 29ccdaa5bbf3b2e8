// What must hold of the INF of an encryption minifilter before Windows installs it as intended.
#pragma once

#include "findings.h"

#include <string_view>

namespace package
{

// One text per broken rule. `version` is what DriverVer must say, as four numbers with full stops.
Findings FindBrokenInfRules(std::string_view text, std::string_view version);

}
