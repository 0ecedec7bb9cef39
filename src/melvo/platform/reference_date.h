// Dates in Melvo's JSON (recent files, takes, snapshots) are seconds since
// 2001-01-01T00:00:00Z, the form earlier Melvo files already hold.
#pragma once

#include <chrono>

namespace melvo {

inline constexpr double kReferenceDateOffset = 978307200.0;  // 2001-01-01 in Unix seconds

inline double referenceSeconds(std::chrono::system_clock::time_point t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count() - kReferenceDateOffset;
}
inline double referenceSecondsNow() {
  return referenceSeconds(std::chrono::system_clock::now());
}
inline std::chrono::system_clock::time_point fromReferenceSeconds(double s) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::duration<double>(s + kReferenceDateOffset)));
}

}  // namespace melvo
