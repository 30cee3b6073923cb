"""How many times as much one figure is as another."""

import statistics


def ratio(key, ones, others):
    """The median of the ratios of each round. A machine may be another one from round to round, and the
    ratio of two medians would compare the good rounds of one with the bad ones of the other."""
    return statistics.median(one[key] / other[key] for one, other in zip(ones, others))
