#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "platform/account.h"
#include "platform/mailslot.h"
#include "platform/process.h"

namespace talvorn {

void CheckMeetingPlace(Examination& examination) {
  constexpr std::string_view kCheck = "meeting-place";
  const std::string obstacle = platform::MeetingPlaceObstacle();
  if (obstacle.empty()) {
    const std::string owner = platform::MailslotOwnerText(platform::kLocatorMailslot);
    examination.Ok(kCheck,
                   Concat({"this program runs as ", platform::AccountText(),
                           owner.empty() ? "" : "; the locator's mailslot belongs to ", owner}));
    return;
  }
  examination.Fail(kCheck, obstacle,
                   Concat({"End the locator, remove the directory and start the locator again, or "
                           "set ",
                           platform::MeetingPlaceVariable(),
                           " to the same directory for the locator and this program."}));
}

}  // namespace talvorn
