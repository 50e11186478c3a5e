#!/usr/bin/env python3
"""tqnlp beside scipy.optimize on the problems of problems.py, one after the other in one run.

    cmake --preset release && cmake --build build/release --target tqnlp_python
    PYTHONPATH=build/release/python OPENBLAS_NUM_THREADS=1 /usr/bin/python3 bench/python/compare.py

prints a table a class of problems. A solver has solved a problem at its first evaluation of a point
x with f(x) - f* <= 1e-8 max(1, |f*|) and no constraint violated by more than 1e-8, where f* is the
known minimum that it ended in. Time and calls count until there: calls of functions, gradients and
Jacobians (where none is given, those for differences; constraints are called along with the
objective and not counted). Everybody gets tolerances of about 1e-10 and no limit that matters.

  solved   problems solved
  calls    median over the problems of calls / fewest calls of any solver there
  time     median of time / shortest time there; a problem that is not solved counts as infinite
  us       median of the time itself over the problems that this solver solved
  whole    median of the time until the solver returns

Times are those of the processor, so that other work on the machine disturbs little. They hold what a
call of the wrapped functions costs, which is alike for all.
"""

import argparse
import math
import statistics
import time
import warnings

import numpy as np
import problems
import scipy.optimize

import tqnlp

LIMIT = 20.0  # [s] of a single run


class Watched:
    """Counts the calls of a problem's functions and keeps time, point and value of each."""

    def __init__(self, problem):
        self.problem = problem
        self.trace = []
        self.derivatives = []
        self.started = time.thread_time()

    def _keep(self, x, value):
        now = time.thread_time()
        self.trace.append((now, value, x.copy()))
        if now - self.started > LIMIT:
            raise TimeoutError

    def fun(self, x):
        value = self.problem.fun(x)
        self._keep(x, value)
        return value

    def residuals(self, x):
        values = self.problem.residuals(x)
        self._keep(x, float(values @ values))
        return values

    def model(self, t, *b):
        values = self.problem.model(t, *b)
        r = values - self.problem.data[1]
        self._keep(np.array(b), float(r @ r))
        return values

    def _derivative(self, value):
        self.derivatives.append(time.thread_time())
        return value

    def grad(self, x):
        return self._derivative(self.problem.grad(x))

    def jacobian(self, x):
        return self._derivative(self.problem.jacobian(x))

    def hess(self, x):
        return self._derivative(self.problem.hess(x))

    def hit(self):
        """(calls, seconds) until the first point that is as good as the minimum it ended in."""
        best = min(
            (v for _, v, x in self.trace[-200:] if self.problem.violation(x) <= 1e-8),
            default=math.inf,
        )
        goals = [m + 1e-8 * max(1.0, abs(m)) for m in self.problem.minima]
        goal = max((g for g in goals if g - 3e-8 * max(1.0, abs(g)) <= best <= g), default=-math.inf)
        for k, (now, value, x) in enumerate(self.trace):
            if value <= goal and self.problem.violation(x) <= 1e-8:
                calls = k + 1 + sum(1 for t in self.derivatives if t <= now)
                return calls, now - self.started
        return math.inf, math.inf


# ---- Solvers ------------------------------------------------------------------------------------


def forms(problem, watched, given):
    """Bounds and constraints in the old form, which every solver takes."""
    said = {}
    if problem.bounds is not None:
        said["bounds"] = problem.bounds
    if problem.constraints is None:
        return said
    e, blocks = problem.equalities, []
    count = problem.values(np.array(problem.x0, dtype=float)).size
    for kind, part in (("eq", slice(0, e)), ("ineq", slice(e, None))):
        if (kind == "eq" and e) or (kind == "ineq" and count > e):
            block = {"type": kind, "fun": lambda x, part=part: problem.values(x)[part]}
            if given:
                block["jac"] = lambda x, part=part: problem.normals(x)[part]
            blocks.append(block)
    return {**said, "constraints": blocks}


def scipy_solver(method, given, options):
    def run(problem, watched):
        said = forms(problem, watched, given and method != "COBYLA")
        if method == "COBYLA":
            said["constraints"] = inequalities(problem)
            said.pop("bounds", None)
        if given:
            said["jac"] = watched.grad
        if given == 2:
            said["hess"] = watched.hess
        scipy.optimize.minimize(watched.fun, problem.x0, method=method, options=options, **said)

    return run


def inequalities(problem):
    """What COBYLA of this SciPy takes: inequalities alone."""
    blocks = []
    if problem.constraints is not None:
        e = problem.equalities
        blocks.append({"type": "ineq", "fun": problem.values})
        if e:
            blocks.append({"type": "ineq", "fun": lambda x: -problem.values(x)[:e]})
    for j, (low, high) in enumerate(problem.bounds or ()):
        if np.isfinite(low):
            blocks.append({"type": "ineq", "fun": lambda x, j=j, low=low: x[j] - low})
        if np.isfinite(high):
            blocks.append({"type": "ineq", "fun": lambda x, j=j, high=high: high - x[j]})
    return blocks


def our_solver(method, given, options=None):
    def run(problem, watched):
        said = forms(problem, watched, given)
        if given:
            said["jac"] = watched.grad
        if given == 2:
            said["hess"] = watched.hess
        tqnlp.minimize(
            watched.fun, problem.x0, method=method, options=OURS if options is None else options,
            **said,
        )  # fmt: skip

    return run


OURS = {
    "gradient_tolerance": 1e-10,
    "relative_gradient_tolerance": 1e-14,
    "iterations": 10000,
    "calls": 20000,
}
SIMPLEX = {"relative_objective_tolerance": 1e-15, "step_tolerance": 1e-10, **OURS}
for name in ("gradient_tolerance", "relative_gradient_tolerance"):
    del SIMPLEX[name]


def squares(ours, given, method):
    def run(problem, watched):
        jac = watched.jacobian if given else None
        if ours:
            tqnlp.least_squares(
                watched.residuals, problem.x0, jac or "2-point", method=method, options=OURS
            )
            return
        tight = {"ftol": 1e-15, "xtol": 1e-15, "gtol": 1e-12, "max_nfev": 5000}
        scipy.optimize.least_squares(
            watched.residuals, problem.x0, jac or "2-point", method=method, x_scale="jac", **tight
        )

    return run


def fit(ours, method):
    def run(problem, watched):
        t, y = problem.data
        if ours:
            tqnlp.curve_fit(watched.model, t, y, problem.x0, method=method)
        else:
            more = {"maxfev": 20000} if method == "lm" else {"max_nfev": 5000, "x_scale": "jac"}
            scipy.optimize.curve_fit(watched.model, t, y, problem.x0, method=method, **more)

    return run


def classes():
    free, bounded = problems.more_garbow_hillstrom(), problems.bounded()
    constrained, nist = problems.constrained(), problems.nist()
    many = {"maxiter": 5000}
    bfgs, lbfgsb = {"gtol": 1e-10, **many}, {"gtol": 1e-10, "ftol": 1e-15, "maxfun": 50000, **many}
    slsqp, simplex = {"ftol": 1e-15, **many}, {"xatol": 1e-10, "fatol": 1e-15, "maxfev": 20000}
    tnc = {"gtol": 1e-10, "ftol": 1e-15, "xtol": 1e-15, "maxfun": 20000}
    cobyla = {"tol": 1e-9, "maxiter": 20000}
    interior = {"gtol": 1e-10, "xtol": 1e-12, "maxiter": 2000}
    yield "Unconstrained, gradients given", free, {
        "tqnlp auto": our_solver("auto", 1),
        "tqnlp conjugate_gradient": our_solver("conjugate_gradient", 1),
        "BFGS": scipy_solver("BFGS", 1, bfgs),
        "L-BFGS-B": scipy_solver("L-BFGS-B", 1, lbfgsb),
        "SLSQP": scipy_solver("SLSQP", 1, slsqp),
        "CG": scipy_solver("CG", 1, bfgs),
    }
    yield "Unconstrained, gradients and Hessians given", free, {
        "tqnlp auto": our_solver("auto", 2),
        "tqnlp newton_ridge": our_solver("newton_ridge", 2),
        "tqnlp trust_region": our_solver("trust_region", 2),
        "trust-exact": scipy_solver("trust-exact", 2, bfgs),
        "Newton-CG": scipy_solver("Newton-CG", 2, {"xtol": 1e-12, **many}),
    }
    yield "Unconstrained, no derivatives given", free, {
        "tqnlp auto": our_solver("auto", 0),
        "BFGS": scipy_solver("BFGS", 0, bfgs),
        "L-BFGS-B": scipy_solver("L-BFGS-B", 0, lbfgsb),
        "SLSQP": scipy_solver("SLSQP", 0, slsqp),
    }
    yield "Unconstrained, no derivatives used", free, {
        "tqnlp nelder_mead": our_solver("nelder_mead", 0, SIMPLEX),
        "tqnlp cobyla": our_solver("cobyla", 0, SIMPLEX),
        "Nelder-Mead": scipy_solver("Nelder-Mead", 0, {**simplex, "maxiter": 20000}),
        "COBYLA": scipy_solver("COBYLA", 0, cobyla),
    }
    yield "Bounds, gradients given", bounded, {
        "tqnlp auto": our_solver("auto", 1),
        "L-BFGS-B": scipy_solver("L-BFGS-B", 1, lbfgsb),
        "SLSQP": scipy_solver("SLSQP", 1, slsqp),
        "TNC": scipy_solver("TNC", 1, tnc),
    }
    yield "Nonlinear constraints, gradients given", constrained, {
        "tqnlp auto": our_solver("auto", 1),
        "tqnlp watchdog": our_solver("watchdog", 1),
        "SLSQP": scipy_solver("SLSQP", 1, slsqp),
        "trust-constr": scipy_solver("trust-constr", 1, interior),
    }
    yield "Nonlinear constraints, no derivatives given", constrained, {
        "tqnlp auto": our_solver("auto", 0),
        "tqnlp cobyla": our_solver("cobyla", 0, SIMPLEX),
        "SLSQP": scipy_solver("SLSQP", 0, slsqp),
        "COBYLA": scipy_solver("COBYLA", 0, cobyla),
    }
    yield "Least squares, Jacobians given", free, {
        "tqnlp auto": squares(True, 1, "auto"),
        "least_squares lm": squares(False, 1, "lm"),
        "least_squares trf": squares(False, 1, "trf"),
    }
    yield "Regressions of NIST, two starts, Jacobians given", nist, {
        "tqnlp auto": squares(True, 1, "auto"),
        "least_squares lm": squares(False, 1, "lm"),
        "least_squares trf": squares(False, 1, "trf"),
    }
    yield "The same by curve_fit, no derivatives, all defaults", nist, {
        "tqnlp.curve_fit": fit(True, None),
        "curve_fit lm": fit(False, "lm"),
        "curve_fit trf": fit(False, "trf"),
    }


# ---- Runs and tables ----------------------------------------------------------------------------


def measure(problem, solver, repeats):
    """(calls, seconds to the solution, seconds of the whole run), the shortest of the repeats."""
    calls, seconds, whole = math.inf, math.inf, math.inf
    for _ in range(repeats):
        watched = Watched(problem)
        try:
            solver(problem, watched)
        except Exception:  # what was evaluated until then counts
            pass
        whole = min(whole, time.thread_time() - watched.started)
        hit = watched.hit()
        calls, seconds = min(calls, hit[0]), min(seconds, hit[1])
        if whole > 0.5:
            break
    return calls, seconds, whole


def ratio(value, best):
    return value / best if math.isfinite(value) else math.inf


def show(title, found, details):
    """found: {solver: {problem: measured}}."""
    names = list(next(iter(found.values())))
    fewest = {p: min(rows[p][0] for rows in found.values()) for p in names}
    shortest = {p: min(rows[p][1] for rows in found.values()) for p in names}
    print(f"\n**{title}** ({len(names)} problems)\n")
    print("| | solved | calls | time | us | whole |\n|---|---:|---:|---:|---:|---:|")
    for solver, rows in found.items():
        hits = [rows[p][1] for p in names if math.isfinite(rows[p][1])]
        calls = statistics.median(ratio(rows[p][0], fewest[p]) for p in names)
        times = statistics.median(ratio(rows[p][1], shortest[p]) for p in names)
        mid = statistics.median(hits) * 1e6 if hits else math.inf
        whole = statistics.median(rows[p][2] for p in names) * 1e6
        print(f"| {solver} | {len(hits)} | {calls:.2f} | {times:.2f} | {mid:.0f} | {whole:.0f} |")
    for p in names if details else ():
        row = "  ".join(f"{rows[p][0]:6.0f} {rows[p][1] * 1e6:8.0f}" for rows in found.values())
        print(f"{p:32s} {row}")


def overhead():
    """Time of a run that is not the user's, a call, and of a run that has nothing to do."""
    print("\n**Overhead**: us of a run less those in the functions, a call; us of a run of one step\n")
    print("| | n = 2 | n = 10 | n = 50 | one step |\n|---|---:|---:|---:|---:|")
    solvers = {"tqnlp auto": None, "BFGS": "BFGS", "L-BFGS-B": "L-BFGS-B", "SLSQP": "SLSQP"}
    for name, method in solvers.items():
        call = tqnlp.minimize if method is None else scipy.optimize.minimize
        said = {"method": method or "auto", "jac": scipy.optimize.rosen_der}
        cells = [f"{per_call(call, said, n):.1f}" for n in (2, 10, 50)]
        line = {"method": method or "auto", "jac": lambda x: 2.0 * x}
        run = shortest_of(200, lambda: call(lambda x: float(x @ x), [1.0, 1.0], **line))
        print(f"| {name} | " + " | ".join(cells) + f" | {run * 1e6:.0f} |")


def shortest_of(repeats, run):
    best = math.inf
    for _ in range(repeats):
        start = time.thread_time()
        run()
        best = min(best, time.thread_time() - start)
    return best


def per_call(call, said, n):
    x0 = np.tile([-1.2, 1.0], n // 2)
    inside, calls = [0.0], [0]

    def timed(function):
        def run(x):
            start = time.thread_time()
            value = function(x)
            inside[0] += time.thread_time() - start
            calls[0] += 1
            return value

        return run

    said = {**said, "jac": timed(said["jac"])}
    best = math.inf
    for _ in range(20):
        inside[0], calls[0] = 0.0, 0
        start = time.thread_time()
        call(timed(scipy.optimize.rosen), x0, **said)
        best = min(best, (time.thread_time() - start - inside[0]) / calls[0])
    return best * 1e6


def main():
    asked = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    asked.add_argument("--repeats", type=int, default=3)
    asked.add_argument("--details", action="store_true", help="calls and us of each problem too")
    asked.add_argument("--only", default="", help="classes whose title has this text")
    asked = asked.parse_args()
    warnings.simplefilter("ignore")
    np.seterr(all="ignore")
    if asked.only.lower() in "overhead":
        overhead()
    for title, set_, solvers in classes():
        if asked.only.lower() not in title.lower():
            continue
        found = {
            name: {p.name: measure(p, solver, asked.repeats) for p in set_}
            for name, solver in solvers.items()
        }
        show(title, found, asked.details)


if __name__ == "__main__":
    main()
