"""What Varnic wants to reach, and whether a run has reached it."""

import dataclasses
import statistics
from typing import Optional

from ratio import ratio
from systems import BYTES, CPU, P50, RATE

# The best of these, for each figure.
GRPC = ("grpc++ sync", "grpc++ callback", "grpc++ async")
ECHO = ("epoll echo",)
REDIS = ("redis",)


@dataclasses.dataclass(frozen=True)
class Bar:
    """For one figure of one row: a bound of Varnic's own, or of how many times it is as much as that
    of the best of the systems in `beside` in the same round."""
    row: str
    figure: tuple
    beside: tuple = ()
    at_most: Optional[float] = None
    at_least: Optional[float] = None

    def text(self):
        return f"at most {self.at_most:,g}" if self.at_least is None else f"at least {self.at_least:g}"

    def is_met(self, value):
        return value <= self.at_most if self.at_least is None else value >= self.at_least


BARS = [
    Bar("unary-unix", P50, ECHO, at_most=1.6),
    Bar("unary-unix", CPU, GRPC, at_most=0.5),
    Bar("calls-100", RATE, GRPC, at_least=7),
    Bar("calls-100", CPU, at_most=1.1),
    Bar("question", P50, ECHO, at_most=1.6),
    Bar("questions-100", RATE, GRPC, at_least=8),
    Bar("events-1000", P50, GRPC, at_most=0.1),
    Bar("events-1000", RATE, GRPC, at_least=12),
    Bar("events-1000-connections", P50, REDIS, at_most=1),
    Bar("client-100", RATE, GRPC, at_least=4),
    Bar("memory-stream", BYTES, at_most=4096),
    Bar("memory-connection", BYTES, at_most=24576),
]


def read(measured):
    """Of each bar that `measured` (by row and system, a list of figures for each round) has the
    figures for: what came out, and whether it is met."""
    readings = [reading(bar, measured.get(bar.row, {})) for bar in BARS]
    return [one for one in readings if one is not None]


def reading(bar, measured):
    key, heading, less_is_better = bar.figure
    others = [name for name in bar.beside if measured.get(name)]
    if not measured.get("varnic") or (bar.beside and not others):
        return None

    def median(system):
        return statistics.median(figures[key] for figures in measured[system])

    ours = median("varnic")
    result = {"row": bar.row, "figure": heading, "varnic": ours, "bar": bar.text()}
    if not bar.beside:
        return {**result, "met": bar.is_met(ours)}
    best = (min if less_is_better else max)(others, key=median)
    times = ratio(key, measured["varnic"], measured[best])
    return {**result, "beside": best, "theirs": median(best), "ratio": times,
            "met": bar.is_met(times)}
