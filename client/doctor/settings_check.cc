#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "devices/static_devices.h"
#include "platform/ascii_case.h"
#include "platform/device_file.h"
#include "platform/text_encoding.h"
#include "support/setting_list.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "settings";

std::string Quoted(std::u16string_view text) {
  return Concat({"\"", platform::WideToUtf8(text), "\""});
}

// How many letters have to be added, left out or replaced to make one of the other.
std::size_t DistanceOf(std::u16string_view left, std::u16string_view right) {
  std::vector<std::size_t> row(right.size() + 1);
  for (std::size_t i = 0; i < row.size(); ++i) row[i] = i;
  for (std::size_t i = 0; i < left.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < right.size(); ++j) {
      const bool same = platform::ToAsciiLower(left[i]) == platform::ToAsciiLower(right[j]);
      const std::size_t replaced = diagonal + (same ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// Names of unbearable length are like none.
std::string AdviceOnUnknown(std::u16string_view name) {
  constexpr std::size_t kLongest = 64;
  const std::string_view otherwise = "Remove it, or see the list of settings.";
  if (name.size() > kLongest) return std::string(otherwise);
  const auto names = SettingNames();
  const auto nearest = std::ranges::min_element(
      names, {}, [name](const SettingName& one) { return DistanceOf(name, one.name); });
  if (DistanceOf(name, nearest->name) > nearest->name.size() / 2) return std::string(otherwise);
  return Concat({"Is ", Quoted(nearest->name), " meant?"});
}

void TellStored(const Examination& examination, const SettingList& list) {
  const auto stored =
      std::ranges::count(list.known, SettingSource::kStored, &SettingInForce::source);
  examination.Ok(kCheck, list.stored ? Concat({std::to_string(stored), " of ",
                                               std::to_string(list.known.size()),
                                               " settings are set in ", platform::SettingsPlace()})
                                     : Concat({"all settings have their defaults, since ",
                                               platform::SettingsPlace(), " has none"}));
  for (const std::string& obstacle : platform::SettingsObstacles())
    examination.Warn(kCheck, obstacle, "Compare with the example of a settings file.");
  for (const std::u16string& name : list.unknown)
    examination.Warn(kCheck, Concat({Quoted(name), " is no setting"}), AdviceOnUnknown(name));
  for (const SettingInForce& one : list.known) {
    if (one.source != SettingSource::kUnusable) continue;
    const bool text = std::holds_alternative<std::u16string>(one.value);
    examination.Warn(kCheck,
                     Concat({Quoted(one.name),
                             text ? " is stored, but not as a text with room for it"
                                  : " is stored, but not as a number",
                             "; its default holds"}),
                     text ? "Store it as a text (REG_SZ) of less than 1,024 characters."
                          : "Store it as a number (REG_DWORD, dword:).");
  }
}

// Programs for 32 bits that wrote settings wrote them beside ours.
void TellOtherView(const Examination& examination) {
  const auto other = platform::SettingsKey::Open(
      u"SOFTWARE\\WOW6432Node\\Kestrow\\TAL-VORN\\Settings", platform::SettingsAccess::kRead);
  if (other.Names().empty()) return;
  examination.Warn(kCheck, "settings stand where 32-bit programs look, which the locator does not",
                   "Move them from SOFTWARE\\WOW6432Node\\Kestrow to SOFTWARE\\Kestrow.");
}

struct Doubt {
  bool applies;
  std::string_view what;
  std::string_view advice;
};

void TellDoubts(const Examination& examination) {
  constexpr std::uint32_t kQuickest = 100;
  const RegistryValues& values = examination.settings;
  const std::uint64_t shortestValidity = 2 * std::uint64_t{values.timeRequest};
  const std::uint64_t shortestStaticValidity = 2 * std::uint64_t{values.timeRequestGapIfStatic};
  const bool hasStatic = values.staticDevicesIniFile[0] != u'\0';
  const auto doubts = std::to_array<Doubt>({
      {values.timeResponseValid < shortestValidity,
       "\"Time Response Valid\" is less than twice \"Time Request\": a device whose answer is lost "
       "once disappears",
       "Make it at least twice as long."},
      {hasStatic && values.timeResponseValidIfStatic < shortestStaticValidity,
       "\"Time Response Valid IFSTATIC\" is less than twice \"Time Request Gap IFSTATIC\": a "
       "static "
       "device that misses one round disappears",
       "Make it at least twice as long."},
      {values.timeRequest < kQuickest,
       "\"Time Request\" asks the network more than ten times a second",
       "Times are in milliseconds; 5000 is usual."},
      {values.preferedIpVersion != 4 && values.preferedIpVersion != 6,
       "\"Prefered IP Version\" is neither 4 nor 6; IPv4 it is", "Set it to 4 or 6."},
  });
  for (const Doubt& doubt : doubts)
    if (doubt.applies) examination.Warn(kCheck, std::string(doubt.what), std::string(doubt.advice));
  if (values.ipv6Active == 0) examination.Ok(kCheck, "IPv6 is switched off by \"IPv6 Active\"");
}

void TellStaticFile(const Examination& examination) {
  const std::u16string_view path = examination.settings.staticDevicesIniFile.data();
  if (path.empty()) return;
  if (path.size() < kShortestDeviceFilePath) {
    examination.Fail(kCheck,
                     Concat({Quoted(path),
                             " is too short for the path of the static devices' file, "
                             "and passed over"}),
                     "Give the whole path of the file.");
  } else if (platform::ReadDeviceFile(path).empty()) {
    examination.Fail(
        kCheck,
        Concat({"the file of static devices, ", Quoted(path), ", cannot be read or lists none"}),
        "Look at its path, at its rights, and for a [section] for each device.");
  }
}

}  // namespace

void CheckSettings(Examination& examination) {
  TellStored(examination, ReadSettingList());
  TellOtherView(examination);
  TellDoubts(examination);
  TellStaticFile(examination);
}

}  // namespace talvorn
