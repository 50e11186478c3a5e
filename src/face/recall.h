// What the user's functions answered around the start and the end of a run.
//
// The driver evaluates the start before the technique does it again; at the end the technique, the
// driver and the check of the point all evaluate the last one, with differences each time the same
// points in the same order. Between, nothing is kept and an evaluation costs one look at a flag.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tqnlp::face {

class Recall {
 public:
  bool is_on() const { return on_; }
  void start() { *this = Recall(); }
  void stop() {
    lists_.clear();
    on_ = false;
  }

  // Answers of a function, which stand under its counter of calls: n elements of x, count values.
  bool read(const long* function, long n, const double* x, double* values, long count) {
    for (List& list : lists_) {
      if (list.function != function || list.stride != stride(n, count)) continue;
      for (const std::size_t from : {list.next, std::size_t{0}}) {
        if (from == list.numbers.size()) continue;
        const double* entry = list.numbers.data() + from;
        if (!std::equal(x, x + n, entry)) continue;
        std::copy_n(entry + n, count, values);
        list.next = from + list.stride;
        return true;
      }
    }
    return false;
  }

  void keep(const long* function, long n, const double* x, const double* values, long count) {
    static constexpr std::size_t MOST_NUMBERS = 1 << 17;
    if (kept_ + stride(n, count) > MOST_NUMBERS) return;
    kept_ += stride(n, count);
    std::vector<double>& to = list_of(function, stride(n, count)).numbers;
    to.insert(to.end(), x, x + n);
    to.insert(to.end(), values, values + count);
  }

 private:
  struct List {
    const long* function;
    std::size_t stride;
    std::size_t next = 0;  // where the entry after the last one that was read begins
    std::vector<double> numbers{};
  };

  static std::size_t stride(long n, long count) { return static_cast<std::size_t>(n + count); }

  List& list_of(const long* function, std::size_t stride) {
    for (List& list : lists_)
      if (list.function == function && list.stride == stride) return list;
    return lists_.emplace_back(List{function, stride});
  }

  std::vector<List> lists_;
  std::size_t kept_ = 0;
  bool on_ = true;
};

}  // namespace tqnlp::face
