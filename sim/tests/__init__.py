"""Host-side tests of the simulated player's runner; no guest is booted."""
from vxsim.scenario import merge, parse_scenario

HEALTHY = {
    "batch": "b",
    "flash": [{"name": "flash0.nvram", "blocks": 8, "bad": [0, 1], "env": ["VX_FORMAT=1"]},
              {"name": "test.scratch", "blocks": 16, "bad": [5, 3]}],
    "proc": {"boardid": "Secure-ID: 1\n"},
    "net": {"eth0": "02:00:00:00:00:01"},
    "expect": {"status": 0, "stderr": []},
}


def scenario(**changes):
    """Scenario "t": a healthy player with some tables changed; a flash list
    given replaces the healthy one whole."""
    merged = merge(HEALTHY, {k: v for k, v in changes.items() if k != "flash"})
    return parse_scenario("t", dict(merged, flash=changes.get("flash", merged["flash"])))
