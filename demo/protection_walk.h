// A protected file outside the sandbox, before and after a restart, and the dump of the driver's parameters.
#pragma once

#include "demo/stage.h"

namespace demo
{
// A document is protected for one program: that one may open it, another may not.
void ProtectDocument(Stage& stage);
// After a restart the document is protected still and nobody may open it, until the agent allows somebody again.
void FindDocumentProtected(Stage& stage);
// A program reads the dump's lines from the debug mailslot.
void ReadDump(Stage& stage);
}
