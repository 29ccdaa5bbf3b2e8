#include "live/mount/requester.h"

namespace live
{
Requester::Requester(fuse_req_t request) : process_(StateOf(request).ProcessOf(fuse_req_ctx(request)->pid))
{
    if (process_ != nullptr)
    {
        attached_.emplace(process_);
    }
}

Requester::~Requester()
{
    attached_.reset();
    if (process_ != nullptr)
    {
        hosted::DereferenceObject(process_);
    }
}
}
