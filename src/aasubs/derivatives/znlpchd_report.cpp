// znlpchd, the report of a full test: the test vector, the histogram of the relative differences,
// and the largest of them by their places.
//
// The relative difference of an entry is |c| / (|h| + |c|) with c from the comparison matrix and h
// from the Hessian: 0 where they agree, 1 where nothing agrees.
//
// c is 0 for a gradient of the objective: truncation and rounding leave small relative differences
// of many sizes, a wrong derivative large ones. So the histogram counts their decimal logarithms,
// in bins of a quarter of a decade, and the two kinds stand apart as two heaps.
//
//   hess   h, packed         rval  a list to be sorted: logarithms, then the differences
//   hwrk   c, packed         freq  counts of the bins
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/znlpchd.h"
#include "aasubs/reports/report_tables.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;  // below it a number shows as blank
static constexpr double BIN_WIDTH = 0.25;                  // decades
static constexpr long MOST_REGULAR_BINS = 50;
static constexpr long FEW_BINS = 6;
static constexpr long MOST_LISTED = 20;

void rsort(long n, double* values) { std::sort(values, values + std::max(n, 0L)); }

// An entry that is no number agrees with nothing; two entries next to zero agree.
static double relative_difference(double h, double c) {
  const double sum = std::fabs(h) + std::fabs(c);
  if (!std::isfinite(sum)) return 1.0;
  return sum > TINY ? std::fabs(c) / sum : 0.0;
}

// ---- Test vector -------------------------------------------------------------------------------

// work holds the gradient, gold its test value. Both are shown in the user's sense.
void ptstvec(MINSTR* str) {
  RvxObject** table = &str->gtst;
  long number = 0;
  RvxText parameter{};
  double gradient = 0.0, test = 0.0;
  open_table(str->rvx, table, "GradTest", TITLE_GRADIENT_TEST);
  add_column(table, "Number", &number);
  add_column(table, "Parameter", &parameter);
  add_column(table, "Gradient", &gradient);
  add_column(table, "Test", &test);
  for (long j = 0; j < str->nvar && *table != nullptr; ++j) {
    number = j + 1;
    parameter = parameter_name(str, j);
    gradient = users_value(str, str->work[j]);
    test = users_value(str, str->gold[j]);
    add_row(table);
  }
  close_table(table);
}

void hdimout(const HDOUT* out) {
  const long n = out->pminst->nvar;
  xpsout("The gradient test compares %ld second derivatives of %ld parameters.", out->pminst->nnva,
         n);
}

// ---- Histogram ---------------------------------------------------------------------------------

// Bins of equal width over the sorted values, the first edge a multiple of the width.
struct Bins {
  double first;
  double width;
  long count;
};

// Quarters of a decade as long as 50 of them do; beyond that as many wider bins, or few when there
// are few values. One bin more may arise, as the first edge lies before the first value.
static Bins choose_bins(long count, const double* values) {
  const double span = values[count - 1] - values[0];
  double width = BIN_WIDTH;
  if (span >= BIN_WIDTH * static_cast<double>(MOST_REGULAR_BINS)) {
    const long bins = count < MOST_REGULAR_BINS ? FEW_BINS : MOST_REGULAR_BINS;
    width = std::max(span / static_cast<double>(bins), TINY);
  }
  const double first = width * std::floor(values[0] / width);
  const double places = std::floor((values[count - 1] - first) / width);
  const double most = HDOUT::MOST_BINS - 1;
  return {first, width, 1 + static_cast<long>(std::clamp(places, 0.0, most))};
}

void dishdif(MINSTR* str, HDOUT* out) {
  long count = 0;
  for (long k = 0; k < str->nnva; ++k) {
    const double r = relative_difference(out->hess[k], out->hwrk[k]);
    if (r > 0.0) out->rval[count++] = std::log10(r);
  }
  // Entries that agree to the last bit have no logarithm; if all do, there is nothing to show.
  if (count == 0) return;
  rsort(count, out->rval);
  const Bins bins = choose_bins(count, out->rval);
  std::fill_n(out->freq, HDOUT::MOST_BINS, 0L);
  for (long k = 0; k < count; ++k) {
    const long place = static_cast<long>((out->rval[k] - bins.first) / bins.width);
    ++out->freq[std::clamp(place, 0L, bins.count - 1)];
  }
  RvxObject** table = &str->pdisres;
  double lower = 0.0, upper = 0.0;
  long frequency = 0;
  open_table(str->rvx, table, "ResDistr", TITLE_DIFFERENCE_HISTOGRAM);
  add_column(table, "Lower", &lower);
  add_column(table, "Upper", &upper);
  add_column(table, "Frequency", &frequency);
  for (long b = 0; b < bins.count && *table != nullptr; ++b) {
    lower = bins.first + static_cast<double>(b) * bins.width;
    upper = lower + bins.width;
    frequency = out->freq[b];
    add_row(table);
  }
  close_table(table);
}

// ---- Largest differences -----------------------------------------------------------------------

// A number, or blank where it is next to nothing, alone or beside its partner: the digits of such a
// number are rounding errors, and would catch the eye.
static double shown(const MINSTR* str, double value, double other) {
  const double size = std::fabs(value);
  if (size <= ROOT_EPS || size <= ROOT_EPS * std::fabs(other)) return MISSING;
  return users_value(str, value);
}

void maxhdif(MINSTR* str, HDOUT* out) {
  for (long k = 0; k < str->nnva; ++k) {
    out->rval[k] = relative_difference(out->hess[k], out->hwrk[k]);
  }
  rsort(str->nnva, out->rval);
  // The threshold is the smallest of the MOST_LISTED largest; of equals the first places are
  // listed.
  out->tres = out->rval[std::max(str->nnva - MOST_LISTED, 0L)];
  RvxObject* table = nullptr;
  double hessian = 0.0, difference = 0.0, relative = 0.0;
  open_table(str->rvx, &table, "SymDifRO", TITLE_LARGEST_DIFFERENCES);
  add_column(&table, "Row", &out->irow);
  add_column(&table, "Column", &out->icol);
  add_column(&table, "Hessian", &hessian);
  add_column(&table, "Difference", &difference);
  add_column(&table, "Relative", &relative);
  long listed = 0;
  for (long i = 0; i < str->nvar; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double h = out->hess[zisub(i, j)];
      const double c = out->hwrk[zisub(i, j)];
      relative = relative_difference(h, c);
      if (relative < out->tres || relative == 0.0 || listed == MOST_LISTED || table == nullptr) {
        continue;
      }
      out->irow = static_cast<int>(i + 1);
      out->icol = static_cast<int>(j + 1);
      hessian = shown(str, h, c);
      difference = shown(str, c, h);
      add_row(&table);
      ++listed;
    }
  }
  close_table(&table);
}

}  // namespace tqnlp
