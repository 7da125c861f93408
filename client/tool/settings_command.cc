// settings: what is in force, and where it comes from.
#include "client/tool/commands.h"
#include "client/tool/views.h"
#include "command_line/concat.h"

namespace talvorn {

int RunSettingsCommand(const ToolOptions& options) {
  const SettingList settings = ReadSettingList();
  if (!options.json) return Print(TableText(ViewOfSettings(settings)));
  JsonWriter json;
  json.BeginObject();
  WriteSettings(json, settings);
  return Print(Concat({json.EndObject().text(), "\n"}));
}

}  // namespace talvorn
