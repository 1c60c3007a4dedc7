// "marlinda devices": lists the sound devices.
#include "host/commands/shared.h"
#include "host/sound_devices.h"

namespace marlinda {
namespace {

Json ToJson(const std::vector<SoundDevice>& devices) {
  Json list = Json::array();
  for (const SoundDevice& device : devices) {
    list.push_back({{"index", list.size()}, {"name", device.name}, {"channels", device.channels}});
  }
  return list;
}

std::string ToText(const char* kind, const std::vector<SoundDevice>& devices) {
  if (devices.empty()) return std::string(kind) + ": none\n";
  std::string text = std::string(kind) + ":\n";
  for (std::size_t i = 0; i < devices.size(); ++i) {
    text += "  " + std::to_string(i) + "  " + devices[i].name + ", " +
            ChannelCount(devices[i].channels) + "\n";
  }
  return text;
}

void ListDevices(bool json, const Console& console) {
  const auto outputs = OutputDevices();
  const auto inputs = InputDevices();
  console.Print(json ? Serialize(Json{{"outputs", ToJson(outputs)}, {"inputs", ToJson(inputs)}})
                     : ToText("outputs", outputs) + ToText("inputs", inputs));
}

}  // namespace

void AddDevices(CLI::App& app, Console& console) {
  const auto json = std::make_shared<bool>();
  AddJson(AddCommand(app, "devices", "List the sound devices", "Example: marlinda devices",
                     [json, &console] { ListDevices(*json, console); }),
          *json);
}

}  // namespace marlinda
