"""Why an action went wrong: a trace of the same action, called once more by itself."""

from dataclasses import replace
from typing import Sequence

from installer import paths
from installer.log import ActionRun, Execution, Outcome
from installer.prefix import Prefix

WRONG = (Outcome.FAILED, Outcome.NOT_RETURNED)
# Seconds.
LIMIT = 60


def traced(prefix: Prefix, runs: Sequence[ActionRun], arguments: Sequence[str]) -> list[ActionRun]:
    """The runs, with a trace for each that went wrong; `arguments` are those of the session, whose
    properties an immediate action sees. Any other has its data and nothing else."""
    return [
        replace(run, trace=_trace(prefix, run, arguments)) if run.outcome in WRONG else run
        for run in runs
    ]


def _trace(prefix: Prefix, run: ActionRun, arguments: Sequence[str]) -> list[str]:
    if run.definition.execution is Execution.IMMEDIATE:
        properties = [each for each in arguments if "=" in each and not each.startswith("/")]
    else:
        properties = [] if run.data is None else [f"CustomActionData={run.data}"]
    action = run.definition.export or run.name
    options = ("--trace", "--quotes", "--limit", str(LIMIT))
    done = prefix.run(paths.RUNNER, action, *properties, *options, limit=2 * LIMIT)
    return done.stdout.splitlines()
