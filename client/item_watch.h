// Learns of changes in the locator's item list. The locator pulses an event; a pulse
// reaches only who waits at that moment, so that one can be missed. Who watches
// therefore reads the list again at intervals as well:
//
//   ItemWatch watch;  // of the whole list
//   for (;;) {
//     ShowItems(client.GetItems());
//     (void)watch.Wait(5'000);  // a change, or time to look again anyway
//   }
#pragma once

#include <cstdint>

#include "devices/change_event.h"
#include "platform/named_object.h"
#include "platform/waitable.h"

namespace talvorn {

class ItemWatch {
 public:
  // Creates the change event of one device, or of the whole list. One thread waits.
  explicit ItemWatch(std::uint32_t serial = kWholeList);

  // False when the event could not be made: no change is told then, but Wait still
  // lets its time pass.
  [[nodiscard]] bool valid() const { return event_.valid(); }

  enum class Outcome { kChanged, kTimeToRead, kInterrupted };

  // Waits for the next change, for `rereadMs` at most, or until `interrupt` (may be
  // null) is signalled. Soon after a change it is time to read again: changes come in
  // bursts, and who was reading has missed the rest of one.
  [[nodiscard]] Outcome Wait(std::uint32_t rereadMs, const platform::Waitable* interrupt = nullptr);

 private:
  // Makes the event anew where it was lost: on Linux with the folder that it stood in.
  void Renew();
  [[nodiscard]] Outcome WaitFor(std::uint32_t limitMs, const platform::Waitable* interrupt);

  const std::uint32_t serial_;
  platform::NamedEvent event_;
  bool unsettled_ = true;
};

}  // namespace talvorn
