// The 27 nonlinear regression sets of NIST's Statistical Reference Datasets (1990s), with the
// values certified there to 11 digits: parameters, their standard deviations s sqrt(diag (J'J)^-1),
// and the residual sum of squares; s^2 = residual sum / (m - n).
#include <array>
#include <numbers>

#include "problems/nist_data.h"
#include "problems/problem.h"

namespace tqnlp::problems {

using namespace nist_data;
using std::atan;
using std::cos;
using std::exp;
using std::pow;
using std::sin;
using std::sqrt;
using Level = Regression::Level;

namespace {
// What the source says of a set.
struct Source {
  const char* name;
  Level level;
  std::vector<double> start_1, start_2, parameters, deviations;
  double residual_sum;
};
}  // namespace

// A set of responses y, predictors x(i), i from 0, and a model y = f(b, x).
template <typename Responses, typename Predictors, typename Model>
static Regression regression(const Source& set, const Responses& y, Predictors x, Model f) {
  const auto residuals = [y, x, f](auto b, auto r) {
    for (std::size_t i = 0; i < y.size(); ++i) r[i] = f(b, x(static_cast<long>(i))) - y[i];
  };
  const auto from = [&](const char* which, const std::vector<double>& start) {
    return residual_problem(set.name + std::string(which), static_cast<long>(y.size()), start,
                            {set.residual_sum}, residuals);
  };
  const long freedom = static_cast<long>(y.size()) - static_cast<long>(set.parameters.size());
  return {set.name,       set.level,      from(" 1", set.start_1), from(" 2", set.start_2),
          set.parameters, set.deviations, set.residual_sum,        freedom};
}

// ---- Predictors ---------------------------------------------------------------------------------

template <std::size_t M>
static auto listed(const std::array<double, M>& x) {
  return [&x](long i) { return x[static_cast<std::size_t>(i)]; };
}

static double count_from_1(long i) { return double(i + 1); }
static double twentieths(long i) { return double(i) / 20.0; }

// Eight times by four temperatures, each tried four times.
struct Ageing {
  double weeks, celsius;
};

static Ageing nelson_design(long i) {
  static constexpr double WEEKS[] = {1, 2, 4, 8, 16, 32, 48, 64}, CELSIUS[] = {180, 225, 250, 275};
  return {WEEKS[i / 16], CELSIUS[i / 4 % 4]};
}

// The model is one of the logarithm of the response.
static auto nelson_logs() {
  auto logs = nelson_y;
  for (double& y : logs) y = std::log(y);
  return logs;
}

// ---- Models of several sets ---------------------------------------------------------------------

static constexpr auto chwirut = [](auto b, double x) { return exp(-b[0] * x) / (b[1] + b[2] * x); };

static constexpr auto lanczos = [](auto b, double x) {
  return b[0] * exp(-b[1] * x) + b[2] * exp(-b[3] * x) + b[4] * exp(-b[5] * x);
};

// Two Gaussian peaks on an exponential decay.
static constexpr auto two_peaks = [](auto b, double x) {
  return b[0] * exp(-b[1] * x) + b[2] * exp(-square((x - b[3]) / b[4])) +
         b[5] * exp(-square((x - b[6]) / b[7]));
};

static constexpr auto cubic_by_cubic = [](auto b, double x) {
  return (b[0] + x * (b[1] + x * (b[2] + x * b[3]))) / (1.0 + x * (b[4] + x * (b[5] + x * b[6])));
};

// A year, and two cycles of unknown lengths b[3] and b[6].
static constexpr auto three_cycles = [](auto b, double x) {
  const double turn = 2.0 * std::numbers::pi * x;
  return b[0] + b[1] * std::cos(turn / 12.0) + b[2] * std::sin(turn / 12.0) +
         b[4] * cos(turn / b[3]) + b[5] * sin(turn / b[3]) + b[7] * cos(turn / b[6]) +
         b[8] * sin(turn / b[6]);
};

// ---- The sets -----------------------------------------------------------------------------------

static void lower_level(std::vector<Regression>& all) {
  all.push_back(regression({"Misra1a",
                            Level::lower,
                            {500, 0.0001},
                            {250, 0.0005},
                            {238.94212918, 0.00055015643181},
                            {2.7070075241, 7.2668688436e-06},
                            0.12455138894},
                           misra1_y, listed(misra1_x),
                           [](auto b, auto x) { return b[0] * (1.0 - exp(-b[1] * x)); }));
  all.push_back(regression({"Chwirut2",
                            Level::lower,
                            {0.1, 0.01, 0.02},
                            {0.15, 0.008, 0.01},
                            {0.16657666537, 0.0051653291286, 0.012150007096},
                            {0.03830328681, 0.00066621605126, 0.0015304234767},
                            513.04802941},
                           chwirut2_y, listed(chwirut2_x), chwirut));
  all.push_back(regression({"Chwirut1",
                            Level::lower,
                            {0.1, 0.01, 0.02},
                            {0.15, 0.008, 0.01},
                            {0.1902781837, 0.0061314004477, 0.010530908399},
                            {0.021938557035, 0.00034500025051, 0.00079281847748},
                            2384.4771393},
                           chwirut1_y, listed(chwirut1_x), chwirut));
  all.push_back(regression(
      {"Lanczos3",
       Level::lower,
       {1.2, 0.3, 5.6, 5.5, 6.5, 7.6},
       {0.5, 0.7, 3.6, 4.2, 4, 6.3},
       {0.086816414977, 0.95498101505, 0.84400777463, 2.9515951832, 1.5825685901, 4.9863565084},
       {0.017197908859, 0.097041624475, 0.041488663282, 0.10766312506, 0.058371576281,
        0.034436403035},
       1.6117193594e-08},
      lanczos3_y, twentieths, lanczos));
  all.push_back(regression({"Gauss1",
                            Level::lower,
                            {97, 0.009, 100, 65, 20, 70, 178, 16.5},
                            {94, 0.0105, 99, 63, 25, 71, 180, 20},
                            {98.778210871, 0.010497276517, 100.48990633, 67.481111276, 23.12977336,
                             71.994503004, 178.99805021, 18.389389025},
                            {0.5752731273, 0.00011406289017, 0.58831775752, 0.10460593412,
                             0.17439951146, 0.62622793913, 0.12436988217, 0.20134312832},
                            1315.8222432},
                           gauss1_y, count_from_1, two_peaks));
  all.push_back(regression({"Gauss2",
                            Level::lower,
                            {96, 0.009, 103, 106, 18, 72, 151, 18},
                            {98, 0.0105, 103, 105, 20, 73, 150, 20},
                            {99.018328406, 0.010994945399, 101.88022528, 107.03095519, 23.578584029,
                             72.045589471, 153.27010194, 19.525972636},
                            {0.53748766879, 0.00013335306766, 0.59217315772, 0.15006798316,
                             0.22695595067, 0.61721965884, 0.19466674341, 0.26416549393},
                            1247.5282092},
                           gauss2_y, count_from_1, two_peaks));
  all.push_back(regression({"DanWood",
                            Level::lower,
                            {1, 5},
                            {0.7, 4},
                            {0.76886226176, 3.8604055871},
                            {0.01828197386, 0.051726610913},
                            0.0043173084083},
                           danwood_y, listed(danwood_x),
                           [](auto b, auto x) { return b[0] * pow(x, b[1]); }));
  all.push_back(regression({"Misra1b",
                            Level::lower,
                            {500, 0.0001},
                            {300, 0.0002},
                            {337.99746163, 0.00039039091287},
                            {3.1643950207, 4.2547321834e-06},
                            0.075464681533},
                           misra1_y, listed(misra1_x), [](auto b, auto x) {
                             return b[0] * (1.0 - 1.0 / square(1.0 + b[1] * x / 2.0));
                           }));
}

static void average_level(std::vector<Regression>& all) {
  all.push_back(regression(
      {"Kirby2",
       Level::average,
       {2, -0.1, 0.003, -0.001, 1e-05},
       {1.5, -0.15, 0.0025, -0.0015, 2e-05},
       {1.6745063063, -0.13927397867, 0.0025961181191, -0.001724181187, 2.1664802578e-05},
       {0.087989634338, 0.0041182041386, 4.1856520458e-05, 5.8931897355e-05, 2.0129761919e-07},
       3.9050739624},
      kirby2_y, listed(kirby2_x), [](auto b, auto x) {
        return (b[0] + x * (b[1] + x * b[2])) / (1.0 + x * (b[3] + x * b[4]));
      }));
  all.push_back(regression({"Hahn1",
                            Level::average,
                            {10, -1, 0.05, -1e-05, -0.05, 0.001, -1e-06},
                            {1, -0.1, 0.005, -1e-06, -0.005, 0.0001, -1e-07},
                            {1.0776351733, -0.12269296921, 0.004086375061, -1.4262662514e-06,
                             -0.0057609940901, 0.00024053735503, -1.2314450199e-07},
                            {0.17070154742, 0.012000289189, 0.00022508314937, 2.7578037666e-07,
                             0.00024712888219, 1.0449373768e-05, 1.3027335327e-08},
                            1.5324382854},
                           hahn1_y, listed(hahn1_x), cubic_by_cubic));
  all.push_back(regression({"Nelson",
                            Level::average,
                            {2, 0.0001, -0.01},
                            {2.5, 5e-09, -0.05},
                            {2.5906836021, 5.6177717026e-09, -0.057701013174},
                            {0.019149996413, 6.112409654e-09, 0.0039572366543},
                            3.7976833176},
                           nelson_logs(), nelson_design, [](auto b, auto x) {
                             return b[0] - b[1] * x.weeks * exp(-b[2] * x.celsius);
                           }));
  all.push_back(regression(
      {"MGH17",
       Level::average,
       {50, 150, -100, 1, 2},
       {0.5, 1.5, -1, 0.01, 0.02},
       {0.37541005211, 1.9358469127, -1.4646871366, 0.01286753464, 0.022122699662},
       {0.0020723153551, 0.22031669222, 0.22175707739, 0.00044861358114, 0.00089471996575},
       5.4648946975e-05},
      mgh17_y, [](long i) { return 10.0 * double(i); },
      [](auto b, auto x) { return b[0] + b[1] * exp(-b[3] * x) + b[2] * exp(-b[4] * x); }));
  all.push_back(regression(
      {"Lanczos1",
       Level::average,
       {1.2, 0.3, 5.6, 5.5, 6.5, 7.6},
       {0.5, 0.7, 3.6, 4.2, 4, 6.3},
       {0.095100000027, 1.0000000001, 0.86070000013, 3.0000000002, 1.5575999998, 5.0000000001},
       {5.3347304234e-11, 2.7473038179e-10, 1.3576062225e-10, 3.3308253069e-10, 1.8815731448e-10,
        1.1057500538e-10},
       1.4307867721e-25},
      lanczos1_y, twentieths, lanczos));
  all.push_back(regression(
      {"Lanczos2",
       Level::average,
       {1.2, 0.3, 5.6, 5.5, 6.5, 7.6},
       {0.5, 0.7, 3.6, 4.2, 4, 6.3},
       {0.096251029939, 1.0057332849, 0.86424689056, 3.0078283915, 1.5529016879, 5.00287981},
       {0.00066770575477, 0.0033989646176, 0.0017185846685, 0.0041707005856, 0.0023744381417,
        0.0013958787284},
       2.2299428125e-11},
      lanczos2_y, twentieths, lanczos));
  all.push_back(regression({"Gauss3",
                            Level::average,
                            {94.9, 0.009, 90.1, 113, 20, 73.8, 140, 20},
                            {96, 0.0096, 80, 110, 25, 74, 139, 25},
                            {98.94036897, 0.010945879335, 100.69553078, 111.63619459, 23.300500029,
                             73.705031418, 147.76164251, 19.66822123},
                            {0.53005192833, 0.00012554058911, 0.81256587317, 0.35317859757,
                             0.36584783023, 1.2091239082, 0.40488183351, 0.37806634336},
                            1244.484636},
                           gauss3_y, count_from_1, two_peaks));
  all.push_back(regression({"Misra1c",
                            Level::average,
                            {500, 0.0001},
                            {600, 0.0002},
                            {636.42725809, 0.00020813627256},
                            {4.6638326572, 1.7728423155e-06},
                            0.040966836971},
                           misra1_y, listed(misra1_x), [](auto b, auto x) {
                             return b[0] * (1.0 - 1.0 / sqrt(1.0 + 2.0 * b[1] * x));
                           }));
  all.push_back(regression({"Misra1d",
                            Level::average,
                            {500, 0.0001},
                            {450, 0.0003},
                            {437.36970754, 0.00030227324449},
                            {3.6489174345, 2.9334354479e-06},
                            0.056419295283},
                           misra1_y, listed(misra1_x),
                           [](auto b, auto x) { return b[0] * b[1] * x / (1.0 + b[1] * x); }));
  all.push_back(regression({"Roszman1",
                            Level::average,
                            {0.1, -1e-05, 1000, -100},
                            {0.2, -5e-06, 1200, -150},
                            {0.20196866396, -6.1953516256e-06, 1204.4556708, -181.34269537},
                            {0.019172666023, 3.2058931691e-06, 74.050983057, 49.573513849},
                            0.00049484847331},
                           roszman1_y, listed(roszman1_x), [](auto b, auto x) {
                             return b[0] - b[1] * x - atan(b[2] / (x - b[3])) / std::numbers::pi;
                           }));
  all.push_back(
      regression({"ENSO",
                  Level::average,
                  {11, 3, 0.5, 40, -0.7, -1.3, 25, -0.3, 1.4},
                  {10, 3, 0.5, 44, -1.5, 0.5, 26, -0.1, 1.5},
                  {10.510749193, 3.0762128085, 0.53280138227, 44.3110887, -1.6231428586,
                   0.52554493756, 26.88761444, 0.21232288488, 1.4966870418},
                  {0.17488832467, 0.24310052139, 0.24354686618, 0.94408025976, 0.28078369611,
                   0.48073701119, 0.4161293913, 0.51460022911, 0.25434468893},
                  788.53978668},
                 enso_y, count_from_1, three_cycles));
}

static void higher_level(std::vector<Regression>& all) {
  all.push_back(regression({"MGH09",
                            Level::higher,
                            {25, 39, 41.5, 39},
                            {0.25, 0.39, 0.415, 0.39},
                            {0.19280693458, 0.19128232873, 0.12305650693, 0.13606233068},
                            {0.011435312227, 0.19633220911, 0.080842031232, 0.090025542308},
                            0.00030750560385},
                           mgh09_y, listed(mgh09_x), [](auto b, auto x) {
                             return b[0] * (x * x + x * b[1]) / (x * x + x * b[2] + b[3]);
                           }));
  all.push_back(regression({"Thurber",
                            Level::higher,
                            {1000, 1000, 400, 40, 0.7, 0.3, 0.03},
                            {1300, 1500, 500, 75, 1, 0.4, 0.05},
                            {1288.13968, 1491.0792535, 583.23836877, 75.416644291, 0.96629502864,
                             0.39797285797, 0.049727297349},
                            {4.6647963344, 39.571156086, 28.698696102, 5.567537027, 0.031333340687,
                             0.014984928198, 0.0065842344623},
                            5642.7082397},
                           thurber_y, listed(thurber_x), cubic_by_cubic));
  all.push_back(regression({"BoxBOD",
                            Level::higher,
                            {1, 1},
                            {100, 0.75},
                            {213.80940889, 0.54723748542},
                            {12.354515176, 0.10455993237},
                            1168.0088766},
                           boxbod_y, listed(boxbod_x),
                           [](auto b, auto x) { return b[0] * (1.0 - exp(-b[1] * x)); }));
  all.push_back(regression({"Rat42",
                            Level::higher,
                            {100, 1, 0.1},
                            {75, 2.5, 0.07},
                            {72.462237576, 2.6180768402, 0.067359200066},
                            {1.7340283401, 0.088295217536, 0.0034465663377},
                            8.0565229338},
                           rat42_y, listed(rat42_x),
                           [](auto b, auto x) { return b[0] / (1.0 + exp(b[1] - b[2] * x)); }));
  all.push_back(regression(
      {"MGH10",
       Level::higher,
       {2, 400000, 25000},
       {0.02, 4000, 250},
       {0.005609636471, 6181.3463463, 345.22363462},
       {0.00015687892471, 23.309021107, 0.78486103508},
       87.945855171},
      mgh10_y, [](long i) { return 50.0 + 5.0 * double(i); },
      [](auto b, auto x) { return b[0] * exp(b[1] / (x + b[2])); }));
  all.push_back(regression({"Eckerle4",
                            Level::higher,
                            {1, 10, 500},
                            {1.5, 5, 450},
                            {1.5543827178, 4.0888321754, 451.54121844},
                            {0.015408051163, 0.046803020753, 0.046800518816},
                            0.0014635887487},
                           eckerle4_y, listed(eckerle4_x), [](auto b, auto x) {
                             return b[0] / b[1] * exp(-0.5 * square((x - b[2]) / b[1]));
                           }));
  // The degrees of freedom are printed as 9; the deviations are those of 11.
  all.push_back(regression({"Rat43",
                            Level::higher,
                            {100, 10, 1, 1},
                            {700, 5, 0.75, 1.3},
                            {699.6415127, 5.2771253025, 0.75962938329, 1.2792483859},
                            {16.302297817, 2.0828735829, 0.19566123451, 0.68761936385},
                            8786.404908},
                           rat43_y, count_from_1, [](auto b, auto x) {
                             return b[0] / pow(1.0 + exp(b[1] - b[2] * x), 1.0 / b[3]);
                           }));
  all.push_back(regression({"Bennett5",
                            Level::higher,
                            {-2000, 50, 0.8},
                            {-1500, 45, 0.85},
                            {-2523.5058043, 46.736564644, 0.93218483193},
                            {297.15175411, 1.2448871856, 0.020272299378},
                            0.00052404744073},
                           bennett5_y, listed(bennett5_x),
                           [](auto b, auto x) { return b[0] * pow(b[1] + x, -1.0 / b[2]); }));
}

std::vector<Regression> nist_regressions() {
  std::vector<Regression> all;
  lower_level(all);
  average_level(all);
  higher_level(all);
  return all;
}

}  // namespace tqnlp::problems
