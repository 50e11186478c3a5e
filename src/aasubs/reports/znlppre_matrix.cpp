// znlppmt: PRints a MaTrix whose rows belong to parameters.
//
// The parameters run down the table, so that a table of a thousand parameters stays as narrow as
// one of two. Names that the user did not give are made in blocks of NAMES, so that the memory of
// the names does not grow with the problem.
//
//   nr >= 0            nr -3             nr -2
//   Parms  X1  X2      Parms  Estimate   Parms  Estimate  Grad
//   X1     a   b       X1     a          X1     a         d         pd = a b | d e
//   X2     c   d       X2     b          X2     b         e
//
// Callers pass the delivery object alone, without a record: the table is a local of write_matrix.
#include <algorithm>
#include <cstring>

#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"
#include "host/log.h"
#include "host/memory.h"

namespace tqnlp {

static constexpr long NAMES = 1000;
static constexpr long POINT_ALONE = -3;
static constexpr long POINT_AND_GRADIENT = -2;
// Answer of the host's memory service that the log shows when the names find no memory.
static constexpr int NO_MEMORY_FOR_NAMES = static_cast<int>(0x80000803U);

// A made-up name: up to seven characters, X and six digits.
struct Name {
  char text[8];
  long length;  // characters of the name
};

struct NameTable {
  const char* const* given;  // the user's names, or null
  Name* made;                // block of names made last; null: the user's names
  long first;                // number of the first name in the block, from 0; -1 none yet
};

// Makes the names from number first (from 0) to the end of its block or of all count names.
static void make_block(NameTable& names, long first, long count) {
  names.first = first;
  for (long k = 0; k < std::min(count - first, NAMES); ++k) {
    Name& name = names.made[k];
    name.length = znamfix(name.text, sizeof name.text, "X", first + k + 1);
  }
}

// Name of parameter j of count. Names are asked for in rising order, so that a block is made once a
// pass.
static RvxText name_of(NameTable& names, long j, long count) {
  if (names.given != nullptr) return unpadded(names.given[j]);
  const long first = j / NAMES * NAMES;
  if (first != names.first) make_block(names, first, count);
  const Name& name = names.made[j - first];
  RvxText cell{};
  std::memcpy(cell.text, name.text, static_cast<std::size_t>(name.length));
  return cell;
}

// Names of the data columns: onam alone for one column, else the parameters' names.
static void add_data_columns(RvxObject** table, const char* onam, long columns, NameTable& names,
                             const double* values) {
  for (long k = 0; k < columns && *table != nullptr; ++k) {
    const RvxText name = columns == 1 ? literal_text(onam) : name_of(names, k, columns);
    add_column(table, name.text, &values[k]);
  }
}

// The shape of what is printed: element (row, column) at pd[row * row_step + column * column_step].
struct Shape {
  long rows, columns, row_step, column_step;
};

// A point is a single column; behind it, nc values on, may stand its gradient as a second one.
static Shape shape_of(long nr, long nc) {
  if (nr == POINT_ALONE) return {nc, 1, 1, 0};
  if (nr == POINT_AND_GRADIENT) return {nc, 2, 1, nc};
  return {std::max(nr, 0L), std::max(nc, 0L), nc, 1};
}

// values is the row that the columns are bound to, one double a column.
static void write_matrix(RvxObject* rvx, const char* onam, long nr, const Shape& shape,
                         const double* pd, NameTable& names, double* values, int title) {
  RvxObject* table = nullptr;
  RvxText parameter{};
  open_table(rvx, &table, onam, title);
  add_column(&table, "Parms", &parameter);
  if (nr == POINT_ALONE || nr == POINT_AND_GRADIENT) {
    add_column(&table, "Estimate", &values[0]);
    if (nr == POINT_AND_GRADIENT) add_column(&table, "Grad", &values[1]);
  } else {
    add_data_columns(&table, onam, shape.columns, names, values);
  }
  for (long i = 0; i < shape.rows && table != nullptr; ++i) {
    parameter = name_of(names, i, std::max(shape.rows, shape.columns));
    for (long k = 0; k < shape.columns; ++k) {
      values[k] = pd[i * shape.row_step + k * shape.column_step];
    }
    add_row(&table);
  }
  close_table(&table);
}

void znlppmt(RvxObject* rvx, const char* onam, long nr, long nc, const double* pd,
             const char* const* pnam, int titl, int label) {
  if (rvx == nullptr || pd == nullptr) return;
  const Shape shape = shape_of(nr, nc);
  const long longest = std::max({shape.rows, shape.columns, 1L});
  NameTable names{pnam, nullptr, -1};
  auto* values = static_cast<double*>(
      vmalloc_handler(static_cast<std::size_t>(std::max(shape.columns, 1L)) * sizeof(double), 0));
  if (pnam == nullptr) {
    names.made = static_cast<Name*>(
        vmalloc_handler(static_cast<std::size_t>(std::min(longest, NAMES)) * sizeof(Name), 0));
  }
  // Without memory the report is dropped, with the host's line in the log; the run goes on.
  if (values == nullptr || (pnam == nullptr && names.made == nullptr)) {
    xprrlog(0, NO_MEMORY_FOR_NAMES);
  } else {
    write_matrix(rvx, onam, nr, shape, pd, names, values, titl != 0 ? label : 0);
  }
  vmfree_handler(names.made);
  vmfree_handler(values);
}

}  // namespace tqnlp
