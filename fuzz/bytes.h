// The byte string of a fuzzer as a source of choices. Behind its end all choices are 0, so that
// every string decodes, and a short one decodes to a simple call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::fuzz {

class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  int byte() { return size_ == 0 ? 0 : (--size_, *data_++); }
  int below(int count) { return byte() % count; }
  bool one_in(int count) { return below(count) == count - 1; }  // 0 says no

  template <class Item, std::size_t count>
  Item pick(const Item (&items)[count]) {
    return items[below(static_cast<int>(count))];
  }

  // Mostly a multiple of 1/8 between -8 and 8, sometimes one of the doubles that arithmetic fears.
  double number() {
    static constexpr double INFINITE = std::numeric_limits<double>::infinity();
    static const double feared[] = {missing,
                                    std::numeric_limits<double>::quiet_NaN(),
                                    INFINITE,
                                    -INFINITE,
                                    5e-324,
                                    2.2e-308,
                                    1e-200,
                                    1e-17,
                                    1e-9,
                                    -0.0,
                                    1e9,
                                    -1e16,
                                    1e155,
                                    -1e300,
                                    1.7976931348623157e308,
                                    -1.7976931348623157e308,
                                    1.0 / 3};
    const int choice = byte();
    return choice < 192 ? (static_cast<std::int8_t>(byte())) / 16.0
                        : feared[static_cast<std::size_t>(choice) % std::size(feared)];
  }

  // Between -8 and 8.
  double tame() { return static_cast<std::int8_t>(byte()) / 16.0; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace tqnlp::fuzz
