// The checks, in the order in which they are made.
#pragma once

#include "client/doctor/examination.h"

namespace talvorn {

// The runtime directory or the session: whether this program can meet a locator at all.
void CheckMeetingPlace(Examination& examination);
// The locator answers, in how long, with which version; others that serve nobody.
void CheckLocator(Examination& examination);
void CheckSettings(Examination& examination);
// Each interface: used, or why it is not; the groups joined on it.
void CheckInterfaces(Examination& examination);
void CheckFirewall(Examination& examination);
void CheckReceiveBuffers(Examination& examination);
// Requests, answers and other locators on the network, for one request period.
void CheckTraffic(Examination& examination);
void CheckStaticDevices(Examination& examination);
// The way of the one device that was asked for.
void CheckSubject(Examination& examination);

}  // namespace talvorn
