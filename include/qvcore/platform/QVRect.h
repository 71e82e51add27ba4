#pragma once

namespace qv {

// A rectangle in points: origin and size, as screens report their bounds.
struct QVRect {
  double x = 0.0;
  double y = 0.0;
  double width = 0.0;
  double height = 0.0;

  friend bool operator==(const QVRect&, const QVRect&) = default;
};

}  // namespace qv
