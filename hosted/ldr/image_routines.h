// Routines that only compiled images call; the natively built driver has the host's own.
#pragma once

namespace hosted
{
// By the name in the export list. Bug check for one that is not there.
void* ImageRoutine(const char* name);
}
