// What the SLP library hands out, as types that close themselves.
#pragma once

#include "base/Handles.h"
#include "slp/Slp.h"

using UniqueSlpHandle = UniqueResource<ClosedBy<SLPHandle, SLPClose>>;
using UniqueSlpText = UniqueResource<ClosedBy<void*, SLPFree>>;
