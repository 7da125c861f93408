#include "platform/past_reports.h"

#include <algorithm>
#include <array>
#include <optional>

#include "platform/text_encoding.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// How much of a log is searched, newest first.
constexpr int kMostReads = 2'000;

std::u16string TextAt(const EVENTLOGRECORD& record, std::size_t offset) {
  const auto* const text =
      reinterpret_cast<const wchar_t*>(reinterpret_cast<const std::byte*>(&record) + offset);
  const std::size_t most = offset < record.Length ? (record.Length - offset) / sizeof(wchar_t) : 0;
  return FromNative(text, static_cast<std::size_t>(std::find(text, text + most, L'\0') - text));
}

std::string TimeTextOf(const EVENTLOGRECORD& record) {
  constexpr std::uint64_t kSecond = 10'000'000;
  constexpr std::uint64_t kFrom1601To1970 = 11'644'473'600;
  const std::uint64_t since1601 = (record.TimeGenerated + kFrom1601To1970) * kSecond;
  const FILETIME utc = {static_cast<DWORD>(since1601), static_cast<DWORD>(since1601 >> 32)};
  FILETIME local{};
  SYSTEMTIME time{};
  if (FileTimeToLocalFileTime(&utc, &local) == FALSE ||
      FileTimeToSystemTime(&local, &time) == FALSE)
    return {};
  std::array<wchar_t, 32> text{};
  const int size = wsprintfW(text.data(), L"%04u-%02u-%02uT%02u:%02u:%02u", time.wYear, time.wMonth,
                             time.wDay, time.wHour, time.wMinute, time.wSecond);
  return WideToUtf8(FromNative(text.data(), static_cast<std::size_t>(std::max(size, 0))));
}

// One report with its insertion string; none of another source.
std::optional<std::string> ReportIn(const EVENTLOGRECORD& record,
                                    std::span<const std::u16string_view> sources) {
  const std::u16string source = TextAt(record, sizeof(record));
  if (std::ranges::find(sources, source) == sources.end()) return std::nullopt;
  std::string line = TimeTextOf(record).append(" ").append(WideToUtf8(source)).append(": ");
  if (record.NumStrings > 0) line.append(WideToUtf8(TextAt(record, record.StringOffset)));
  return line;
}

// Newest first.
std::vector<std::string> ReportsOf(const wchar_t* log, std::span<const std::u16string_view> sources,
                                   std::size_t most) {
  std::vector<std::string> reports;
  const Handle<HANDLE, CloseEventLog> events(OpenEventLogW(nullptr, log));
  std::vector<std::byte> buffer(0x7FFFF);  // the largest that the system takes
  for (int reads = 0; events.valid() && reads < kMostReads; ++reads) {
    DWORD size = 0;
    DWORD needed = 0;
    if (ReadEventLogW(events.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0,
                      buffer.data(), static_cast<DWORD>(buffer.size()), &size, &needed) == FALSE)
      break;
    for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= size;) {
      const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
      if (auto report = ReportIn(record, sources)) reports.push_back(std::move(*report));
      if (reports.size() == most || record.Length == 0) return reports;
      at += record.Length;
    }
  }
  return reports;
}

}  // namespace

// Of the locator's own log where it was given one, else of the log of all applications: a log that
// does not exist is the one of applications as well.
std::vector<std::string> PastReports(std::span<const std::u16string_view> sources,
                                     std::size_t most) {
  std::vector<std::string> reports = ReportsOf(L"TALVORN-Locator", sources, most);
  if (reports.empty()) reports = ReportsOf(L"Application", sources, most);
  std::ranges::reverse(reports);
  return reports;
}

}  // namespace talvorn::platform
