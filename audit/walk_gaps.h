// What a walk over the panel database has left out.

#pragma once

#include "audit/options.h"
#include "audit/output.h"

namespace corvo::audit {

/// Says that the last walk did not read everything, if so; it has told why itself.
void omitGapsOfWalk(Output& output);

/// Says, where nothing that is meant was met, that a scope with patterns means nothing.
void omitUnmetScope(Output& output, const Scope& scope);

}  // namespace corvo::audit
