// Routines that only compiled images call; the natively built driver uses those of Linux.
#pragma once

namespace hosted
{
// By the name in the export list. Bug check for one that is not there.
void* ImageRoutine(const char* name);
}
