// The volumes that are mounted at present.
#pragma once

#include "hosted/io/volume.h"

namespace hosted
{
// Every file object of a volume counts from its making to its deletion (+1, -1).
void CountOpenFile(Volume* volume, int change);
}
