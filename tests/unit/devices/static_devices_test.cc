#include "devices/static_devices.h"

#include <gtest/gtest.h>

#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/trace_capture.h"

namespace talvorn {
namespace {

// What the worker says when it starts and is stopped at once.
std::string TraceOfARun() {
  DebugTrace().SetEnabled(1);
  testing::TraceCapture capture;
  StaticDeviceContext context;
  EXPECT_TRUE(StartStaticDevices(context));
  StopStaticDevices(context);
  DebugTrace().SetEnabled(0);
  return capture.Take();
}

TEST(StaticDevices, SaysWhyAConfiguredFileIsNotUsed) {
  const testing::ScratchMachine machine;
  const std::string warning =
      "DeviceByHostName: Warning : static devices ini file not accessible (name:";
  EXPECT_NE(TraceOfARun().find(warning + ")\n"), std::string::npos) << "no settings";
  machine.WriteSettings("\"TAL-VORN INI-File Static Devices\"=\"/a.ini7\"");
  EXPECT_NE(TraceOfARun().find(warning + "/a.ini7)\n"), std::string::npos) << "a short path";
  machine.WriteSettings("\"TAL-VORN INI-File Static Devices\"=\"/no/such/file.ini\"");
  EXPECT_NE(TraceOfARun().find("DeviceByHostName: Info : static devices ini file has no entry "
                               "(name:/no/such/file.ini)\n"),
            std::string::npos);
}

}  // namespace
}  // namespace talvorn
