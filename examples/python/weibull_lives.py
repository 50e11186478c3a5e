# %% [markdown]
# # How long does a ball bearing live?
# Weibull distribution of the lives of 23 ball bearings (Lieblein and Zelen, 1956) by maximum
# likelihood: the cells of a notebook as a script. Usage: weibull_lives.py bearings.csv [picture.png]

# %% The data: millions of revolutions before failure
import sys

import numpy as np

import tqnlp

lives = np.loadtxt(sys.argv[1], comments=("#", "life"))
print(f"{lives.size} lives from {lives.min():g} to {lives.max():g}, mean {lives.mean():.2f}")


# %% The likelihood of shape and scale, with its gradient
def minus_log_likelihood(x):
    shape, scale = x
    ratio = lives / scale
    power = ratio**shape
    value = lives.size * np.log(shape / scale) + ((shape - 1) * np.log(ratio) - power).sum()
    by_shape = lives.size / shape + (np.log(ratio) * (1 - power)).sum()
    by_scale = (power.sum() - lives.size) * shape / scale
    return -value, [-by_shape, -by_scale]


def value(x):
    return minus_log_likelihood(x)[0]


def slopes(x):
    return minus_log_likelihood(x)[1]


# %% Is the gradient right?
start = [1.0, lives.mean()]
print(tqnlp.check_derivatives(value, start, jac=slopes))

# %% The fit
found = tqnlp.minimize(value, start, jac=slopes, bounds=[(1e-6, None)] * 2,
                       options={"names": ["shape", "scale"]})
print(found)

# %% Standard errors from the Hessian, and limits of the profile likelihood, which see that the
# likelihood falls more slowly to one side
wald, profile = found.limits(0.95, "wald"), found.limits(0.95)
for error, near, exact in zip(found.stderr, wald, profile):
    print(f"{exact.name} {exact.estimate:8.4f} +- {error:.4f}, 95 % limits: "
          f"{near.lower:.3f} to {near.upper:.3f} (Wald), "
          f"{exact.lower:.3f} to {exact.upper:.3f} (profile)")

# %% The life that a tenth of the bearings does not reach
shape, scale = found.x
print(f"a tenth fails before {scale * (-np.log(0.9)) ** (1 / shape):.2f} million revolutions")

# %% The fit beside the data
if len(sys.argv) > 2:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    ages = np.linspace(0, 200, 300)
    steps = (np.arange(lives.size) + 0.5) / lives.size
    plt.plot(np.sort(lives), steps, "o", label="bearings")
    plt.plot(ages, 1 - np.exp(-((ages / scale) ** shape)), label="Weibull")
    plt.xlabel("millions of revolutions")
    plt.ylabel("share that has failed")
    plt.legend()
    plt.savefig(sys.argv[2])
