// Remembers the rows of a live table, so that what has just come, changed or gone can
// be marked for a while.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "client/tool/views.h"

namespace talvorn {

enum class RowMark { kNone, kNew, kChanged, kGone };

struct MarkedRow {
  RowMark mark = RowMark::kNone;
  std::vector<std::string> cells;
};

class RowHistory {
 public:
  explicit RowHistory(std::uint64_t markMs) : markMs_(markMs) {}

  // The rows of now, and the gone ones that are still shown, in the order of their
  // keys. The first call marks nothing.
  [[nodiscard]] std::vector<MarkedRow> Update(std::span<const ViewRow> rows, std::uint64_t nowMs);

 private:
  struct Entry {
    std::vector<std::string> cells;
    RowMark mark = RowMark::kNone;
    std::uint64_t markedAtMs = 0;
    bool present = false;
  };

  std::uint64_t markMs_;
  bool first_ = true;
  std::map<std::string, Entry> entries_;
};

}  // namespace talvorn
