// The platforms that are asked.
#pragma once

#include "tests/conformance/platform/test/answer_list.h"

namespace platform
{
// Both model 6.1 with a clock nine hours ahead of UTC. They throw std::runtime_error when not every question was
// answered.

// The hosted kernel, with the questions compiled natively.
AnswerList AskHosted();
// The hosted kernel, with the questions as the image that Windows loads.
AnswerList AskHostedByImage();
// Wine, with the same image.
AnswerList AskWine();
}
