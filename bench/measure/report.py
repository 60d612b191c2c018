"""Tables, the JSON file, and what has to be said about the conditions."""

import json
import statistics
from pathlib import Path

# Figures of which a ratio to the naive loop says something.
COMPARABLE = ("cpu_ns_per_datagram", "instructions_per_datagram", "calls_per_datagram")


def number(value):
    if isinstance(value, int):
        return f"{value:,}"
    if value == 0 or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if abs(value) < 1 else f"{value:.2f}"


def table(name, figures, description):
    """The lines of one measurement."""
    lines = ["", f"{name}: {' '.join(description.split())}", ""]
    head = f"  {'contender':28} {'figure':36} {'median':>10} {'least':>10} {'most':>10} {'x naive':>8} {'best/best':>9}"
    lines += [head, "  " + "-" * (len(head) - 2)]
    for who, own in figures.items():
        for figure, values in own.items():
            if figure == "void":
                lines.append(f"  {who:28} void: {values}")
                continue
            if isinstance(values, dict):
                lines.append(f"  {who:28} {figure:36} " + ", ".join(f"{key} {value}" for key, value in values.items()))
                continue
            if not values:
                continue
            if isinstance(values[0], dict):
                medians = {key: statistics.median(one[key] for one in values if key in one) for key in values[-1]}
                lines.append(f"  {who:28} {figure:36} " + ", ".join(f"{key} {number(value)}" for key, value in medians.items()))
                continue
            median = statistics.median(values)
            line = f"  {who:28} {figure:36} {number(median):>10} {number(min(values)):>10} {number(max(values)):>10}"
            base = figures.get("naive", {}).get(figure)
            if base and figure.startswith(COMPARABLE):
                line += f" {median / statistics.median(base):8.2f} {min(values) / min(base):9.2f}"
            lines.append(line)
    return lines


class Conditions:
    """How much of the machine others used during a measurement, and how well the generator kept its pace."""

    def __init__(self, before, after, own_seconds, processors, traffic):
        wall = after.at - before.at
        self.steal = (after.steal - before.steal) / (wall * processors)
        self.others = max(0.0, (after.busy - before.busy - own_seconds) / (wall * processors))
        self.groups = sum(one["groups"] for one in traffic)
        self.late = sum(one["late_groups"] for one in traffic)
        self.worst_late_ms = max((one["worst_late_ns"] for one in traffic), default=0) / 1e6
        self.refused = sum(one["refused"] for one in traffic)

    def as_dict(self):
        return {
            "stolen_share": round(self.steal, 4),
            "share_of_others": round(self.others, 4),
            "groups_sent": self.groups,
            "groups_late_by_1_ms": self.late,
            "worst_late_ms": round(self.worst_late_ms, 3),
            "sends_refused": self.refused,
        }

    def warnings(self):
        found = []
        if self.steal > 0.005:
            found.append(f"the hypervisor took {100 * self.steal:.1f} % of the processors away")
        if self.others > 0.05:
            found.append(f"other programs used {100 * self.others:.0f} % of the processors")
        if self.groups and self.late > 0.001 * self.groups:
            found.append(
                f"the generator was more than 1 ms late {self.late} times of {self.groups} (worst {self.worst_late_ms:.1f} ms)"
            )
        if self.refused:
            found.append(f"the system refused {self.refused} sends for want of memory")
        return found


def write_json(directory, content):
    path = Path(directory) / "figures.json"
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(content, indent=1) + "\n", encoding="utf-8")
    return path
