// What a walk over the panel database has left out.

#pragma once

#include "audit/output.h"

namespace corvo::audit {

/// Says that the last walk did not read everything, if so; it has told why itself.
void omitGapsOfWalk(Output& output);

}  // namespace corvo::audit
