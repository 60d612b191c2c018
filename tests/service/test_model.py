"""Random scripts, the same in every run, on the service and on a model of it.

KADREL_MODEL_SCRIPTS=1000 runs as many, KADREL_MODEL_FIRST=5000 begins with another seed; both are for long runs.
"""

import os

import pytest
from model import ARMED, PENDING, Disagreement, Model, compare, random_script, shortest

FIRST = int(os.environ.get("KADREL_MODEL_FIRST", "1"))
SCRIPTS = int(os.environ.get("KADREL_MODEL_SCRIPTS", "12"))
STEPS = 120


def disagreement(world, script, make_model=Model):
    """Runs a script on a service of its own. The Disagreement, or None."""
    service = world.start()
    try:
        compare(service, script, make_model())
    except Disagreement as found:
        return found
    finally:
        service.stop()
    return None


@pytest.mark.parametrize("seed", range(FIRST, FIRST + SCRIPTS))
def test_the_service_does_what_the_model_says(world, seed):
    script = random_script(seed, STEPS)
    found = disagreement(world, script)
    if found is not None:
        short = shortest(script, lambda shorter: disagreement(world, shorter))
        steps = "\n  ".join(map(repr, short))
        pytest.fail(f"seed {seed}: {found}\nthe shortest script that shows it:\n  {steps}", pytrace=False)


class StrictThreshold(Model):
    """A model that is wrong: it starts above the threshold, not at it."""

    def _dmx(self, dmx, noted):
        state = self.state
        noted = super()._dmx(dmx, noted)
        channel, threshold = self.record
        if state == ARMED and self.state == PENDING and dmx.data[channel - 1] == threshold:
            self.state = ARMED
        return noted


def test_a_wrong_rule_is_found_and_shown_with_a_short_script(world):
    for seed in range(1, 50):
        script = random_script(seed, STEPS)
        if disagreement(world, script, StrictThreshold) is not None:
            break
    short = shortest(script, lambda shorter: disagreement(world, shorter, StrictThreshold))
    assert disagreement(world, short, StrictThreshold) is not None
    assert disagreement(world, short) is None
    names = [step[0] for step in short]
    assert sorted(set(names)) == ["grab", "receive", "set_ctrl_record", "set_ctrl_universe"]
    assert len(short) <= 6
