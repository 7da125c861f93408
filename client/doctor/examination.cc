#include "client/doctor/examination.h"

#include <array>
#include <utility>

#include "client/doctor/checks.h"

namespace talvorn {
namespace {

// Whatever explains silence comes before the silence.
constexpr std::array kChecks = {CheckMeetingPlace, CheckLocator,       CheckSettings,
                                CheckInterfaces,   CheckFirewall,      CheckReceiveBuffers,
                                CheckTraffic,      CheckStaticDevices, CheckSubject};

}  // namespace

Examination::Examination(const ExaminationOptions& wanted, TakeFinding takeFinding)
    : options(wanted),
      take(std::move(takeFinding)),
      client({.timeoutMs = wanted.timeoutMs, .interrupt = wanted.interrupt}) {
  (void)RetrieveValues(settings);
}

void Examination::Ok(std::string_view check, std::string what) const {
  take({check, Verdict::kOk, std::move(what), {}});
}

void Examination::Warn(std::string_view check, std::string what, std::string advice) const {
  take({check, Verdict::kWarning, std::move(what), std::move(advice)});
}

void Examination::Fail(std::string_view check, std::string what, std::string advice) const {
  take({check, Verdict::kFailure, std::move(what), std::move(advice)});
}

bool Examination::Interrupted() const {
  const platform::Waitable* const interrupt[] = {options.interrupt};
  return platform::WaitForAny(interrupt, 0) == platform::WaitStatus::kSignalled;
}

bool Examine(const ExaminationOptions& options, const TakeFinding& take) {
  Examination examination(options, take);
  for (const auto check : kChecks) {
    check(examination);
    if (examination.Interrupted()) return false;
  }
  return true;
}

}  // namespace talvorn
