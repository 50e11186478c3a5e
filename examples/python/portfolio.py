"""The portfolios of least risk for a wanted return.

The shares of six classes of assets are not negative and add up to 1; the variance of the return is a
quadratic in them, its mean is linear (Markowitz, 1952). The other way round, the most return for a
risk, is linear with a nonlinear constraint. Both must lead to the same portfolio. The data stand in
examples/data/returns.csv.

Usage: portfolio.py returns.csv [picture.png]
"""

import csv
import sys
from typing import NamedTuple

import numpy as np

import tqnlp


class Rows(NamedTuple):
    """Linear constraints lb <= A x <= ub, in the shape of SciPy's."""

    A: list
    lb: list
    ub: list


def read(path):
    with open(path, newline="") as file:
        names, *rows = csv.reader(line for line in file if not line.startswith("#"))
    return names, np.array(rows, float)


def least_variance(mean, covariance, wanted=-np.inf):
    """The least variance for at least the wanted mean; the price is variance a unit of mean."""
    whole = np.ones(mean.size)
    found = tqnlp.quadratic(
        2 * covariance,
        x0=whole / mean.size,
        bounds=[(0, None)] * mean.size,
        constraints=Rows([whole, mean], [1, wanted], [1, np.inf]),
    )
    return found.x, found.objective, found.multipliers.linear[1]


def most_return(mean, covariance, risk):
    """The largest mean for at most this risk; the reward is mean a unit of variance."""
    whole = np.ones(mean.size)
    limit = {
        "type": "ineq",
        "fun": lambda x: risk**2 - x @ covariance @ x,
        "jac": lambda x: -2 * covariance @ x,
    }
    found = tqnlp.minimize(
        lambda x: -mean @ x,
        whole / mean.size,
        jac=lambda x: -mean,
        bounds=[(0, 1)] * mean.size,
        constraints=[limit, Rows([whole], [1], [1])],
        tol=1e-9,
    )
    if not found.success:
        raise RuntimeError(found.message)
    return found.x, -found.fun, found.multipliers.nonlinear[0]


def draw(path, risks, means, shares, names):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    _, (above, below) = plt.subplots(2, sharex=True)
    above.plot(risks, means)
    above.set_ylabel("mean monthly return [percent]")
    below.stackplot(risks, np.transpose(shares), labels=names)
    below.set_xlabel("standard deviation of the monthly return [percent]")
    below.legend(fontsize="x-small")
    plt.savefig(path)


names, returns = read(sys.argv[1])
mean, covariance = returns.mean(axis=0), np.cov(returns, rowvar=False)
safest = least_variance(mean, covariance)[0]
frontier = []
print("   mean    risk    price   shares in percent:", ", ".join(names))
for wanted in np.linspace(mean @ safest, mean.max(), 11):
    shares, variance, price = least_variance(mean, covariance, wanted)
    frontier.append((variance**0.5, wanted, shares))
    print(f"{wanted:7.3f} {variance**0.5:7.3f} {price:8.3f}  ", *(f"{100 * s:5.1f}" for s in shares))

print("\nThe largest mean for a risk, and the least variance for that mean:")
for risk in (0.5, 1.0, 2.0):
    shares, most, reward = most_return(mean, covariance, risk)
    again, variance, price = least_variance(mean, covariance, most)
    print(f"{risk:7.3f} {most:7.3f} {1 / reward:8.3f}   {variance**0.5:.3f} at a price of {price:.3f}")
if len(sys.argv) > 2:
    draw(sys.argv[2], *map(list, zip(*frontier)), names)
