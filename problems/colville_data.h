// Data of Colville's first problem and of its dual: the objective LINEAR'x + sum of CUBIC_j x_j^3 +
// x'QUADRATIC x on ROWS x >= RIGHT, x >= 0.
#pragma once

namespace tqnlp::problems {

inline constexpr double COLVILLE_LINEAR[] = {-15, -27, -36, -18, -12};
inline constexpr double COLVILLE_CUBIC[] = {4, 8, 10, 6, 2};
inline constexpr double COLVILLE_QUADRATIC[5][5] = {{30, -20, -10, 32, -10},
                                                    {-20, 39, -6, -31, 32},
                                                    {-10, -6, 10, -6, -10},
                                                    {32, -31, -6, 39, -20},
                                                    {-10, 32, -10, -20, 30}};
inline constexpr double COLVILLE_ROWS[10][5] = {
    {-16, 2, 0, 1, 0},    {0, -2, 0, 0.4, 2}, {-3.5, 0, 2, 0, 0},   {0, -2, 0, -4, -1},
    {0, -9, -2, 1, -2.8}, {2, 0, -4, 0, 0},   {-1, -1, -1, -1, -1}, {-1, -2, -3, -2, -1},
    {1, 2, 3, 4, 5},      {1, 1, 1, 1, 1}};
inline constexpr double COLVILLE_RIGHT[] = {-40, -2, -0.25, -4, -4, -1, -40, -60, 5, 1};

}  // namespace tqnlp::problems
