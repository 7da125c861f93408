#include "devices/change_event.h"

#include <array>

#include "platform/named_object.h"
#include "support/completed.h"
#include "support/text_format.h"

namespace talvorn {

std::u16string ChangeEventName(std::uint32_t serial) {
  std::array<char16_t, 100> name{};
  FormatTextW(name, u"Global\\DRAVIK_CHANGES_ITEM_LIST_%s_%07lu", u"TALVORN", serial);
  return name.data();
}

void SignalChange(std::uint32_t serial) {
  (void)Completed([serial] {
    static const std::u16string wholeList = ChangeEventName(kWholeList);
    platform::NamedEvent event =
        platform::NamedEvent::Open(serial == kWholeList ? wholeList : ChangeEventName(serial));
    if (event.valid()) event.Pulse();
  });
}

}  // namespace talvorn
