"""The part of script/bench that runs inside the sandbox."""

import sys

import arguments
import audit
import counting
import instructions
import restoring
import steps
from measuring import Failure


def _mode(parsed):
    if parsed.count is not None:
        return counting.count
    if parsed.audit:
        return audit.audit
    if parsed.instructions:
        return instructions.instructions
    return steps.steps if parsed.steps else restoring.restore


def main():
    parsed = arguments.parse()
    try:
        _mode(parsed)(parsed)
    except Failure as failure:
        sys.exit(f"script/bench: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)


main()
