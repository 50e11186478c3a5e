"""The best of many minima, by runs on a Dask cluster.

Thirteen atoms that attract and repel one another in pairs (Lennard-Jones, 1924) settle into one of
a great number of shapes; that of least energy, an icosahedron with an atom in its middle, has the
energy -44.326801 (Hoare and Pal, 1971). Each start is a random cloud; the same shape turned round
is another point, so shapes are told apart by their energies. The cluster is one of this machine; on
another one give its address.

Usage: multistart_dask.py [address of a scheduler]
"""

import sys
from contextlib import nullcontext

import numpy as np

import tqnlp

ATOMS = 13
STARTS = 40


def energy(x):
    """Energy of the cloud at coordinates x of shape (3 * ATOMS,), and its gradient."""
    places = x.reshape(ATOMS, 3)
    apart = places[:, None] - places[None]
    square = (apart**2).sum(axis=2) + np.eye(ATOMS)
    sixth = square**-3
    np.fill_diagonal(sixth, 0.0)
    pull = (24 * sixth - 48 * sixth**2) / square
    return 2 * (sixth**2 - sixth).sum(), (pull[:, :, None] * apart).sum(axis=1).ravel()


def main():
    from distributed import Client, LocalCluster

    problem = tqnlp.Problem(energy, jac=True, tol=1e-7)
    clouds = np.random.default_rng(5).uniform(-1.7, 1.7, (STARTS, 3 * ATOMS))
    arrived = []
    workers = {"n_workers": 2, "threads_per_worker": 1, "dashboard_address": None}
    elsewhere = len(sys.argv) > 1
    with nullcontext(sys.argv[1]) if elsewhere else LocalCluster(**workers) as cluster:
        with Client(cluster) as client:
            found = tqnlp.multistart(
                problem, clouds, client.get_executor(), on_result=lambda i, end: arrived.append(i)
            )
    print(f"{len(arrived)} runs ended, in {len(found.solutions)} places; the lowest energies:")
    lowest = {}
    for solution in found.solutions:
        rounded = round(solution.result.fun, 4)
        lowest[rounded] = lowest.get(rounded, 0) + len(solution.starts)
    for value in sorted(lowest)[:5]:
        print(f"{value:12.4f}  from {lowest[value]} starts")
    places = found.best.x.reshape(ATOMS, 3)
    ordered = sorted(np.linalg.norm(places - places.mean(axis=0), axis=1))
    print(f"one atom in the middle ({ordered[0]:.4f}), the others {ordered[1]:.4f} around it")


if __name__ == "__main__":
    main()
