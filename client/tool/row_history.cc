#include "client/tool/row_history.h"

namespace talvorn {

std::vector<MarkedRow> RowHistory::Update(std::span<const ViewRow> rows, std::uint64_t nowMs) {
  for (auto& [key, entry] : entries_) entry.present = false;
  for (const ViewRow& row : rows) {
    const auto [found, added] = entries_.try_emplace(row.key);
    Entry& entry = found->second;
    const bool returned = entry.mark == RowMark::kGone;
    if (added ? !first_ : returned || entry.cells != row.cells) {
      entry.mark = added || returned ? RowMark::kNew : RowMark::kChanged;
      entry.markedAtMs = nowMs;
    }
    entry.cells = row.cells;
    entry.present = true;
  }
  first_ = false;

  std::vector<MarkedRow> marked;
  for (auto it = entries_.begin(); it != entries_.end();) {
    Entry& entry = it->second;
    if (!entry.present && entry.mark != RowMark::kGone) {
      entry.mark = RowMark::kGone;
      entry.markedAtMs = nowMs;
    }
    if (entry.mark != RowMark::kNone && nowMs - entry.markedAtMs >= markMs_) {
      if (!entry.present) {
        it = entries_.erase(it);
        continue;
      }
      entry.mark = RowMark::kNone;
    }
    marked.push_back({entry.mark, entry.cells});
    ++it;
  }
  return marked;
}

}  // namespace talvorn
