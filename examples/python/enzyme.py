"""The Michaelis-Menten curve of an enzyme, treated and untreated with puromycin.

The data and their source stand in examples/data/puromycin.csv.
Usage: enzyme.py puromycin.csv [picture.png]
"""

import csv
import sys

import numpy as np

import tqnlp


def velocity(concentration, most, half):
    return most * concentration / (half + concentration)


def read(path):
    with open(path, newline="") as file:
        rows = list(csv.DictReader(line for line in file if not line.startswith("#")))
    return {
        state: np.array(
            [(row["concentration"], row["velocity"]) for row in rows if row["treated"] == code],
            float,
        )
        for state, code in (("treated", "1"), ("untreated", "0"))
    }


def draw(path, data, fits):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    curve = np.linspace(0, 1.2, 200)
    for state, points in data.items():
        line = plt.plot(curve, velocity(curve, *fits[state]), label=state)[0]
        plt.plot(*points.T, "o", color=line.get_color())
    plt.xlabel("concentration [ppm]")
    plt.ylabel("rate [counts/min/min]")
    plt.legend()
    plt.savefig(path)


data = read(sys.argv[1])
fits = {}
for state, points in data.items():
    fits[state], _, result = tqnlp.curve_fit(velocity, *points.T, p0=[100, 0.1], full_output=True)
    print(f"{state}: {result.nit} iterations, {result.technique}; standard errors and 95 % limits")
    for limit, error in zip(result.limits(0.95), result.stderr):
        print(f"  {limit.name:4} {limit.estimate:10.5g} +- {error:8.3g}   "
              f"{limit.lower:.5g} to {limit.upper:.5g}")
if len(sys.argv) > 2:
    draw(sys.argv[2], data, fits)
