// matrix: the public Matrix.
//
//   rows_ cols_   1 x 1 number     single_, values_ empty
//                 other numbers    values_, by rows; empty where rows * cols is 0
//                 character        text_; 1 x 1, and no numbers
//
// A single number, which most modules return, stands in the object itself and takes no memory;
// all other shapes keep their numbers in a vector. Every way to make a matrix checks its shape, so
// that rows * cols never overflows afterwards.
#include <cmath>
#include <limits>
#include <ostream>

#include "aasubs/record/missing.h"
#include "embed/messages.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {

const double missing = MISSING;

bool is_missing(double value) { return wzmis(value); }

static std::string shape_text(long rows, long cols) {
  return std::to_string(rows) + "x" + std::to_string(cols);
}

// ---- Making a matrix ----------------------------------------------------------------------------

// Number of elements of a matrix of this shape, which must be one that memory can hold.
static std::size_t checked_size(long rows, long cols) {
  if (rows < 0 || cols < 0)
    throw std::invalid_argument("Matrix: a shape of " + shape_text(rows, cols) +
                                " has a negative size");
  constexpr long LARGEST = std::numeric_limits<long>::max() / static_cast<long>(sizeof(double));
  if (cols > 0 && rows > LARGEST / cols)
    throw std::invalid_argument("Matrix: a shape of " + shape_text(rows, cols) +
                                " is larger than memory can be");
  return static_cast<std::size_t>(rows * cols);
}

Matrix::Matrix(long rows, long cols) : rows_(rows), cols_(cols) {
  const std::size_t size = checked_size(rows, cols);
  // One element is single_, which starts at zero; none needs no place.
  if (size > 1) values_.resize(size);
}

Matrix::Matrix(long rows, long cols, std::vector<double> by_rows) : rows_(rows), cols_(cols) {
  if (checked_size(rows, cols) != by_rows.size())
    throw std::invalid_argument("Matrix: " + std::to_string(by_rows.size()) +
                                " numbers do not fill a shape of " + shape_text(rows, cols));
  if (by_rows.size() == 1)
    single_ = by_rows[0];
  else
    values_ = std::move(by_rows);
}

Matrix::Matrix(std::initializer_list<Number> row)
    : Matrix(1, static_cast<long>(row.size()), std::vector<double>(row.begin(), row.end())) {}

// From rows that are written out; all must have the length of the first.
static std::vector<double> joined(std::initializer_list<std::initializer_list<Number>> rows) {
  std::vector<double> values;
  for (const auto& row : rows) {
    if (row.size() != rows.begin()->size())
      throw std::invalid_argument("Matrix: a row has " + std::to_string(row.size()) +
                                  " numbers, the first one " +
                                  std::to_string(rows.begin()->size()));
    values.insert(values.end(), row.begin(), row.end());
  }
  return values;
}

Matrix::Matrix(std::initializer_list<std::initializer_list<Number>> rows)
    : Matrix(static_cast<long>(rows.size()),
             rows.size() == 0 ? 0 : static_cast<long>(rows.begin()->size()), joined(rows)) {}

Matrix::Matrix(const char* name) : rows_(1), cols_(1), character_(true) {
  if (name == nullptr) throw std::invalid_argument("Matrix: a null pointer is no name");
  text_ = name;
}

Matrix::Matrix(std::string name) : rows_(1), cols_(1), text_(std::move(name)), character_(true) {}

// A matrix that was moved from is empty, and may be used again. That is why the moves are written
// out: the sizes would stay, and promise numbers that are gone.
Matrix::Matrix(Matrix&& from) noexcept
    : rows_(std::exchange(from.rows_, 0)),
      cols_(std::exchange(from.cols_, 0)),
      single_(from.single_),
      values_(std::move(from.values_)),
      text_(std::move(from.text_)),
      character_(std::exchange(from.character_, false)) {}

Matrix& Matrix::operator=(Matrix&& from) noexcept {
  if (this == &from) return *this;
  rows_ = std::exchange(from.rows_, 0);
  cols_ = std::exchange(from.cols_, 0);
  single_ = from.single_;
  values_ = std::move(from.values_);
  text_ = std::move(from.text_);
  character_ = std::exchange(from.character_, false);
  return *this;
}

// A list without numbers makes an empty matrix, which stands for an absent argument.
Matrix Matrix::row(std::vector<double> values) {
  const auto count = static_cast<long>(values.size());
  return count == 0 ? Matrix() : Matrix(1, count, std::move(values));
}

Matrix Matrix::col(std::vector<double> values) {
  const auto count = static_cast<long>(values.size());
  return count == 0 ? Matrix() : Matrix(count, 1, std::move(values));
}

Matrix Matrix::scalar(double value) {
  Matrix result;
  result.rows_ = result.cols_ = 1;
  result.single_ = value;
  return result;
}

Matrix Matrix::filled(long rows, long cols, double value) {
  return Matrix(rows, cols, std::vector<double>(checked_size(rows, cols), value));
}

Matrix Matrix::identity(long n) {
  Matrix result(n, n);
  for (long i = 0; i < n; ++i) result(i, i) = 1.0;
  return result;
}

Matrix Matrix::of(std::initializer_list<std::initializer_list<Number>> rows) {
  return Matrix(rows);
}

// ---- Access -------------------------------------------------------------------------------------

const std::string& Matrix::text() const {
  if (!character_) throw std::invalid_argument("Matrix: a numeric matrix has no text");
  return text_;
}

// Null where there are no numbers, so that begin() == end() holds there too.
double* Matrix::data() { return character_ || empty() ? nullptr : data_unchecked(); }
const double* Matrix::data() const { return character_ || empty() ? nullptr : data_unchecked(); }
double* Matrix::end() { return character_ || empty() ? nullptr : data_unchecked() + size(); }
const double* Matrix::end() const {
  return character_ || empty() ? nullptr : data_unchecked() + size();
}

std::vector<double> Matrix::values() const { return std::vector<double>(begin(), end()); }

Matrix Matrix::transposed() const {
  if (character_) return *this;
  Matrix result(cols_, rows_);
  for (long i = 0; i < rows_; ++i)
    for (long j = 0; j < cols_; ++j) result(j, i) = (*this)(i, j);
  return result;
}

// The failing half of the index checks, out of line: the checks themselves are inlined everywhere.
void Matrix::refuse_index(long i, long j) const {
  if (character_) throw std::invalid_argument("Matrix: a character matrix has no numbers");
  throw std::out_of_range("Matrix: element (" + std::to_string(i) + ", " + std::to_string(j) +
                          ") is outside of a " + shape_text(rows_, cols_) + " matrix");
}

void Matrix::refuse_index(long k) const {
  if (character_) throw std::invalid_argument("Matrix: a character matrix has no numbers");
  throw std::out_of_range("Matrix: element " + std::to_string(k) + " is outside of a " +
                          shape_text(rows_, cols_) + " matrix");
}

// By elements, not by bytes: 0 equals -0, and all NaN are alike.
bool operator==(const Matrix& a, const Matrix& b) {
  if (a.rows_ != b.rows_ || a.cols_ != b.cols_ || a.character_ != b.character_) return false;
  if (a.character_) return a.text_ == b.text_;
  const double* other = b.begin();
  for (const double value : a) {
    const bool same = value == *other || (std::isnan(value) && std::isnan(*other));
    if (!same) return false;
    ++other;
  }
  return true;
}

std::ostream& operator<<(std::ostream& out, const Matrix& matrix) {
  if (matrix.is_character()) return out << matrix.text();
  for (long i = 0; i < matrix.rows(); ++i) {
    for (long j = 0; j < matrix.cols(); ++j)
      out << (j == 0 ? "" : " ") << embed::readable(matrix(i, j));
    out << '\n';
  }
  return out;
}

}  // namespace tqnlp
