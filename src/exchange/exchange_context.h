// The record through which the service thread starts and stops the command server.
#pragma once

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "platform/named_object.h"
#include "platform/security.h"
#include "platform/thread.h"
#include "support/run_flag.h"

namespace talvorn {

struct ExchangeContext {
  // Working fields of the mailslot's security; none outside the server's start-up.
  platform::SidPointer everyoneSid;
  platform::SidPointer administratorsSid;
  platform::AclPointer acl;
  platform::DescriptorPointer securityDescriptor;

  platform::Thread thread;
  RunFlag running;
  CResponseList* responseList = nullptr;
  CItemList* itemList = nullptr;

  // "MUTEX_LOGMODE" while the log mode is on by this locator's doing. Outlives the
  // server's thread: what nobody switched off ends with the process.
  platform::NamedMutex logModeMutex;
};

}  // namespace talvorn
